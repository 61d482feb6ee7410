#pragma once

#include <zel/Callback.h>
#include <zel/Export.h>
#include <zel/Job.h>
#include <zel/Name.h>
#include <zel/ParallelTask.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>

#include <utility>

namespace zel {

class ScalarParameter;

/// Runs one job on each of the first threads of the pool: for what belongs to a thread, such as its caches.
class ZEL_CORE_API ThreadTask : public ParallelTask {
public:
    /// @param callback        called once on each thread
    /// @param finishCallback  called when all are done
    /// @param numThreads      how many threads at most; the present number is asked for at each run
    ThreadTask(const Name& name, Callback callback, Callback finishCallback, size_t numThreads);
    ThreadTask(const Name& name, Callback callback, size_t numThreads);
    ThreadTask(Callback callback, size_t numThreads);
    ~ThreadTask() override;

    [[nodiscard]] size_t getNumThreads() const;
    void setNumThreads(size_t numThreads);
    /// Called on one thread ahead of the others; empty for none.
    void setPreCallback(Callback callback) { m_preCallback = std::move(callback); }

private:
    void dispatch();
    void releaseJobs();
    void resizeJobs(size_t count);

    Callback m_callback;
    Callback m_preCallback;
    ref_ptr<ScalarParameter> m_numThreads;
    Vector<Job> m_jobs;
    size_t m_capacity = 0; // the most jobs since the memory was last given back
};

} // namespace zel
