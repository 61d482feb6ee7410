#include <zel/Log.h>
#include <zel/Verify.h>
#include <zelIO/FileSystem.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace zelIO {

using zel::Vector;

namespace {

String systemError() {
    return std::strerror(errno);
}

[[noreturn]] void fail(const String& text) {
    ZEL_LOG_WARNING(text);
    throw std::runtime_error(text);
}

String replaceAll(String path, char from, char to) {
    std::replace(path.begin(), path.end(), from, to);
    return path;
}

/// "." parts and doubled separators go, and a ".." part removes the one ahead of it, unless that is ".."
/// itself.
String cleanText(const String& path) {
    Vector<String> parts;
    std::istringstream stream(path);
    for (String part; std::getline(stream, part, '/');) {
        if (part.empty() || part == ".")
            continue;
        if (part == ".." && !parts.empty() && parts.back() != "..")
            parts.pop_back();
        else
            parts.push_back(part);
    }
    String clean = path.starts_with('/') ? "/" : "";
    for (size_t i = 0; i < parts.size(); ++i)
        clean += (i == 0 ? "" : "/") + parts[i];
    return clean.empty() ? String(".") : clean;
}

String cleanupPath(const String& given) {
    const String path = FileSystem::convertWindowsFilePathToUnix(given);
    zelVerify(!path.empty());
    if (!FileSystem::exists(path))
        return cleanText(path);
    std::array<char, PATH_MAX> clean_cstr{};
    zelVerifyAs(realpath(path.c_str(), clean_cstr.data()) != nullptr, "realpath(path.c_str(), clean_cstr)");
    return clean_cstr.data();
}

/// The sorted names in a directory without "." and "..". They are read before anything is done with them, so
/// that the directory may change meanwhile.
bool listDirectory(const String& path, Vector<String>& names) {
    DIR* const directory = opendir(path.c_str());
    if (directory == nullptr)
        return false;
    errno = 0;
    while (const dirent* entry = readdir(directory)) {
        const String name = entry->d_name;
        if (name != "." && name != "..")
            names.push_back(name);
        errno = 0;
    }
    const int error = errno;
    closedir(directory);
    errno = error;
    std::sort(names.begin(), names.end());
    return error == 0;
}

String join(const String& directory, const String& name) {
    return directory.ends_with('/') ? directory + name : directory + "/" + name;
}

bool makeDirectory(const String& path) {
    if (::mkdir(path.c_str(), 0755) == 0)
        return true;
    const int error = errno;
    if (error == EEXIST && FileSystem::isDir(path)) // made by someone else in the meantime
        return true;
    errno = error;
    return false;
}

bool copyBlocks(std::FILE* source, std::FILE* target) {
    std::array<char, 65536> block{};
    while (const size_t length = std::fread(block.data(), 1, block.size(), source))
        if (std::fwrite(block.data(), 1, length, target) != length)
            return false;
    return std::ferror(source) == 0;
}

bool warnCopy(const String& from, const String& to, const String& reason) {
    ZEL_LOG_WARNING("Could not copy '" << from << "' to '" << to << "': " << reason);
    return false;
}

bool copyFile(const String& from, const String& to, const struct ::stat& data) {
    struct ::stat target {};
    if (FileSystem::stat(to, target) && target.st_dev == data.st_dev && target.st_ino == data.st_ino)
        return warnCopy(from, to, "they are the same file");
    std::FILE* const in = FileSystem::openFile(from.c_str(), "rb");
    if (in == nullptr)
        return warnCopy(from, to, systemError());
    std::FILE* const out = FileSystem::openFile(to.c_str(), "wb");
    if (out == nullptr) {
        const String reason = systemError();
        FileSystem::closeFile(in);
        return warnCopy(from, to, reason);
    }
    const bool copied = copyBlocks(in, out) && fchmod(fileno(out), data.st_mode & 0777) == 0;
    const String reason = systemError();
    FileSystem::closeFile(in);
    // The target is written out when it is closed: only then is a full disk known for sure.
    const bool closed = FileSystem::closeFile(out);
    return copied ? closed : warnCopy(from, to, reason);
}

bool copyLink(const String& from, const String& to) {
    std::array<char, PATH_MAX> target{};
    const ssize_t length = readlink(from.c_str(), target.data(), target.size() - 1);
    if (length < 0 || symlink(target.data(), to.c_str()) != 0)
        return warnCopy(from, to, systemError());
    return true;
}

bool copyDirectory(const String& from, const String& to) {
    if (!FileSystem::isDir(to) && !makeDirectory(to))
        return warnCopy(from, to, systemError());
    bool ok = true;
    const bool scanned = FileSystem::scan(from, [&](const String& entry) {
        const String target = join(to, FileSystem::getFileWithExtension(entry));
        const bool linkToDirectory = FileSystem::isLink(entry) && FileSystem::isDir(entry);
        ok = (linkToDirectory ? copyLink(entry, target) : FileSystem::copy(entry, target)) && ok;
    });
    return scanned && ok;
}

/// Whether `inner` is `outer` or lies below it, links resolved.
bool liesWithin(const String& inner, const String& outer) {
    const String outerPath = cleanupPath(FileSystem::getAbsolutePath(outer));
    const String parent = FileSystem::getDirectory(inner);
    const String innerPath = FileSystem::exists(inner)
                                 ? cleanupPath(FileSystem::getAbsolutePath(inner))
                                 : join(cleanupPath(parent.empty() ? String("/") : parent),
                                        FileSystem::getFileWithExtension(inner));
    return innerPath == outerPath || innerPath.starts_with(join(outerPath, ""));
}

} // namespace

