#pragma once

#include <zel/Job.h>
#include <zel/ParallelTask.h>
#include <zel/Thread.h>
#include <zel/Timer.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>

#include <functional>
#include <mutex>
#include <set>

namespace zelTest {

/// Keeps the processor busy for a while.
inline void spin(double milliseconds) {
    const zel::uint64 start = zel::Timer::now();
    while (zel::Timer::toMilliseconds(zel::Timer::now() - start) < milliseconds) {
    }
}

/// Runs short jobs until each thread of the pool has had one. A job may not wait for another one to run at
/// the same time: the scheduler does not promise that.
/// @param work  called once on each thread, by one thread at a time
/// @return the threads, in no particular order
inline std::set<zel::Thread*> onEachThread(const std::function<void()>& work = [] {}) {
    std::mutex mutex;
    std::set<zel::Thread*> threads;
    zel::Vector<zel::Job> jobs(4 * zel::getNumThreads(), zel::Job([&] {
                                   zel::Thread* thread = zel::Thread::getCurrentThread();
                                   // Registered threads from outside take jobs as well.
                                   if (thread->getId() != zel::InvalidIndex) {
                                       const std::lock_guard lock(mutex);
                                       if (threads.insert(thread).second)
                                           work();
                                   }
                                   spin(0.05);
                               }));
    const zel::ref_ptr<zel::ParallelTask> task(new zel::ParallelTask("each"));
    for (zel::Job& job : jobs)
        task->addJob(&job);
    while (threads.size() < zel::getNumThreads())
        task->execute();
    task->removeAllJobs();
    return threads;
}

} // namespace zelTest
