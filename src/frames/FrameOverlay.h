#pragma once

namespace zelData {

class Frame;

/// Applies a newer frame onto an older one, as time did: what the newer one holds wins, elements of partial
/// buffers included, and the header becomes the newer one's.
void overlay(Frame* target, const Frame* newer);

} // namespace zelData