bool FileSystem::isLink(const String& path) {
    struct ::stat data {};
    return lstat(convertToNativeFilePath(path).c_str(), &data) == 0 && S_ISLNK(data.st_mode);
}

bool FileSystem::isAbsolute(const String& path) {
    return convertToNativeFilePath(path).starts_with('/');
}

bool FileSystem::exists(const String& path) {
    struct ::stat data {};
    return stat(path, data);
}

bool FileSystem::isDir(const String& path) {
    struct ::stat data {};
    return stat(path, data) && S_ISDIR(data.st_mode);
}

bool FileSystem::readable(const String& path) {
    return access(convertToNativeFilePath(path).c_str(), R_OK) == 0;
}

bool FileSystem::writeable(const String& path) {
    return access(convertToNativeFilePath(path).c_str(), W_OK) == 0;
}

bool FileSystem::stat(const String& path, struct ::stat& data) {
    return ::stat(convertToNativeFilePath(path).c_str(), &data) == 0;
}

zel::uint64 FileSystem::size(const String& path) {
    struct ::stat data {};
    if (!stat(path, data))
        fail("Could not get the size of '" + path + "': " + systemError());
    return static_cast<zel::uint64>(data.st_size);
}

zel::int64 FileSystem::compareDate(const String& a, const String& b) {
    struct ::stat dataA {};
    struct ::stat dataB {};
    const bool foundA = stat(a, dataA);
    const bool foundB = stat(b, dataB);
    if (foundA && foundB)
        return dataB.st_mtime - dataA.st_mtime;
    return static_cast<int>(foundB) - static_cast<int>(foundA);
}

String FileSystem::getSystemTmpDirectory() {
    return "/tmp";
}

String FileSystem::getCurrentWorkingDirectory() {
    std::array<char, PATH_MAX> path{};
    if (getcwd(path.data(), path.size()) == nullptr)
        fail("Could not get the working directory: " + systemError());
    return path.data();
}

bool FileSystem::setCurrentWorkingDirectory(const String& path) {
    if (chdir(convertToNativeFilePath(path).c_str()) == 0)
        return true;
    ZEL_LOG_WARNING("Could not change the working directory to '" << path << "': " << systemError());
    return false;
}

String FileSystem::convertToNativeFilePath(const String& path) {
    return convertWindowsFilePathToUnix(path);
}

