#include "XmlDocument.h"

#include "XmlCheck.h"

#include <zel/Exception.h>
#include <zel/Object.h>
#include <zelIO/FileSystem.h>

#include <sys/stat.h>
#include <tinyxml.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

namespace zel {

namespace {

constexpr size_t MaximumSize = size_t{64} << 20;

} // namespace

bool readTextFile(const String& file, std::string& text, XmlFileError& error) {
    // A pipe would be waited for.
    struct ::stat data {};
    if (zelIO::FileSystem::stat(file, data) && !S_ISREG(data.st_mode)) {
        error.reason = S_ISDIR(data.st_mode) ? std::strerror(EISDIR) : "it is not a regular file";
        return false;
    }
    std::FILE* stream = zelIO::FileSystem::openFile(file.c_str(), "rb");
    if (stream == nullptr) {
        error.reason = std::strerror(errno);
        return false;
    }
    std::string block(size_t{1} << 16, '\0');
    size_t count = 0;
    while (text.size() <= MaximumSize && (count = std::fread(block.data(), 1, block.size(), stream)) != 0)
        text.append(block, 0, count);
    const int failure = std::ferror(stream) != 0 ? errno : 0;
    zelIO::FileSystem::closeFile(stream);
    if (failure != 0)
        error.reason = std::strerror(failure);
    else if (text.size() > MaximumSize)
        error.reason = "the file is larger than " + std::to_string(MaximumSize) + " bytes";
    return error.reason.empty();
}

std::unique_ptr<TiXmlDocument> parseXmlFile(const String& file, XmlFileError& error) {
    std::string text;
    if (!readTextFile(file, text, error))
        return nullptr;
    return parseXmlText(text, file, error);
}

std::unique_ptr<TiXmlDocument>
parseXmlText(const std::string& text, const String& name, XmlFileError& error) {
    if (!checkXml(text, error))
        return nullptr;
    auto document = std::make_unique<TiXmlDocument>(name.c_str());
    document->Parse(text.c_str(), nullptr, TIXML_ENCODING_UTF8); // as it has been found to be
    if (document->Error())
        error = {static_cast<size_t>(std::max(0, document->ErrorRow())), document->ErrorDesc()};
    else
        return document;
    return nullptr;
}

std::string describeXmlFileError(const String& file, const XmlFileError& error) {
    return "Could not open model file '" + file + "', error on row " + std::to_string(error.row) + ": " +
           error.reason;
}

std::unique_ptr<TiXmlDocument> Object::openDocument(const String& file) {
    XmlFileError error;
    auto document = parseXmlFile(file, error);
    if (!document)
        ZEL_THROW(std::runtime_error, describeXmlFileError(file, error));
    return document;
}

} // namespace zel
