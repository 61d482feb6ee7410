#pragma once

#include <zel/Device.h>
#include <zel/Export.h>
#include <zel/MemoryPool.h>
#include <zel/RangeJob.h>
#include <zel/SyncTag.h>
#include <zel/ref_ptr.h>

namespace zel {

class Task;

/// The main memory with the worker threads. The process has one, which buffers live on by default; a model
/// file may describe further ones.
/// @threads instance any thread; sendData and receiveData as the elements; everything else owner thread
class ZEL_CORE_API CpuDevice : public Device {
public:
    /// Always ready. The work loop of the threads knows it and does not ask.
    class ZEL_CORE_API SyncTag final : public zel::SyncTag {
    public:
        int32 wait() override;
        int32 getStatus() override;
    };

    explicit CpuDevice(const Name& name);
    ~CpuDevice() override;

    /// The device of the process, made at the first call.
    [[nodiscard]] static CpuDevice* instance();

    [[nodiscard]] zelData::Buffer* createBuffer(const zelData::Format* format) override;
    using Device::createBuffer;
    /// Copies bytes: for elements that are plain bytes. The elements must exist.
    ref_ptr<zel::SyncTag>
    sendData(const void* source, zelData::Buffer* buffer, size_t index, size_t count, bool blocking) override;
    ref_ptr<zel::SyncTag>
    receiveData(void* target, zelData::Buffer* buffer, size_t index, size_t count, bool blocking) override;

    /// Not a thing to be done here: ends the process. The threads have queues of their own.
    [[noreturn]] static void enqueue(Task* task);
    /// As enqueue.
    [[noreturn]] static void wait(bool blocking);

    /// Memory for the jobs of kernels, offered to those that take their jobs one by one; the kernels of the
    /// library take theirs in one piece, and keep them. Without a lock: for one thread at a time, the one
    /// that dispatches.
    [[nodiscard]] MemoryPool<RangeJob>& getJobPool() noexcept { return m_jobPool; }

    [[nodiscard]] static Model* ClassModel();

private:
    ref_ptr<zel::SyncTag> m_syncTag;
    MemoryPool<RangeJob> m_jobPool;
};

} // namespace zel
