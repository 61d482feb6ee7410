#pragma once

#include <zel/ref_ptr.h>
#include <zelData/Buffer.h>

#include <vector>

namespace zelTest {

template <typename T>
std::vector<T> contentOf(const zel::ref_ptr<zelData::Buffer>& buffer) {
    return {buffer->data<T>(), buffer->data<T>() + buffer->size()};
}

} // namespace zelTest