String FileSystem::convertWindowsFilePathToUnix(const String& path) {
    return replaceAll(path, '\\', '/');
}

String FileSystem::convertUnixFilePathToWindows(const String& path) {
    return replaceAll(path, '/', '\\');
}

String FileSystem::convertToColladaFilePath(const String& path) {
    return convertWindowsFilePathToUnix(path);
}

String FileSystem::getPath(const String& path) {
    const String native = convertToNativeFilePath(path);
    const size_t separator = native.rfind('/');
    return separator == String::npos ? String() : String(native.substr(0, separator));
}

String FileSystem::getFileExtension(const String& path) {
    const String name = getFileWithExtension(path);
    const size_t point = name.rfind('.');
    return point == String::npos ? String() : String(name.substr(point + 1));
}

String FileSystem::getFileWithoutExtension(const String& path) {
    const String name = getFileWithExtension(path);
    return name.substr(0, name.rfind('.'));
}

String FileSystem::getFileWithExtension(const String& path) {
    const String native = convertToNativeFilePath(path);
    const size_t separator = native.rfind('/');
    return separator == String::npos ? native : String(native.substr(separator + 1));
}

String FileSystem::getAbsolutePath(const String& path) {
    const String native = convertToNativeFilePath(path);
    return isAbsolute(native) ? native : join(getCurrentWorkingDirectory(), native);
}

String FileSystem::getDirectory(const String& path) {
    return getPath(getAbsolutePath(path));
}

String FileSystem::combinePath(const String& a, const String& b) {
    return cleanupPath(a.empty() || b.empty() ? a + b : a + "/" + b);
}

bool FileSystem::rename(const String& from, const String& to) {
    if (std::rename(convertToNativeFilePath(from).c_str(), convertToNativeFilePath(to).c_str()) == 0)
        return true;
    ZEL_LOG_WARNING("Could not rename '" << from << "' to '" << to << "': " << systemError());
    return false;
}

bool FileSystem::mkdir(const String& path, bool recursive) {
    const String native = convertToNativeFilePath(path);
    bool ok = recursive && isDir(native);
    if (!ok && recursive) {
        ok = true;
        for (size_t end = native.find('/', 1); ok && end != String::npos; end = native.find('/', end + 1))
            ok = isDir(native.substr(0, end)) || makeDirectory(native.substr(0, end));
        ok = ok && (isDir(native) || makeDirectory(native));
    } else if (!ok) {
        ok = ::mkdir(native.c_str(), 0755) == 0;
    }
    if (!ok)
        ZEL_LOG_WARNING("Could not create directory '" << path << "': " << systemError());
    return ok;
}

bool FileSystem::scan(const String& path, const zel::Callback1<const String&>& callback) {
    const String native = convertToNativeFilePath(path);
    Vector<String> names;
    if (!listDirectory(native, names)) {
        ZEL_LOG_WARNING("FileSystem: Could not scan directory \"" << path << "\".");
        return false;
    }
    for (const String& name : names)
        if (name != ".svn")
            callback(join(native, name));
    return true;
}

bool FileSystem::getFilesInDirectory(Vector<String>& result, const String& path, bool recursive) {
    bool ok = true;
    const bool scanned = scan(path, [&](const String& entry) {
        if (!isDir(entry))
            result.push_back(entry);
        else if (recursive && !isLink(entry))
            ok = getFilesInDirectory(result, entry, true) && ok;
    });
    return scanned && ok;
}

bool FileSystem::copy(const String& from, const String& to) {
    const String source = convertToNativeFilePath(from);
    const String target = convertToNativeFilePath(to);
    struct ::stat data {};
    if (!stat(source, data))
        return warnCopy(from, to, systemError());
    if (!S_ISDIR(data.st_mode))
        return copyFile(source, target, data);
    if (liesWithin(target, source))
        return warnCopy(from, to, "the target lies within the directory");
    return copyDirectory(source, target);
}

