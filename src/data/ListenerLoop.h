#pragma once

#include <zel/FirstException.h>
#include <zel/HashSet.h>
#include <zel/Vector.h>

namespace zelData {

/// Calls `call` with each listener that is there at the beginning, unless it has been removed when its turn
/// comes. Each is called also where another one throws; the first exception comes out at the end.
template <typename Listener, typename Call>
void forEachListener(const zel::HashSet<Listener*>& listeners, Call&& call) {
    if (listeners.empty())
        return;
    zel::VectorPOD<Listener*> present;
    for (Listener* listener : listeners)
        present.push_back(listener);
    zel::FirstException failure;
    for (Listener* listener : present)
        if (listeners.contains(listener))
            failure.run([&] { call(listener); });
    failure.rethrow();
}

} // namespace zelData
