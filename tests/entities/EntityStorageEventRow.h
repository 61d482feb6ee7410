#pragma once

#include <zel/Integers.h>

#include <vector>

namespace zelTest {

/// What a storage tells of, as a row of numbers that begins with its kind.
enum EventKind : zel::uint64 { Create, CreateRange, CreateList, Destroy, DestroyRange, DestroyList, Permute };
using EventRow = std::vector<zel::uint64>;

} // namespace zelTest