bool FileSystem::remove(const String& path, bool recursive) {
    String native = convertToNativeFilePath(path);
    // With a separator behind its name the system takes a link for the directory that it leads to.
    if (const String name = native.substr(0, native.find_last_not_of('/') + 1); isLink(name))
        native = name;
    if (isLink(native) || !isDir(native)) {
        if (unlink(native.c_str()) == 0)
            return true;
        ZEL_LOG_WARNING("Could not remove file '" << path << "': " << systemError());
        return false;
    }
    Vector<String> names;
    if (recursive && listDirectory(native, names))
        for (const String& name : names)
            if (!remove(join(native, name), true))
                return false;
    if (rmdir(native.c_str()) == 0)
        return true;
    ZEL_LOG_WARNING("Could not remove empty directory '" << path << "': " << systemError());
    return false;
}

String FileSystem::getTmpFilename() {
    std::string path = getSystemTmpDirectory() + "/temp.XXXXXX";
    const int descriptor = mkstemp(path.data());
    if (descriptor < 0 || close(descriptor) != 0) {
        ZEL_LOG_WARNING("Unable to generate temporary file path '" << path << "'");
        throw std::runtime_error("mktemp failed");
    }
    return path;
}

String FileSystem::mkTmpDirectory(const String& parent, const String& prefix) {
    std::string path =
        String::format("%s%s%sXXXXXX", getAbsolutePath(parent).c_str(), PATH_SEPARATOR, prefix.c_str());
    if (mkdtemp(path.data()) == nullptr) {
        ZEL_LOG_WARNING("Unable to create temporary directory '" << path << "'");
        throw std::runtime_error("mkdtemp failed");
    }
    return path;
}

String FileSystem::mkTmpDirectory(const String& prefix) {
    return mkTmpDirectory(getSystemTmpDirectory(), prefix);
}

std::FILE* FileSystem::openFile(const char* name, const char* mode) {
    return std::fopen(convertToNativeFilePath(name).c_str(), mode);
}

bool FileSystem::closeFile(std::FILE* file) {
    if (file == nullptr)
        throw std::runtime_error("Invalid nullptr file stream");
    if (std::fclose(file) == 0)
        return true;
    ZEL_LOG_WARNING("Could not close file: " << systemError());
    return false;
}

String FileSystem::readFile(const String& path) {
    const auto failReading = [&path](int error) {
        errno = error != 0 ? error : EIO;
        fail("IO-error while reading '" + path + "': " + systemError());
    };
    if (isDir(path)) // can be opened, but has no content
        failReading(EISDIR);
    const auto close = [](std::FILE* file) { static_cast<void>(std::fclose(file)); };
    const std::unique_ptr<std::FILE, decltype(close)> file(openFile(path.c_str(), "rb"), close);
    if (file == nullptr)
        failReading(errno);
    long length = -1;
    if (std::fseek(file.get(), 0, SEEK_END) == 0)
        length = std::ftell(file.get());
    if (length < 0 || std::fseek(file.get(), 0, SEEK_SET) != 0)
        failReading(errno);
    String contents(static_cast<size_t>(length), '\0');
    if (std::fread(contents.data(), 1, contents.size(), file.get()) != contents.size())
        failReading(errno);
    return contents;
}

void readFile(String& contents, const String& path) {
    std::ifstream stream(FileSystem::convertToNativeFilePath(path), std::ios::binary);
    std::ostringstream text;
    // An empty file gives nothing to insert, which is no failure of the reading.
    if (stream && stream.peek() != std::ifstream::traits_type::eof())
        text << stream.rdbuf();
    if (!stream.is_open() || stream.bad() || text.fail())
        fail("Could not open file'" + path + "'");
    contents = text.str();
}

bool setEnvironmentVariable(const char* name, const char* value) {
    if (name != nullptr && value != nullptr && setenv(name, value, 1) == 0)
        return true;
    ZEL_LOG_WARNING("Could not set environment variable '" << (name != nullptr ? name : "") << "'");
    return false;
}

} // namespace zelIO
