#pragma once

#include <zelData/Buffer.h>
#include <zelData/Frame.h>
#include <zelData/FrameNodes.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <entities/EntityFixture.h>

#include <initializer_list>
#include <vector>

namespace zelTest {

/// The elements of a buffer, to be compared.
template <typename T>
std::vector<T> elementsOf(const zelData::Buffer* buffer) {
    const auto* elements = buffer->data<T>();
    return {elements, elements + buffer->size()};
}

/// Makes the nodes of frames.
class FrameFixture : public EntityFixture {
protected:
    template <typename T>
    static zel::ref_ptr<zelData::Buffer>
    makeBuffer(const zel::Name& name, const char* format, std::initializer_list<T> elements) {
        zel::ref_ptr<zelData::Buffer> buffer(new zelData::Buffer(name, zelData::getFormat(format)));
        buffer->resize(elements.size());
        std::copy(elements.begin(), elements.end(), buffer->data<T>());
        return buffer;
    }
    static zel::ref_ptr<zelData::Buffer> reals(const zel::Name& name,
                                               std::initializer_list<double> elements) {
        return makeBuffer(name, "Real:64bit", elements);
    }
    static zel::ref_ptr<zelData::Buffer> numbers(const zel::Name& name,
                                                 std::initializer_list<zel::uint64> elements) {
        return makeBuffer(name, "UInt:64bit", elements);
    }
    static zel::ref_ptr<zelData::Value> real(const zel::Name& name, double content) {
        zel::ref_ptr<zelData::Value> value(new zelData::Value(name, zelData::getFormat("Real:64bit")));
        value->set(&content);
        return value;
    }
    static zel::ref_ptr<zelData::Frame::PartialBuffer> partial(const zel::Name& name,
                                                               std::initializer_list<zel::uint64> index,
                                                               std::initializer_list<double> data,
                                                               zel::uint64 fullSize) {
        return zel::ref_ptr<zelData::Frame::PartialBuffer>(new zelData::Frame::PartialBuffer(
            name, numbers("places", index).get(), reals("elements", data).get(), fullSize));
    }
    static zel::ref_ptr<zelData::Frame> makeFrame() {
        return zel::ref_ptr<zelData::Frame>(new zelData::Frame(0, 0, 0));
    }
    static double contentOf(zel::Object* value) {
        return *static_cast<const double*>(dynamic_cast<zelData::Value&>(*value).getData());
    }
    /// Checks what each operation keeps.
    static void expectWhole(const zelData::Frame* frame) {
        EXPECT_EQ(frame->getNumBytes(), zelData::Frame::calculateNumBytes(frame));
    }
};

} // namespace zelTest
