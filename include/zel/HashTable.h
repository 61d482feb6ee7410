#pragma once

#include <zel/LinearProbingHashTable.h>

namespace zel {

/// The short name of the table that the system uses for look-ups.
template <typename Key, typename Value, typename Hash = HashFn<Key>, typename Allocator = ByteAllocator>
using HashTable = LinearProbingHashTable<Key, Value, Hash, Allocator>;

} // namespace zel
