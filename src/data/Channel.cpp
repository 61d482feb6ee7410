#include <zel/Device.h>
#include <zel/Exception.h>
#include <zel/Verify.h>
#include <zelData/Buffer.h>
#include <zelData/Channel.h>
#include <zelData/Format.h>
#include <zelData/Type.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace zelData {

using zel::uint64;

namespace {

bool onCpu(const Buffer* buffer) {
    return buffer->getDevice() == nullptr || buffer->getDevice()->getType() == zel::Device::Type::Cpu;
}

zel::Device::ByteOrder byteOrder(const Buffer* buffer) {
    return buffer->getDevice() == nullptr ? zel::Device::NativeByteOrder
                                          : buffer->getDevice()->getByteOrder();
}

/// Whether elements of the buffer have to be swapped before the processor can read them.
bool isSwapped(const Buffer* buffer) {
    return byteOrder(buffer) != zel::Device::NativeByteOrder;
}

} // namespace

Channel::Channel(Buffer* target, Buffer* source) : m_target(target), m_source(source) {
    zelVerifyN(target->getType() == source->getType(),
               "Channels can only connect two buffers of the same type");
    zelVerifyN(target->getFormat() == source->getFormat() ||
                   (getTransformer(target->getFormat(), source->getFormat()) != nullptr &&
                    getTransformer(source->getFormat(), target->getFormat()) != nullptr),
               "Can not convert between the formats '%s' and '%s'",
               target->getFormat()->fullName().c_str(),
               source->getFormat()->fullName().c_str());
}

Channel::~Channel() {
    waitForDevice();
    std::free(m_staging);
}

void Channel::flip() {
    if (m_staged)
        postTransfer();
    std::swap(m_target, m_source);
}

/// Whether the elements can go from one memory to the other as they are.
bool Channel::isDirect() const {
    return m_target->getFormat() == m_source->getFormat() &&
           byteOrder(m_target.get()) == byteOrder(m_source.get()) &&
           (onCpu(m_target.get()) || onCpu(m_source.get()));
}

bool Channel::transfer(uint64 targetOffset, uint64 sourceOffset, uint64 n, bool blocking) {
    if (m_staged)
        postTransfer();
    m_active = true;
    m_numElements = n;
    m_targetOffset = targetOffset;
    if (n == 0)
        return false;
    zelVerifyN(targetOffset <= ~n, "%s: no elements %lu and more", m_target->getPath().c_str(), targetOffset);
    zelVerifyN(sourceOffset <= m_source->size() && n <= m_source->size() - sourceOffset,
               "%s: elements %lu to %lu of %lu",
               m_source->getPath().c_str(),
               sourceOffset,
               sourceOffset + n,
               m_source->size());
    try {
        start(sourceOffset, blocking);
    } catch (...) {
        m_active = false;
        throw;
    }
    return true;
}

/// Sends the elements on their way.
void Channel::start(uint64 sourceOffset, bool blocking) {
    const uint64 n = m_numElements;
    const uint64 targetOffset = m_targetOffset;
    if (m_target->size() < targetOffset + n) {
        const uint64 perEntry = std::max(m_target->getElementArraySize(), uint64{1});
        m_target->resize((targetOffset + n) / perEntry + ((targetOffset + n) % perEntry == 0 ? 0 : 1));
    }
    // A column of a storage does not grow on its own.
    zelVerifyN(m_target->size() >= targetOffset + n,
               "%s: elements %lu to %lu of %lu",
               m_target->getPath().c_str(),
               targetOffset,
               targetOffset + n,
               m_target->size());
    if (isDirect()) {
        transferDirectly(sourceOffset, blocking);
        return;
    }
    const bool cpuOnly = onCpu(m_target.get()) && onCpu(m_source.get());
    zelVerifyN(cpuOnly || (m_target->hasPlainElements() && m_source->hasPlainElements()),
               "%s: elements of format '%s' can not be transferred to other devices",
               m_source->getPath().c_str(),
               m_source->getFormat()->fullName().c_str());
    waitForDevice();
    makeStaging();
    if (onCpu(m_source.get())) {
        convert(m_source->getElement(sourceOffset), blocking);
        return;
    }
    m_tag = m_source->getDevice()->receiveData(m_staging, m_source.get(), sourceOffset, n, blocking);
    m_staged = true;
    if (blocking)
        finishStaged(true);
}

void Channel::postTransfer() {
    if (m_staged)
        finishStaged(true);
    waitForDevice();
    if (std::exchange(m_active, false) && m_numElements != 0)
        m_target->commit(
            zel::IndexRangeT<zel::uint32>(static_cast<zel::uint32>(m_targetOffset),
                                          static_cast<zel::uint32>(m_targetOffset + m_numElements)));
}

void Channel::transferDirectly(uint64 sourceOffset, bool blocking) {
    Buffer* const target = m_target.get();
    Buffer* const source = m_source.get();
    void* const to = target->getElement(m_targetOffset);
    void* const from = source->getElement(sourceOffset);
    if (onCpu(target) && onCpu(source))
        target->getFormat()->copyElements(to, from, m_numElements);
    else if (onCpu(source))
        m_tag = target->getDevice()->sendData(from, target, m_targetOffset, m_numElements, blocking);
    else
        m_tag = source->getDevice()->receiveData(to, source, sourceOffset, m_numElements, blocking);
}

/// Makes room for the elements in both formats: what is read is converted from the one block to the other.
void Channel::makeStaging() {
    if (m_numElements <= m_stagingCapacity)
        return;
    const uint64 elementSize = std::max(m_target->getElementSize(), m_source->getElementSize());
    void* const fresh = std::malloc(zel::detail::byteCount(m_numElements, 2 * elementSize));
    if (fresh == nullptr)
        ZEL_THROW(std::runtime_error,
                  zel::String::format("%s: %lu elements of format '%s' do not fit in memory",
                                      m_target->getPath().c_str(),
                                      m_numElements,
                                      m_target->getFormat()->fullName().c_str()));
    std::free(m_staging);
    m_staging = fresh;
    m_stagingCapacity = m_numElements;
}

void Channel::finishStaged(bool blocking) {
    waitForDevice();
    m_staged = false;
    convert(m_staging, blocking);
}

/// Brings elements of the source's format and byte order to the target.
void Channel::convert(const void* elements, bool blocking) {
    Buffer* const target = m_target.get();
    const Format* const sourceFormat = m_source->getFormat();
    const Format* const targetFormat = target->getFormat();
    const uint64 n = m_numElements;
    // The second block: the first one may hold the elements.
    void* const staged = static_cast<char*>(m_staging) +
                         m_stagingCapacity * std::max(m_target->getElementSize(), m_source->getElementSize());
    void* const result = onCpu(target) ? target->getElement(m_targetOffset) : staged;
    const void* converted = result;
    if (sourceFormat != targetFormat) {
        if (isSwapped(m_source.get())) {
            sourceFormat->swapByteOrder(m_staging, elements, n);
            elements = m_staging;
        }
        zelData::transform(result, targetFormat, elements, sourceFormat, n);
        if (isSwapped(target))
            targetFormat->swapByteOrder(result, result, n);
    } else if (byteOrder(target) != byteOrder(m_source.get())) {
        targetFormat->swapByteOrder(result, elements, n);
    } else {
        converted = elements; // from device to device
    }
    if (!onCpu(target))
        m_tag = target->getDevice()->sendData(converted, target, m_targetOffset, n, blocking);
}

void Channel::waitForDevice() {
    if (m_tag)
        m_tag->wait();
    m_tag = nullptr;
}

} // namespace zelData
