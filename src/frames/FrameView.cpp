#include "files/DiskFile.h"

#include <zel/String.h>
#include <zelData/BinaryData.h>
#include <zelData/FrameView.h>

#include <sys/mman.h>

#include <cstdint>
#include <stdexcept>
#include <utility>

namespace zelData {

using zel::uint64;

/// A file in memory, as long as somebody looks at it.
class FrameView::Mapping : public zel::Referenced {
public:
    Mapping(const zel::String& path, uint64 end) {
        zelIO::DiskFile file(path, zelIO::DiskFile::Mode::Read);
        if (!file.isOpen() || !file.size(m_size))
            throw std::runtime_error("FrameView: Could not open journal file '" + path +
                                     "': " + file.getReason());
        if (end > m_size)
            throw std::runtime_error("FrameView: The frames of '" + path +
                                     "' reach behind the end of the file");
        m_bytes = file.map(m_size);
        if (m_bytes == nullptr)
            throw std::runtime_error("FrameView: Could not map journal file '" + path +
                                     "': " + file.getReason());
    }
    ~Mapping() override {
        if (m_bytes != nullptr)
            munmap(m_bytes, m_size);
    }

    [[nodiscard]] uint64 size() const noexcept { return m_size; }
    [[nodiscard]] zel::uint8* bytes() const noexcept { return static_cast<zel::uint8*>(m_bytes); }

private:
    void* m_bytes = nullptr;
    uint64 m_size = 0;
};

FrameView::FrameView(FileJournal::Session* session) : m_session(session) {}

FrameView::~FrameView() = default;

bool FrameView::show(uint64 index) {
    const FileJournal::FrameInfo* info =
        index == zel::InvalidIndex ? nullptr : m_session->getFrameInfo(index);
    if (info == nullptr)
        return false;
    const uint64 last = std::exchange(m_position, zel::InvalidIndex); // until all has gone well
    m_frame = {};
    map(info->dataOffset + info->meta.dataSize);
    readNames(last, info->position);
    m_frame = parse(*info, true);
    m_position = info->position;
    return true;
}

void FrameView::map(uint64 end) {
    if (!m_mapping || m_mapping->size() < end)
        m_mapping = new Mapping(m_session->getPath(), end);
}

void FrameView::readNames(uint64 last, uint64 position) {
    const zel::Vector<FileJournal::FrameInfo>& table = m_session->getFrameTable();
    uint64 first = position;
    while (first > 0 && table[first].meta.isKeyFrame == 0)
        --first;
    if (last == zel::InvalidIndex || last < first || last >= position) {
        m_names.clear();
        last = first - 1;
    }
    for (uint64 i = last + 1; i < position; ++i)
        (void)parse(table[i], false);
}

PlainFrame FrameView::parse(const FileJournal::FrameInfo& info, bool withData) {
    const auto view = [&](uint64 offset, uint64 numBytes) {
        return zel::ref_ptr<BinaryData>(
            new BinaryData(m_mapping->bytes() + offset, numBytes, m_mapping.get()));
    };
    try {
        const zel::ref_ptr<BinaryData> header = view(info.headerOffset, info.meta.headerSize);
        if (!withData)
            return {header.get(), nullptr, m_names};
        return {header.get(), view(info.dataOffset, info.meta.dataSize).get(), m_names};
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(zel::String::format("FrameView: Frame %llu of '%s' is damaged: %s",
                                                     static_cast<unsigned long long>(info.index),
                                                     m_session->getPath().c_str(),
                                                     error.what()));
    }
}

const PlainFrame::Node&
FrameView::require(const zel::Path& path, zel::size_t elementSize, zel::size_t alignment) const {
    const PlainFrame::Node* node = find(path);
    if (node == nullptr || node->hasChildren())
        throw std::runtime_error("FrameView: There is no value or plain buffer at '" + path.str() + "'");
    if (node->elementSize() != elementSize)
        throw std::runtime_error(
            zel::String::format("FrameView: The elements of '%s' have %llu bytes, and not %llu",
                                path.str().c_str(),
                                static_cast<unsigned long long>(node->elementSize()),
                                static_cast<unsigned long long>(elementSize)));
    if (reinterpret_cast<std::uintptr_t>(node->bytes()) % alignment != 0)
        throw std::runtime_error("FrameView: The elements of '" + path.str() +
                                 "' lie at no multiple of their size");
    return *node;
}

} // namespace zelData
