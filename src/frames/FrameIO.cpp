#include "data/Ascii.h"

#include <zelData/FrameIO.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <string>

namespace zelData {

FrameIO::FrameIO(bool threaded) : m_threaded(threaded) {}

FrameIO::~FrameIO() = default;

Frame::DataBinding* FrameIO::createDataBinding(const zel::Path& internalPath, const zel::Path& externalPath) {
    return new Frame::DataBinding(internalPath, externalPath);
}

bool FrameIO::bindingComparor(const Frame::DataBinding* a, const Frame::DataBinding* b) {
    const int order = a->getInternalPath().str().compare(b->getInternalPath().str());
    return order != 0 ? order < 0 : a->getExternalPath().str() < b->getExternalPath().str();
}

void FrameIO::addDataBinding(Frame::DataBinding* binding) {
    const zel::ref_ptr<Frame::DataBinding> keep(binding);
    auto* const place = std::lower_bound(
        m_dataBindings.begin(), m_dataBindings.end(), keep, [](const auto& a, const auto& b) {
            return bindingComparor(a.get(), b.get());
        });
    if (place == m_dataBindings.end() || bindingComparor(binding, place->get()))
        m_dataBindings.insert(place, keep);
    else if (binding->isRecursive())
        (*place)->setRecursive(true);
}

zel::ref_ptr<Frame::DataBinding>
FrameIO::makeBinding(const zel::Path& internalPath, const zel::Path& externalPath, bool recursive) {
    zel::ref_ptr<Frame::DataBinding> binding(createDataBinding(internalPath, externalPath));
    binding->setRecursive(recursive);
    return binding;
}

void FrameIO::addDataBinding(const zel::Path& internalPath, const zel::Path& externalPath, bool recursive) {
    addDataBinding(makeBinding(internalPath, externalPath, recursive).get());
}

void FrameIO::addDataBinding(const zel::Path& path, bool recursive) {
    addDataBinding(path, path, recursive);
}

bool FrameIO::removeDataBinding(const zel::Path& internalPath, const zel::Path& externalPath) {
    auto* const place = std::find_if(m_dataBindings.begin(), m_dataBindings.end(), [&](const auto& binding) {
        return binding->getInternalPath() == internalPath && binding->getExternalPath() == externalPath;
    });
    if (place == m_dataBindings.end())
        return false;
    m_dataBindings.erase(place);
    return true;
}

zel::uint64 FrameReader::getNextFrameIndex() {
    return 0;
}

void FrameReader::advanceToNextFrame() {}

bool FrameReader::jumpToFrame(zel::uint64 /*index*/) {
    return false;
}

bool FrameReader::jumpToTime(double /*time*/) {
    return false;
}

bool FrameReader::shouldExtract(const zel::Path& /*path*/) {
    return true;
}

double FrameReader::getTimeStep() {
    return -1;
}

zel::uint64 FrameReader::getFrameStride() {
    return 1;
}

void FrameWriter::forceFlush() {}

void FrameWriter::endOfStream() {}

void DebugFrameWriter::writeFrame(const Frame* frame) {
    std::cout << "Frame " + std::to_string(static_cast<unsigned>(frame->getIndex())) +
                     " (time: " + AsciiText().fixed(frame->getTimeStamp()).str() +
                     ", dt: " + AsciiText().fixed(frame->getTimeStep()).str() + ")\n";
    frame->printSubtree();
}

} // namespace zelData
