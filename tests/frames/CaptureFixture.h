#pragma once

#include "FrameFixture.h"

#include <zelData/EntityStorage.h>
#include <zelData/FrameCapture.h>
#include <zelData/ValueT.h>

#include <string>

namespace zelTest {

/// A tree to be captured.
class CaptureFixture : public FrameFixture {
protected:
    void TearDown() override {
        capture = nullptr;
        root = nullptr;
        FrameFixture::TearDown();
    }

    template <typename T>
    zel::ref_ptr<T> add(zel::Component* parent, T* object) {
        const zel::ref_ptr<T> keep(object);
        parent->addObject(object);
        return keep;
    }
    zel::ref_ptr<zelData::ValueT<double>> addReal(const char* name, double content) {
        return add(root.get(), new zelData::ValueT<double>(name, content));
    }
    zel::ref_ptr<zelData::Buffer> addReals(const char* name, zel::uint64 size) {
        const zel::ref_ptr<zelData::Buffer> buffer =
            add(root.get(), new zelData::Buffer(name, zelData::getFormat("Real:64bit")));
        buffer->resize(size);
        for (zel::uint64 i = 0; i < size; ++i)
            buffer->data<double>()[i] = static_cast<double>(i);
        return buffer;
    }
    zelData::EntityModel* planetModel() {
        if (model == nullptr)
            model = entity("CapturedPlanet",
                           "<Attribute.Scalar name='mass' type='Real' value='5'/>"
                           "<Attribute.Scalar name='title' type='String'/>"
                           "<Attribute.Scalar name='sun' type='EntityPtr'/>"
                           "<Attribute.Scalar name='triple' type='UInt:32bit' numElements='3'/>");
        return model;
    }
    zel::ref_ptr<zelData::EntityStorage> addPlanets(const char* name, zel::uint64 n) {
        const zel::ref_ptr<zelData::EntityStorage> storage =
            add(root.get(), new zelData::EntityStorage(planetModel(), name));
        storage->createInstances(n);
        return storage;
    }

    /// The next frame.
    zel::ref_ptr<zelData::Frame> next() {
        zel::ref_ptr<zelData::Frame> frame = capture->capture(index, 0.5 * static_cast<double>(index), 0.5);
        ++index;
        expectWhole(frame.get());
        return frame;
    }
    static zelData::Frame::EntityStorage* storageIn(zelData::Frame* frame, const char* name) {
        return dynamic_cast<zelData::Frame::EntityStorage*>(frame->findObject(name));
    }
    static zelData::Frame::PartialBuffer* partIn(zel::Component* component, const char* name) {
        return dynamic_cast<zelData::Frame::PartialBuffer*>(component->findObject(name));
    }
    static zelData::Buffer* bufferIn(zel::Component* component, const char* name) {
        return dynamic_cast<zelData::Buffer*>(component->findObject(name));
    }

    zelData::EntityModel* model = nullptr;
    zel::ref_ptr<zel::Component> root{new zel::Component("root")};
    zel::ref_ptr<zelData::FrameCapture> capture{new zelData::FrameCapture(root.get())};
    zel::uint64 index = 0;
};

} // namespace zelTest
