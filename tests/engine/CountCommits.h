#pragma once

#include <zelData/Buffer.h>

namespace zelTest {

/// Counts what a buffer announces.
struct CountCommits : zelData::Buffer::EventListener {
    void updateCallback(zelData::Buffer*) override { ++count; }
    int count = 0;
};

} // namespace zelTest
