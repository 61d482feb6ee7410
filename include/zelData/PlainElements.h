#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/String.h>
#include <zelData/PlainFrame.h>

#include <memory>

namespace zelData {

/// The elements of a node of a plain frame, as texts and numbers: those of a value, of a buffer, and of a
/// buffer in parts, which holds texts, handles or arrays. Of formats that this process does not know, the
/// bytes.
/// @threads external lock
class ZEL_CORE_API PlainElements {
public:
    /// @param node  a complete one, which outlives this object
    explicit PlainElements(const PlainFrame::Node& node);
    ~PlainElements();

    [[nodiscard]] zel::uint64 size() const;
    /// Whether the elements can be told as more than bytes.
    [[nodiscard]] bool isKnown() const;
    /// "1.5"; "1, 2, 3" for several numbers; a text as it is; "5@12" for the instance 5 of the storage with
    /// the id 12; "[1, 2]" for an array; bytes as "0x0102", in the order of the file; "..." for the rest of
    /// an array that tells elements more than once.
    [[nodiscard]] zel::String text(zel::uint64 i) const;
    /// One of the numbers of an element; the whole of one that is made of none.
    [[nodiscard]] zel::String text(zel::uint64 i, zel::uint32 k) const;
    /// How many numbers an element is made of; 0 where it is of anything else.
    [[nodiscard]] zel::uint32 numNumbers() const;
    [[nodiscard]] double number(zel::uint64 i, zel::uint32 k) const;
    /// Whether the element is another one than that of the same format. Both have it.
    /// @param tolerance  by which numbers may differ; at 0 each bit counts
    [[nodiscard]] bool differs(zel::uint64 i, const PlainElements& other, double tolerance) const;

private:
    struct Numbers;

    [[nodiscard]] const zel::uint8* element(zel::uint64 i) const;
    /// @param maxElements  that the arrays in it may have; becomes less
    [[nodiscard]] zel::String text(zel::uint64 i, zel::uint64& maxElements) const;
    [[nodiscard]] bool rangeOf(zel::uint64 i, zel::uint64& begin, zel::uint64& end) const;
    [[nodiscard]] zel::String bytesOf(zel::uint64 i) const;

    const PlainFrame::Node& m_node;
    std::unique_ptr<Numbers> m_numbers;        // null for elements that are none
    const PlainFrame::Node* m_range = nullptr; // parts
    const PlainFrame::Node* m_pool = nullptr;
    const PlainFrame::Node* m_ids = nullptr;
    const PlainFrame::Node* m_storages = nullptr;
};

} // namespace zelData
