#pragma once

#include <zel/Component.h>
#include <zel/Integers.h>
#include <zel/Name.h>
#include <zel/String.h>
#include <zel/ref_ptr.h>
#include <zelData/PlainJournal.h>

#include <memory>

namespace zelNet {

/// A component that shows one frame of a journal: below it are values and buffers like those of the run that
/// was recorded. From frame to frame the objects stay, and the revisions of buffers rise where their content
/// has changed.
///
/// A storage is a component with its columns and its two tables of ids. Handles, which lead nowhere in a
/// frame that was read, are shown as the ids of their instances; arrays are left out.
/// @threads that of the tree
class JournalTree : public zel::Component {
public:
    explicit JournalTree(const zel::Name& name);
    ~JournalTree() override;

    /// Opens the journal, or takes in what was written to it since, and shows the first frame, or the one
    /// that was shown. After a throw all is as before.
    /// @throws std::runtime_error
    void open(const zel::String& path);
    /// The objects go, and their memory. The journal goes with the last one who holds it; until then it is
    /// opened anew with what it has read.
    void close();
    /// Shows the frame at the place.
    /// @throws std::runtime_error for one that can not be read; the frame ahead stays
    void show(zel::size_t place);

    /// Null where none is open.
    [[nodiscard]] const std::shared_ptr<zelData::PlainJournal>& getJournal() const noexcept {
        return m_journal;
    }
    [[nodiscard]] bool isOpen() const noexcept { return m_journal != nullptr; }
    [[nodiscard]] zel::size_t getNumFrames() const { return m_journal ? m_journal->getFrames().size() : 0; }
    /// Of the frame that is shown; only where there are frames.
    [[nodiscard]] zel::size_t getPlace() const noexcept { return m_place; }
    [[nodiscard]] const zelData::SerializedFrame::BinaryHeader::Frame& getRecord(zel::size_t place) const {
        return m_journal->getFrames()[place].record;
    }
    /// Another one with each frame that is shown.
    [[nodiscard]] zel::uint64 getRevision() const noexcept { return m_revision; }

private:
    std::shared_ptr<zelData::PlainJournal> m_journal;
    std::weak_ptr<zelData::PlainJournal> m_closed; // the one ahead
    zel::size_t m_place = 0;
    zel::uint64 m_revision = 0;
};

/// The place of the frame with the index, or of the last one ahead of it, and else the first one.
/// @param journal  has frames
[[nodiscard]] zel::size_t placeOfFrame(const zelData::PlainJournal& journal, zel::uint64 index);

} // namespace zelNet
