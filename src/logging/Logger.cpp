#include <zel/HashSet.h>
#include <zel/Logger.h>
#include <zel/String.h>
#include <zel/SystemInformation.h>
#include <zelCore/Version.h>
#include <zelCore/zelCore.h>
#include <zelIO/FileSystem.h>

#include <cstdlib>
#include <iostream>

namespace zel {

namespace {

constexpr int MaxLogNumber = 9999;

/// The variable as an integer; text that is none counts as 0.
long environmentNumber(const char* name, long defaultValue) {
    const char* text = std::getenv(name);
    return text == nullptr ? defaultValue : std::strtol(text, nullptr, 10);
}

/// The levels are given as exponents of two.
uint32 environmentLevel(const char* name, long defaultValue) {
    return 1U << (static_cast<unsigned long>(environmentNumber(name, defaultValue)) & 31U);
}

std::string logFileFromEnvironment() {
    const char* text = std::getenv("ZEL_LOG_FILE");
    std::string name = text == nullptr ? "zel.log" : text;
    if (name.starts_with('"'))
        name.erase(0, 1);
    if (name.ends_with('"'))
        name.pop_back();
    return name;
}

/// The first numbered name without a file; the last number is used in any case.
String numberedLogFile(const String& path) {
    using zelIO::FileSystem;
    const String stem =
        FileSystem::getPath(path) + FileSystem::PATH_SEPARATOR + FileSystem::getFileWithoutExtension(path);
    const String extension = FileSystem::getFileExtension(path);
    for (int counter = 1;; ++counter) {
        String candidate = String::format("%s-%04d.%s", stem.c_str(), counter, extension.c_str());
        if (counter == MaxLogNumber || !FileSystem::exists(candidate))
            return candidate;
    }
}

/// The log files of this process. Opened once more, in a second life of the library for instance, a file
/// keeps what it holds. Never destroyed: static destructors log.
HashSet<String>& writtenFiles() {
    static auto& files = *new HashSet<String>;
    return files;
}

void writeHeader(LogStream& log) {
    log << "*** Log file created@" << LogStream::getTimeString(log.getDateFormat(), true) << "***"
        << std::endl;
    log << "Company: " << zelCore::zelGetCompanyName() << " Component: " << zelCore::zelGetLibraryName()
        << " Version: " << zelCore::zelGetVersion(true) << " Build date: " << zelCore::zelGetBuildDate(false)
        << " Build time: " << zelCore::zelGetBuildTime() << std::endl;
    log << "Build type: " << zelCore::zelGetBuildType() << " Build flags: " << zelCore::zelGetCppBuildFlags()
        << std::endl;
    log << std::endl;
    log << "Hardware information:\n" << SystemInformation::getHardwareSpecification() << std::endl;
}

} // namespace

constinit Logger* Logger::s_instance = nullptr;
constinit bool Logger::s_sessionOver = false;

Logger* Logger::instance() {
    if (s_instance == nullptr)
        new Logger; // enters itself, as it may log while it is made
    return s_instance;
}

// Nothing in it throws: the manager knows the logger from here on.
Logger::Logger() : Singleton(10002), m_keepsSettings(s_sessionOver) {
    s_instance = this;
    if (!m_keepsSettings)
        readEnvironment();
}

void Logger::beginSession() {
    s_sessionOver = false;
    Notify::forgetLastSession();
    if (instance()->m_keepsSettings) {
        s_instance->m_keepsSettings = false;
        s_instance->readEnvironment();
    }
}

void Logger::readEnvironment() {
    Notify* const notify = Notify::instance();
    notify->setThrowOnError(environmentNumber("ZEL_THROW_ON_ERROR", 1) != 0);
    notify->setBreakOnError(environmentNumber("ZEL_BREAK_ON_ERROR", 0) != 0);
    if (environmentNumber("ZEL_LOG_ENABLE", 0) != 0)
        openLogFromEnvironment();
    const uint32 level = environmentLevel("ZEL_OUTPUT_LEVEL", 2);
    notify->setNotifyLevel(level > Notify::Error ? Notify::Warning : static_cast<Notify::NotifyLevel>(level));
}

void Logger::openLogFromEnvironment() {
    const std::string name = logFileFromEnvironment();
    const bool overwrite = environmentNumber("ZEL_LOG_OVERWRITE", 0) != 0;
    bool opened = false;
    try {
        opened = name.empty() || openLogfile(name, overwrite, true);
    } catch (const std::exception&) {
        // The working directory is gone, for instance.
    }
    if (!opened)
        std::cerr << "Logger: *** Unable to open log file: " << name << " ***" << std::endl;
    const uint32 level = environmentLevel("ZEL_LOG_LEVEL", 0);
    if (level <= Notify::Error)
        setLogNotifyLevel(static_cast<Notify::NotifyLevel>(level));
}

Logger::~Logger() {
    if (s_instance == this)
        s_instance = nullptr;
}

void Logger::shutdown() {
    s_instance = nullptr;
    s_sessionOver = zelCore::isShutdown();
}

std::string Logger::getClassName() const {
    return __PRETTY_FUNCTION__;
}

bool Logger::openLogfile(const std::string& name, bool overwrite, bool closeAndOpen) {
    Notify* const notify = Notify::instance();
    if (notify->logStream().haveOpenFile() && !closeAndOpen)
        return false;
    String path = zelIO::FileSystem::getAbsolutePath(name);
    if (!overwrite)
        path = numberedLogFile(path);
    const bool again = writtenFiles().contains(path);
    if (!notify->openLog(path, again))
        return false;
    writtenFiles().insert(path);
    writeHeader(notify->logStream());
    return true;
}

std::string Logger::getLogFilename() const {
    return Notify::instance()->logStream().getFilename();
}

void Logger::setLogNotifyLevel(Notify::NotifyLevel level) {
    Notify::instance()->setLogNotifyLevel(level);
}

} // namespace zel
