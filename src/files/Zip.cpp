#include <zel/Log.h>
#include <zelIO/FileSystem.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace zelIO {

namespace {

using zel::Vector;

/// The standard input and output of a tool lead nowhere: it asks nothing, and what it tells is not the
/// user's.
class QuietFiles {
public:
    QuietFiles() {
        m_error = posix_spawn_file_actions_init(&m_actions);
        if (m_error != 0)
            return;
        m_error = posix_spawn_file_actions_addopen(&m_actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        if (m_error == 0)
            m_error = posix_spawn_file_actions_addopen(&m_actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    }
    QuietFiles(const QuietFiles&) = delete;
    QuietFiles& operator=(const QuietFiles&) = delete;
    ~QuietFiles() { posix_spawn_file_actions_destroy(&m_actions); }

    [[nodiscard]] int error() const noexcept { return m_error; }
    [[nodiscard]] const posix_spawn_file_actions_t* get() const noexcept { return &m_actions; }

private:
    posix_spawn_file_actions_t m_actions{};
    int m_error = 0;
};

/// Starts the tool that the first argument names, found through PATH, and waits for it.
/// @return whether its exit status is 0
bool runTool(Vector<String>& arguments, const String& archive) {
    Vector<char*> argv;
    for (String& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);

    const QuietFiles files;
    pid_t process = 0;
    int error = files.error();
    if (error == 0)
        error = posix_spawnp(&process, argv[0], files.get(), nullptr, argv.data(), environ);
    int status = 0;
    while (error == 0 && waitpid(process, &status, 0) < 0)
        if (errno != EINTR)
            error = errno;
    if (error != 0) {
        ZEL_LOG_WARNING("Could not run '" << arguments[0] << "': " << std::strerror(error));
        return false;
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
        return true;
    const String end = WIFEXITED(status) ? String::format("exit status %d", WEXITSTATUS(status))
                                         : String::format("signal %d", WTERMSIG(status));
    ZEL_LOG_WARNING("'" << arguments[0] << "' failed on '" << archive << "': " << end);
    return false;
}

/// A name that begins with "-" would be taken for an option.
String asFileArgument(const String& path) {
    String native = FileSystem::convertToNativeFilePath(path);
    if (native.starts_with('-'))
        native.insert(0, "./");
    return native;
}

} // namespace

bool packZipFile(const String& archive, const Vector<String>& files, unsigned level) {
    Vector<String> arguments{"minizip", String::format("-%u", level), "-o", asFileArgument(archive)};
    for (const String& file : files)
        arguments.push_back(asFileArgument(file));
    return runTool(arguments, archive);
}

bool unpackZipFile(const String& archive, const String& directory) {
    Vector<String> arguments{
        "miniunzip", "-x", "-o", asFileArgument(archive), "-d", asFileArgument(directory)};
    return runTool(arguments, archive);
}

} // namespace zelIO
