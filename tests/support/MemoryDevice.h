#pragma once

#include <zel/Device.h>
#include <zelData/Buffer.h>

#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace zelTest {

/// A device with a memory of its own, of either byte order. Calls that do not block are done when their tag
/// is waited for.
class MemoryDevice : public zel::Device {
public:
    static constexpr auto DeviceType = static_cast<zel::Device::Type>(77);

    explicit MemoryDevice(ByteOrder byteOrder = NativeByteOrder, Type type = DeviceType)
        : Device("memory", type, "Memory", byteOrder) {}

    zelData::Buffer* createBuffer(const zelData::Format* format) override {
        auto* buffer = new zelData::Buffer(format);
        buffer->setDevice(this);
        return buffer;
    }
    using Device::createBuffer;

    zel::ref_ptr<zel::SyncTag> sendData(
        const void* source, zelData::Buffer* buffer, size_t index, size_t count, bool blocking) override {
        return perform(blocking, [=, this] {
            std::memcpy(memory(buffer, index, count), source, count * buffer->getElementSize());
        });
    }
    zel::ref_ptr<zel::SyncTag>
    receiveData(void* target, zelData::Buffer* buffer, size_t index, size_t count, bool blocking) override {
        return perform(blocking, [=, this] {
            std::memcpy(target, memory(buffer, index, count), count * buffer->getElementSize());
        });
    }

    /// The device's memory of a buffer.
    template <typename T>
    std::vector<T> content(zelData::Buffer* buffer) {
        const std::string& store = m_memory[buffer];
        std::vector<T> result(store.size() / sizeof(T));
        if (!result.empty())
            std::memcpy(result.data(), store.data(), result.size() * sizeof(T));
        return result;
    }

    int numCalls = 0;

private:
    struct Tag : zel::SyncTag {
        explicit Tag(std::function<void()> function) : work(std::move(function)) {}
        zel::int32 wait() override {
            if (work)
                std::exchange(work, nullptr)();
            return 1;
        }
        zel::int32 getStatus() override { return work ? 0 : 1; }
        std::function<void()> work;
    };

    zel::ref_ptr<zel::SyncTag> perform(bool blocking, std::function<void()> work) {
        ++numCalls;
        zel::ref_ptr<zel::SyncTag> tag(new Tag(std::move(work)));
        if (!blocking)
            return tag;
        tag->wait();
        return nullptr;
    }

    char* memory(zelData::Buffer* buffer, size_t index, size_t count) {
        const size_t size = buffer->getElementSize();
        std::string& store = m_memory[buffer];
        if (store.size() < (index + count) * size)
            store.resize((index + count) * size);
        return store.data() + index * size;
    }

    std::map<zelData::Buffer*, std::string> m_memory;
};

} // namespace zelTest
