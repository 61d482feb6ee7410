#pragma once

#include <zelData/FrameNodes.h>

namespace zelData {

/// Applies a newer frame onto an older one, as time did: what the newer one holds wins, elements of partial
/// buffers included, and the header becomes the newer one's.
void overlay(Frame* target, const Frame* newer);

/// Writes the elements of a partial buffer to their places in the whole, which gets its full size, or more
/// where a place lies beyond it, and commits.
void scatter(const Frame::PartialBuffer* source, Buffer* target);

/// How many elements of a column, which has so many by now, belong to one instance: as the model says, or as
/// there are.
[[nodiscard]] zel::uint64
elementsOfInstance(const Frame::EntityStorage* storage, const zel::Name& column, zel::uint64 numElements);

} // namespace zelData
