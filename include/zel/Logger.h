#pragma once

#include <zel/Export.h>
#include <zel/Notify.h>
#include <zel/Singleton.h>

#include <string>

namespace zel {

/// Sets the log up from the environment and opens the log file.
///
/// | variable | default | effect |
/// |---|---|---|
/// | ZEL_LOG_ENABLE | 0 | not 0: open a log file |
/// | ZEL_LOG_FILE | zel.log | its name; quote marks around it are stripped |
/// | ZEL_LOG_OVERWRITE | 0 | not 0: use the name as it is; 0: number the file, zel-0001.log and upward |
/// | ZEL_LOG_LEVEL | 0 | least level of the log file: 0 Debug, 1 Info, 2 Warning, 3 Error |
/// | ZEL_OUTPUT_LEVEL | 2 | the same for the output stream, for the thread that creates the logger |
/// | ZEL_THROW_ON_ERROR | 1 | not 0: a message of level Error throws |
/// | ZEL_BREAK_ON_ERROR | 0 | the same |
/// @threads owner thread
class ZEL_CORE_API Logger : public Singleton {
public:
    /// Created on first use, without a lock: zelCore::init() comes first.
    static Logger* instance();

    void shutdown() override;
    [[nodiscard]] std::string getClassName() const override;
    ~Logger() override;

    /// Opens a log file and writes the header: time, version, build and hardware.
    /// @param overwrite     replace an old file of that name, unless this process wrote it, which then goes
    /// on behind
    ///     what it holds; otherwise "-0001" and so on is added to the
    /// name's
    ///     stem, the first number without a file, and 9999 is overwritten
    /// @param closeAndOpen  whether an open log file is closed; otherwise nothing is done if there is one
    /// @return whether the file was opened
    bool openLogfile(const std::string& name, bool overwrite, bool closeAndOpen);
    [[nodiscard]] std::string getLogFilename() const;
    void setLogNotifyLevel(Notify::NotifyLevel level);

    /// Makes the logger of a new session, with what the environment says. One that a message made while the
    /// last session went down, when it kept what the program had set, reads it again.
    static void beginSession();

private:
    Logger();
    void readEnvironment();
    void openLogFromEnvironment();

    bool m_keepsSettings; // made while a session went down

    static Logger* s_instance;
    static bool s_sessionOver;
};

} // namespace zel
