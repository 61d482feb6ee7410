#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/String.h>
#include <zel/Vector.h>

namespace zelIO {

using zel::String;

/// Remembers how a file looked, so that a change of it can be noticed. A missing file is a state like others.
/// @threads external lock
class ZEL_CORE_API FileState {
public:
    explicit FileState(const String& path);

    [[nodiscard]] const String& getPath() const noexcept { return m_path; }
    /// Takes the present state as the remembered one.
    void reset();
    /// Whether modification time or size differ from the remembered ones.
    [[nodiscard]] bool hasChanged() const;

    /// Whether path and remembered state are the same.
    friend bool operator==(const FileState& a, const FileState& b) {
        return a.m_path == b.m_path && a.m_data.equal(b.m_data);
    }

private:
    struct Data {
        bool exists = false;
        zel::int64 seconds = 0;
        zel::int64 nanoseconds = 0;
        zel::int64 size = 0;
        [[nodiscard]] bool equal(const Data& other) const noexcept;
    };
    [[nodiscard]] Data read() const;

    String m_path;
    Data m_data;
};

/// Several files that are watched together.
/// @threads external lock
class ZEL_CORE_API FileStateVector {
public:
    void push_back(const FileState& state);
    /// Whether any of them has changed.
    [[nodiscard]] bool hasChanged() const;

private:
    zel::Vector<FileState> m_states;
};

} // namespace zelIO
