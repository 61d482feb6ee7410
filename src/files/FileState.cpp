#include <zelIO/FileState.h>
#include <zelIO/FileSystem.h>

#include <sys/stat.h>

#include <algorithm>

namespace zelIO {

bool FileState::Data::equal(const Data& other) const noexcept {
    return exists == other.exists && seconds == other.seconds && nanoseconds == other.nanoseconds &&
           size == other.size;
}

FileState::FileState(const String& path) : m_path(path), m_data(read()) {}

FileState::Data FileState::read() const {
    struct ::stat data {};
    if (!FileSystem::stat(m_path, data))
        return {};
    return {true, data.st_mtim.tv_sec, data.st_mtim.tv_nsec, data.st_size};
}

void FileState::reset() {
    m_data = read();
}

bool FileState::hasChanged() const {
    return !m_data.equal(read());
}

void FileStateVector::push_back(const FileState& state) {
    m_states.push_back(state);
}

bool FileStateVector::hasChanged() const {
    return std::any_of(
        m_states.begin(), m_states.end(), [](const FileState& state) { return state.hasChanged(); });
}

} // namespace zelIO
