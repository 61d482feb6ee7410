#include <zel/Notify.h>
#include <zel/Thread.h>
#include <zelCore/zelCore.h>

#include <bit>
#include <iostream>
#include <stdexcept>
#include <utility>

namespace zel {

namespace {

/// The state that all threads without a zel::Thread share. It is never freed: static destructors may still
/// log.
struct ThreadDataHolder {
    Notify::ThreadData* data = nullptr;

    Notify::ThreadData& get() {
        if (data == nullptr) {
            data = new Notify::ThreadData;
            data->reference();
        }
        return *data;
    }
};

constinit ThreadDataHolder s_threadDataHolder;

const char* levelName(Notify::NotifyLevel level) {
    switch (level) {
    case Notify::Debug:
        return "Debug";
    case Notify::Info:
        return "Info";
    case Notify::Warning:
        return "Warning";
    case Notify::Error:
        return "Error";
    }
    return "";
}

Vector<Notify::PrintSelection>& selectionStack(Notify::NotifyLevel level) {
    const auto value = static_cast<uint32>(level);
    const auto position = value == 0 ? 0U : static_cast<uint32>(std::bit_width(value)) - 1U;
    return Notify::getThreadData().printSelections[position % Notify::ThreadData::NumSelectionStacks];
}

} // namespace

constinit Notify* Notify::s_instance = nullptr;
constinit Notify::Settings* Notify::s_kept = nullptr;

Notify::ThreadData::ThreadData()
    : printSelections(NumSelectionStacks, Vector<PrintSelection>(1, PrintSelection())) {}

Notify::ThreadData::~ThreadData() = default;

Notify::Notify(std::ostream& outStream) : Singleton(10001), m_outStream(&outStream) {
    addStream(&m_logStream, Debug);
    if (s_kept != nullptr)
        takeUp(*s_kept);
}

void Notify::takeUp(const Settings& settings) {
    setThrowOnError(settings.throwOnError);
    setBreakOnError(settings.breakOnError);
    setLogNotifyLevel(settings.logLevel);
    if (!settings.logFile.empty() && !openLog(settings.logFile, true))
        std::cerr << "Notify: could not open the log file " << settings.logFile << " again" << std::endl;
}

Notify::~Notify() {
    if (s_instance == this)
        s_instance = nullptr;
    if (m_logStream.haveOpenFile()) {
        m_logStream << "Closing log" << std::endl;
        m_logStream.close();
    }
}

Notify* Notify::instance() {
    if (s_instance == nullptr) {
        static const std::ios_base::Init
            standardStreams; // the first message may come from a static constructor
        s_instance = new Notify(std::cerr);
    }
    return s_instance;
}

void Notify::shutdown() {
    s_instance = nullptr;
    if (!zelCore::isShutdown())
        return;
    const auto level = m_streams.find(&m_logStream);
    auto* const settings =
        new Settings{getThrowOnError(),
                     getBreakOnError(),
                     level != m_streams.end() ? level->value : Debug,
                     m_logStream.haveOpenFile() ? m_logStream.getFilename() : std::string()};
    delete std::exchange(s_kept, settings);
}

void Notify::forgetLastSession() {
    delete std::exchange(s_kept, nullptr);
}

std::string Notify::getClassName() const {
    return __PRETTY_FUNCTION__;
}

Notify::ThreadData& Notify::getThreadData() {
    if (const Thread* thread = Thread::getCurrentThread())
        return *thread->getNotifyData();
    return s_threadDataHolder.get();
}

std::string
Notify::setDebugStrings(NotifyLevel level, const std::string& file, int line, const std::string& function) {
    ThreadData& data = getThreadData();
    data.outputMode = level;
    data.levelName = levelName(level);
    data.line = line < 1 ? -1 : line;
    data.file = file;
    data.function = function;
    return {};
}

std::ostringstream& Notify::getThreadStringStream() {
    return getThreadData().stream;
}

std::string Notify::str() {
    return getThreadStringStream().str();
}

void Notify::str(const std::string& text) {
    getThreadStringStream().str(text);
}

void Notify::clear() {
    getThreadStringStream().clear();
}

std::ios_base::fmtflags Notify::setf(std::ios_base::fmtflags flags) {
    return getThreadStringStream().setf(flags);
}

Notify& Notify::operator<<(std::ostream& (*manipulator)(std::ostream&)) {
    manipulator(getThreadStringStream());
    return *this;
}

Notify& Notify::operator<<(const Modifier<int>& modifier) {
    pushPrintSelection(PrintSelection(modifier.value()));
    return *this;
}

Notify& Notify::operator<<(EndTag&) {
    const std::lock_guard lock(m_mutex);
    ThreadData& data = getThreadData();
    const NotifyLevel level = data.outputMode;
    const std::string text = data.stream.str();

    if (level == Error && (getThrowOnError() || getBreakOnError())) {
        distribute(text, Error);
        flushLog();
        throw std::runtime_error(text);
    }

    if (getToLogOnly()) {
        m_logStream << text << std::flush;
    } else {
        if (data.notifyLevel <= level)
            *m_outStream << text << std::flush;
        distribute(text, level);
    }
    flushLog();

    data.stream.str({});
    data.stream.clear();
    data.stream.copyfmt(std::ios(nullptr)); // std::hex and its like end with their message
    setToLogOnly(false);
    popPrintSelection();
    return *this;
}

/// To the callbacks and then the streams whose level the message reaches.
void Notify::distribute(const std::string& text, int level) {
    for (auto& entry : m_callbacks)
        if (entry.value <= level)
            entry.key->message(text, level);
    for (auto& entry : m_streams)
        if (entry.value <= level)
            *entry.key << text << std::flush;
}

/// A log file that takes no more text, on a full disk for instance, is told once; later messages try again.
void Notify::flushLog() {
    m_logStream.flush();
    if (m_logStream.good() || !m_logStream.haveOpenFile())
        return;
    m_logStream.clear();
    if (!std::exchange(m_logFailed, true))
        std::cerr << "Notify: could not write to the log file " << m_logStream.getFilename() << std::endl;
}

Notify& Notify::operator<<(ClearTag&) {
    str({});
    return *this;
}

Notify& Notify::operator<<(LogOnlyTag&) {
    setToLogOnly(true);
    return *this;
}

void Notify::addStream(std::ostream* stream, NotifyLevel level) {
    m_streams.insert(stream, level);
}

void Notify::removeStream(std::ostream* stream) {
    m_streams.erase(stream);
}

void Notify::setNotifyLevel(std::ostream* stream, NotifyLevel level) {
    const auto position = m_streams.find(stream);
    if (position != m_streams.end())
        position->value = level;
}

void Notify::addCallback(NotifyCallback* callback, NotifyLevel level) {
    const ref_ptr<NotifyCallback> added(callback);
    const std::lock_guard lock(m_mutex);
    m_callbacks.insert(added, level);
}

void Notify::removeCallback(NotifyCallback* callback) {
    const ref_ptr<NotifyCallback> removed(callback); // destroyed without the lock
    const std::lock_guard lock(m_mutex);
    m_callbacks.erase(removed);
}

void Notify::setNotifyLevel(NotifyCallback* callback, NotifyLevel level) {
    const std::lock_guard lock(m_mutex);
    const auto position = m_callbacks.find(callback);
    if (position != m_callbacks.end())
        position->value = level;
}

void Notify::setNotifyLevel(NotifyLevel level) {
    getThreadData().notifyLevel = level;
}

Notify::NotifyLevel Notify::getNotifyLevel() {
    return getThreadData().notifyLevel;
}

void Notify::setOutputMode(NotifyLevel level) {
    getThreadData().outputMode = level;
}

Notify::NotifyLevel Notify::getOutputMode() {
    return getThreadData().outputMode;
}

bool Notify::openLog(const std::string& name, bool append) {
    if (!m_logStream.open(name, append))
        return false;
    m_logStream.appendOutputMode(LogStream::File);
    m_logStream.setEnableDate(true);
    return true;
}

void Notify::setLogNotifyLevel(NotifyLevel level) {
    setNotifyLevel(&m_logStream, level);
}

void Notify::pushPrintSelection(const PrintSelection& selection) {
    pushPrintSelection(selection, getOutputMode());
}

void Notify::pushPrintSelection(const PrintSelection& selection, NotifyLevel level) {
    selectionStack(level).push_back(selection);
}

bool Notify::popPrintSelection() {
    return popPrintSelection(getOutputMode());
}

bool Notify::popPrintSelection(NotifyLevel level) {
    Vector<PrintSelection>& stack = selectionStack(level);
    if (stack.size() < 2)
        return false;
    stack.pop_back();
    return true;
}

Notify::PrintSelection Notify::getPrintSelection() {
    return getPrintSelection(getOutputMode());
}

Notify::PrintSelection Notify::getPrintSelection(NotifyLevel level) {
    return selectionStack(level).back();
}

void Notify::send(NotifyLevel level,
                  const std::string& file,
                  int line,
                  const std::string& function,
                  const std::string& text) {
    getThreadStringStream() << setDebugStrings(level, file, line, function) << text << end();
}

void Notify::debug(const std::string& file, int line, const std::string& function, const std::string& text) {
    send(Debug, file, line, function, text);
}

void Notify::info(const std::string& file, int line, const std::string& function, const std::string& text) {
    send(Info, file, line, function, text);
}

void Notify::warning(const std::string& file,
                     int line,
                     const std::string& function,
                     const std::string& text) {
    send(Warning, file, line, function, text);
}

void Notify::error(const std::string& file, int line, const std::string& function, const std::string& text) {
    send(Error, file, line, function, text);
}

std::ostream& operator<<(std::ostream& stream, Notify::EndTag& tag) {
    *tag.notify() << tag;
    return stream;
}

std::ostream& operator<<(std::ostream& stream, Notify::ClearTag& tag) {
    *tag.notify() << tag;
    return stream;
}

std::ostream& operator<<(std::ostream& stream, Notify::LogOnlyTag& tag) {
    *tag.notify() << tag;
    return stream;
}

std::ostream& operator<<(std::ostream& stream, const Notify::Modifier<int>& modifier) {
    *modifier.notify() << modifier;
    return stream;
}

} // namespace zel
