#pragma once

#include <zel/LinearProbingHashTable.h>
#include <zel/Parameter.h>
#include <zel/String.h>
#include <zel/ref_ptr.h>

namespace zel {

/// Bound parameters by name: what a caller brings when a task is looked for by path.
using ParameterTable = LinearProbingHashTable<String, ref_ptr<Parameter>>;

} // namespace zel
