#pragma once

#include "ElementForm.h"

#include <zel/HashTable.h>
#include <zel/Integers.h>
#include <zel/Name.h>
#include <zel/Object.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelData/Format.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace zelData {

class Buffer;
class CaptureColumn;
class EntityStorage;

/// What of a column a thread compares, or copies, in one go.
struct CapturePiece {
    CaptureColumn* column = nullptr;
    zel::uint64 begin = 0; // of its elements
    zel::uint64 end = 0;
    zel::uint64 offset = 0; // of the changed ones among those of the column
    zel::uint64 numChanged = 0;
    zel::VectorPOD<zel::uint32> changed; // counted from begin; longer than that, from earlier frames

    /// Makes room for that many more in the list.
    void provide(zel::uint64 n);
};

/// Pieces, whose memory stays from frame to frame.
class CapturePieces {
public:
    CapturePiece& add(CaptureColumn* column, zel::uint64 begin, zel::uint64 end);
    void clear() noexcept { m_size = m_numBytes = 0; }
    [[nodiscard]] zel::uint64 size() const noexcept { return m_size; }
    [[nodiscard]] CapturePiece& operator[](zel::uint64 i) const { return *m_pieces[i]; }
    /// How much is compared or copied.
    void addBytes(zel::uint64 n) noexcept { m_numBytes += n; }
    [[nodiscard]] zel::uint64 getNumBytes() const noexcept { return m_numBytes; }
    /// Of the memory of the pieces themselves.
    [[nodiscard]] zel::uint64 getMemory() const;

private:
    zel::Vector<std::unique_ptr<CapturePiece>> m_pieces;
    zel::uint64 m_size = 0;
    zel::uint64 m_numBytes = 0;
};

/// The object ids of the storages that live, by address: what stands in a handle may be gone.
class StorageIds {
public:
    /// Forgets all; they are gathered anew at the next question.
    void clear() noexcept { m_isKnown = false; }
    /// Frame::NoId for null, and for a storage that is gone.
    [[nodiscard]] zel::uint32 find(const EntityStorage* storage);

private:
    zel::HashTable<const EntityStorage*, zel::uint32> m_ids;
    bool m_isKnown = false;
};

/// One column of elements of the tree, or one value, held against what was last told of it. For each frame:
///
///     look           what there is now
///     startCompare,  which elements have changed; not for key frames. The pieces in any order, on any
///     compare        threads
///     decide         what the frame tells: nothing, some elements, or all
///     make           the node, with memory for the elements
///     startCopy,     to the node and to the shadow; the pieces as above
///     copy
class CaptureColumn {
public:
    enum class Mode : zel::uint8 { Nothing, Part, Whole };
    using Complaint = std::function<void(const char*)>;

    /// @param follows  whether the size is that of a storage, which tells it
    CaptureColumn(const Format* format, bool follows);
    CaptureColumn(const CaptureColumn&) = delete;
    CaptureColumn& operator=(const CaptureColumn&) = delete;
    ~CaptureColumn();

    /// @param elements   those that the arrays of a column show; null without any
    /// @param complaint  hears of what can not be recorded
    void
    look(void* data, zel::uint64 size, Buffer* elements, StorageIds& storages, const Complaint& complaint);
    void startCompare(CapturePieces& pieces);
    void compare(CapturePiece& piece);
    /// @param isKeyFrame       a frame that tells all
    /// @param followedChanged  whether the size of the storage around has changed: a column that does not
    ///     follow it is then told in whole
    /// @param compared         the pieces, which get their offsets; null for a key frame
    void decide(bool isKeyFrame, bool followedChanged, const CapturePieces& compared);
    [[nodiscard]] Mode getMode() const noexcept { return m_mode; }
    /// Whether the elements have gone, which no increment tells.
    [[nodiscard]] bool isEmptied() const noexcept {
        return m_size == 0 && m_shadowSize != 0 && m_wasTold && !m_follows;
    }
    /// The payload of what is told, and of the whole, in bytes.
    [[nodiscard]] zel::uint64 getToldBytes() const;
    [[nodiscard]] zel::uint64 getWholeBytes() const;
    /// @return the node; null where nothing is told
    [[nodiscard]] zel::ref_ptr<zel::Object> make(const zel::Name& name, zel::uint32 id, bool isValue);
    void startCopy(CapturePieces& pieces);
    /// @param piece  of startCopy, or one of the compared ones where only a part is told
    void copy(const CapturePiece& piece);

    /// Whether elements differ from the shadow, or are new.
    [[nodiscard]] bool hasChanged() const noexcept {
        return m_numChanged.load(std::memory_order_relaxed) != 0; // the comparison is over
    }
    /// The memory that is kept from frame to frame.
    [[nodiscard]] zel::uint64 getMemory() const;

private:
    [[nodiscard]] const char* live(zel::uint64 i) const noexcept { return m_live + i * m_elementSize; }
    [[nodiscard]] char* shadow(zel::uint64 i) noexcept { return m_shadow.data() + i * m_elementSize; }
    [[nodiscard]] zel::uint64 numKept() const noexcept {
        return m_size < m_shadowSize ? m_size : m_shadowSize;
    }
    [[nodiscard]] std::string_view textAt(zel::uint64 i) const;
    void takeHandles(const void* data, StorageIds& storages);
    void takeArrays(const void* data, Buffer* elements, StorageIds& storages, const Complaint& complaint);
    void compareTexts(CapturePiece& piece);
    void comparePlain(CapturePiece& piece);
    void compareBlock(CapturePiece& piece, zel::uint64 begin, zel::uint64 end);
    void copyElements(zel::uint64 target, zel::uint64 begin, zel::uint64 n);
    void addPieces(CapturePieces& pieces, zel::uint64 begin, zel::uint64 end);
    [[nodiscard]] zel::ref_ptr<Buffer> takeBuffer(const zel::Name& name, zel::uint64 size);
    [[nodiscard]] zel::ref_ptr<zel::Object> makePart(const zel::Name& name);

    // For ever
    zel::ref_ptr<const Format> m_format;
    ElementForm m_form;
    zel::uint64 m_elementSize;
    bool m_isName = false; // texts of this class, and not of String
    bool m_follows;
    std::unique_ptr<CaptureColumn> m_elements; // of arrays

    // Of the present frame
    const char* m_live = nullptr;
    zel::uint64 m_size = 0;
    zel::VectorPOD<char> m_numbers; // handles and arrays with ids in place of pointers
    // Threads add to it while pieces are compared, and look whether the rest matters.
    std::atomic<zel::uint64> m_numChanged{0};
    zel::uint64 m_firstPiece = 0; // among those compared
    zel::uint64 m_numPieces = 0;
    Mode m_mode = Mode::Nothing;
    char* m_target = nullptr;        // the elements of the node
    zel::uint64* m_places = nullptr; // of a part

    // As last told
    zel::VectorPOD<char> m_shadow;
    zel::Vector<std::string> m_texts;
    zel::uint64 m_shadowSize = 0;
    bool m_wasTold = false; // in whole, since the last key frame

    zel::Vector<zel::ref_ptr<Buffer>> m_buffers; // of earlier frames, to be used again
};

} // namespace zelData
