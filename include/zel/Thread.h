#pragma once

#include <zel/BasicThread.h>
#include <zel/Export.h>
#include <zel/HashTable.h>
#include <zel/Integers.h>
#include <zel/InvalidIndex.h>
#include <zel/Job.h>
#include <zel/LocalTimelineEntry.h>
#include <zel/LockRank.h>
#include <zel/Notify.h>
#include <zel/SpinMutex.h>
#include <zel/ThreadLocalAllocator.h>
#include <zel/Timer.h>
#include <zel/Uuid.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelData/AttributeContainer.h>

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <condition_variable>
#include <cstdarg>
#include <exception>
#include <memory>
#include <mutex>
#include <random>
#include <string>

/// The most threads that the system runs, the main thread included.
#define ZEL_MAX_NUM_THREADS 1024
/// The most tasks that one thread may be executing at a time, one inside the other.
#define ZEL_THREAD_FRAME_STACK_MAX_DEPTH 64

namespace zelData {
class EntityModel;
class EntityStorage;
} // namespace zelData

namespace zel {

class LogChunk;
class Task;
struct LogEntry;

/// A thread of the scheduler: a queue of jobs, and the loop that works it off and steals from other threads
/// when it runs dry.
///
/// The thread that called zelCore::init() is the main thread, with id 0. Workers have ids from 1 upward and
/// are started by zel::setNumThreads. Any other thread may register itself; it then runs its own tasks, and
/// has InvalidIndex for an id. Threads wait for their tasks by working.
/// @threads static functions any thread, unless noted otherwise; members the thread itself, unless told
/// otherwise
class ZEL_CORE_API Thread : public BasicThread, public zelData::AttributeContainer {
public:
    /// A Lehmer generator, the source of random victims.
    class ZEL_CORE_API FastRandom {
    public:
        static constexpr uint64 Modulus = 4294967291;
        static constexpr uint64 Multiplier = 69070;

        /// Seeds from getRandGenerator(), so that the threads of a run get the same seeds as those of the run
        /// before.
        FastRandom();
        explicit FastRandom(uint32 seed) { init(seed); }

        /// Every seed is good; none leads to the state 0, which has no successor but itself.
        void init(uint32 seed) noexcept {
            m_state = seed >= Modulus ? seed + 5 : seed;
            if (m_state == 0)
                m_state = 1;
        }
        uint32 operator()() noexcept {
            m_state = static_cast<uint32>(m_state * Multiplier % Modulus);
            return m_state;
        }
        [[nodiscard]] uint32 getState() const noexcept { return m_state; }

    private:
        uint32 m_state = 1;
    };

    /// The id of a main thread that another one has replaced; it may not work any more.
    static constexpr uint32 DiscardedMainThread = static_cast<uint32>(-2);

    /// Whether lines of the thread log are printed at once, which they are by default, or kept for flushLogs.
    static std::atomic<bool> immediateLogging;

    /// Keeps the main thread at work while the hold exists, for a run that has jobs for each thread of the
    /// pool: the main thread does not leave the task that it executes before. On the main thread itself it
    /// does nothing.
    class ZEL_CORE_API MainThreadHold {
    public:
        /// @throws std::runtime_error  if the main thread executes no task: it would never get to its job
        MainThreadHold();
        MainThreadHold(const MainThreadHold&) = delete;
        MainThreadHold& operator=(const MainThreadHold&) = delete;
        ~MainThreadHold();

    private:
        Thread* m_thread = nullptr;
    };

    /// @param id  below ZEL_MAX_NUM_THREADS, or InvalidIndex for a thread outside the pool
    explicit Thread(uint32 id = InvalidIndex);
    /// Stops a worker. The queues must be empty, unless the system was forced to shut down.
    ~Thread() override;

    // The system

    /// Makes the caller the main thread if there is none, and lets it compute without denormals like all
    /// threads.
    static void initThreadSystem();
    /// Ends the workers and frees registered threads, which must not use their thread any more. If tasks are
    /// still active, the shutdown is forced: the workers are cancelled, and nothing may be executed until the
    /// process ends.
    /// @threads main thread
    static void shutdown();
    /// False at all times.
    [[nodiscard]] static bool isShuttingDown() noexcept { return false; }
    /// Brings the number of threads to what was last asked for with setNumThreads, if anything was.
    /// @pre no task is active
    static void performNumThreadsChange();

    /// The caller's thread; null if it is not registered.
    [[nodiscard]] static Thread* getCurrentThread() noexcept;
    /// pthread_self in decimal, ", ", and the id of the caller's thread or "null".
    [[nodiscard]] static std::string getCurrentThreadDescription();

    /// Makes the caller a thread of the system, so that it may log, execute tasks and use per-thread
    /// allocators.
    /// @return the caller's thread, which it may have been before
    static Thread* registerAsZelThread();
    /// Ends what registerAsZelThread began and frees the thread. No job may be left in its queue.
    static void unregisterAsZelThread();
    /// Makes the caller the main thread. The old main thread may not work any more.
    /// @throws std::runtime_error "Can not convert an existing work thread to the main thread" if the caller
    /// is
    ///     another thread of the system
    static Thread* makeCurrentThreadMainThread();
    /// The registered threads from outside with their indices; null until the first one.
    /// @threads external lock: no thread may register or unregister meanwhile
    [[nodiscard]] static const HashTable<Thread*, uint32>* getPromotedThreads() noexcept {
        return s_promotedThreads;
    }

    /// A key for a value of each thread, as pthread keys.
    /// @throws std::runtime_error "Could not create thread local storage key."
    [[nodiscard]] static pthread_key_t allocatePerThreadStorage();
    /// The calling thread's value, null at first and for an unknown key.
    [[nodiscard]] static void* readPerThreadStorage(pthread_key_t key) noexcept;
    /// @throws std::runtime_error "Could not set value in a thread local storage"
    static void writePerThreadStorage(pthread_key_t key, void* value);
    /// @throws std::runtime_error "Could not free a thread local storage."
    static void freePerThreadStorage(pthread_key_t key);

    // Tasks

    /// Begins a task on the calling thread, which must then call blockingDoWork. Task::execute does both.
    static void addTask(Task* task);
    /// Ends what addTask began. Called by the task when its last job runs.
    static void taskCompleted(Task* task);
    /// Tells this thread that a task which it executes is complete, as taskCompleted does, and calls it back
    /// to work. A task that it does not execute ends the process.
    /// @threads any thread
    void completeFrame(Task* task);
    /// Works, or sleeps when there is nothing to do, until the task that was added last is complete.
    void blockingDoWork();

    // Work

    /// Queues the job here, or with its target thread. Wakes nobody but a target.
    void spawn(Job* job);
    /// Hands the job to another thread.
    /// @param activate  whether to wake the target
    /// @threads any thread
    void pushTargetJob(Thread* target, Job* job, bool activate);
    /// Works until the innermost task executed here is complete, or there has been nothing to do for 100
    /// microseconds.
    /// @throws what a job throws; the system is then to be shut down
    void doWork();
    /// Calls the thread back to work.
    /// @threads any thread
    void activate();
    /// Waits until the thread is activated or handed a job.
    void sleep();
    /// Deals the queue out to this thread and those that sleep, and wakes them.
    void wakeupThreads();
    /// If the queue is empty, puts there what others have handed to this thread, or one job of another
    /// thread. Gives up after 100 microseconds.
    void stealWork();

    // Life of a worker

    /// Starts the worker, and returns when it is up.
    bool start();
    /// Ends a worker; does nothing on other threads.
    /// @threads any thread but the worker itself
    void stop();
    void run() override;

    // Queries

    [[nodiscard]] uint32 getId() const noexcept { return m_id.load(std::memory_order_relaxed); }
    /// The id, or for a registered caller a number from getNumThreads() upward. Looks the calling thread up,
    /// not this object.
    [[nodiscard]] uint32 getIndex() const;
    [[nodiscard]] bool isRunning() const noexcept { return m_running.load(std::memory_order_acquire) != 0; }
    /// This thread's message state.
    [[nodiscard]] Notify::ThreadData* getNotifyData() const noexcept { return m_notifyData.get(); }
    /// A random identity from the thread's own generator.
    [[nodiscard]] Uuid generateUuid();

    /// Time spent on scheduling, from being activated to being awake, and asleep. Read by the thread itself.
    /// While neither profiling nor the timeline is on, the first one counts only what is spent looking for
    /// work.
    [[nodiscard]] const Timer& getOverheadTimer() const noexcept { return m_overheadTimer; }
    [[nodiscard]] Timer getActivationTimer() const noexcept {
        const std::lock_guard lock(m_timerLock);
        return m_activationTimer;
    }
    [[nodiscard]] const Timer& getIdleTimer() const noexcept { return m_idleTimer; }
    void resetOverheadTime() noexcept;

    // Entities

    /// This thread's storage for instances of the entity that are created without naming one; made at the
    /// first call. Lives until the library's shutdown, whatever becomes of the thread.
    [[nodiscard]] zelData::EntityStorage* getDefaultStorage(zelData::EntityModel* model);
    /// Forgets this thread's default storages; the next use makes new ones.
    void freeDefaultStorages();

    // The thread log: a cheap trace beside the log proper

    /// Prints or keeps the line "[id] text"; a line end is added. See immediateLogging.
    [[gnu::format(printf, 2, 0)]] void logImplementation(const char* format, va_list arguments);
    /// Writes the kept lines of all threads, ordered by time, to the file "thread_log.txt".
    /// @threads any thread, while no thread starts or ends
    static void flushLogs();

    // The timeline: what each thread of the pool did in a frame

    /// Asks for a timeline. Only noted, for those who run frames: see Clock.
    static void setEnableJobTimeline(bool enable) noexcept {
        s_enableJobTimeline.store(enable, std::memory_order_relaxed);
    }
    [[nodiscard]] static bool getEnableJobTimeline() noexcept {
        return s_enableJobTimeline.load(std::memory_order_relaxed);
    }
    /// Begins a frame: from here on each thread notes the jobs that it runs.
    static void resetStartTick();
    /// Ends the frame, and turns the notes of each thread into entities "ThreadTimelineEntry" in that
    /// thread's default storage, in place of those of the frame before.
    /// @throws std::runtime_error  as MainThreadHold
    /// @threads outside of tasks, or from a task that runs alone; the main thread, or within a task of its
    static void exportAllTimelines();
    /// Whether jobs are being noted.
    [[nodiscard]] static bool isTimelineOn() noexcept {
        return s_registerTimelineEntries.load(std::memory_order_relaxed);
    }
    /// Notes a job that has just run here; a range with its size. A group of jobs does so for its members.
    void reportTimelineJob(const Job* job);
    /// Notes something else that took its time.
    /// @param startTick  of the time-stamp counter, as endTick
    void reportSystemJob(
        uint64 startTick, uint64 endTick, const String& name, const String& extraTitle, double extraValue);
    void pushTimelineEntry(const LocalTimelineEntry& entry);

private:
    friend class Task;
    friend class ThreadLocalAllocator; // m_arena
    friend class ThreadTask;           // getThread
    friend ZEL_CORE_API size_t getNumThreads() noexcept;
    friend ZEL_CORE_API size_t getNumThreadsIncludingRegistered();
    friend ZEL_CORE_API void setNumThreads(size_t n);
    friend ZEL_CORE_API bool forcedShutdown() noexcept;

    static constexpr size_t CacheLine = 64;

    /// A task that this thread executes and waits for.
    struct Frame {
        Task* task = nullptr;
        std::atomic<bool> done{false}; // set by the thread that completes the task
    };

    /// The jobs of a thread by priority, and those of equal priority in the order in which they came: a
    /// kernel's ranges walk through memory forwards, and a job that had to be put back, since its tag is not
    /// ready, lets its equals go ahead. Only jobs with homes leave out of that order.
    ///
    /// Mostly all jobs of a queue have the same priority. These stand in a row, where each comes and goes in
    /// constant time; the others are in a heap. While the row has jobs, all that come with its priority join
    /// it, so those of that priority in the heap are older.
    class JobQueue {
    public:
        [[nodiscard]] bool empty() const noexcept { return rowEmpty() && m_heap.empty(); }
        [[nodiscard]] size_t size() const noexcept { return m_row.size() - m_first + m_heap.size(); }
        void push(Job* job);
        /// Takes the best job out for the thread that owns the queue; among equal ones whose home is some
        /// thread, one whose home that thread is.
        [[nodiscard]] Job* pop(uint32 home);
        /// The same for somebody else, who begins at the end that the owner comes to last.
        [[nodiscard]] Job* popFor(uint32 home);
        void clear() noexcept;

    private:
        struct Place {
            Job* job;
            uint16 home;
        };
        struct Entry {
            Job* job;
            uint32 priority;
            uint32 number; // of the push, counted round
        };

        /// How far to look for a job with a home.
        static constexpr size_t Reach = 256;

        static bool isWorse(const Entry& a, const Entry& b) noexcept {
            if (a.priority != b.priority)
                return a.priority < b.priority;
            return static_cast<int32>(a.number - b.number) > 0;
        }
        [[nodiscard]] bool rowEmpty() const noexcept { return m_first == m_row.size(); }
        [[nodiscard]] bool rowIsBest() const noexcept {
            return !rowEmpty() && (m_heap.empty() || m_rowPriority > m_heap.front().priority);
        }
        void grow();
        [[nodiscard]] Job* popHeap();
        [[nodiscard]] Job* takeOut(size_t index);

        VectorPOD<Place> m_row;
        size_t m_first = 0; // of the row; those ahead of it are gone
        uint32 m_rowPriority = 0;
        uint32 m_numPushed = 0;
        VectorPOD<Entry> m_heap;
    };

    /// The spin lock of a queue, and beside it whether the queue holds anything, for those who look without
    /// locking. A thief that kept trying the lock of an empty queue would keep taking its cache line from the
    /// owner.
    class QueueLock {
    public:
        explicit QueueLock(const JobQueue& queue) noexcept : m_queue(queue) {}
        void lock() noexcept { m_mutex.lock(); }
        /// For thieves: an empty queue is not worth it.
        [[nodiscard]] bool try_lock() noexcept { return hasJobs() && m_mutex.try_lock(); }
        void unlock() noexcept {
            // Written on change only. Sequentially consistent: see the argument in ThreadWork.cpp.
            const bool hasJobs = !m_queue.empty();
            if (hasJobs != m_hasJobs.load(std::memory_order_relaxed))
                m_hasJobs.store(hasJobs, std::memory_order_seq_cst);
            m_mutex.unlock();
        }
        [[nodiscard]] bool hasJobs() const noexcept { return m_hasJobs.load(std::memory_order_seq_cst); }

    private:
        const JobQueue& m_queue;
        alignas(CacheLine) std::atomic<bool> m_hasJobs{false}; // written under the lock
        alignas(CacheLine) RankedMutex<LockRank::SharedJobs, SpinMutex> m_mutex;
    };

    using ActiveTasksMutex = RankedMutex<LockRank::ActiveTasks>;

    /// Something to wait for, which is remembered if it comes first.
    class Signal {
    public:
        /// @param beforeWake  called first if a thread is waiting, which goes on afterwards
        template <typename BeforeWake>
        void release(const BeforeWake& beforeWake) {
            const std::lock_guard lock(m_mutex);
            if (m_flag)
                return;
            if (m_waiting)
                beforeWake();
            m_flag = true;
            m_condition.notify_all();
        }
        void wait();
        /// @param afterWake  called while nobody can release the signal
        template <typename AfterWake>
        void reset(const AfterWake& afterWake) {
            const std::lock_guard lock(m_mutex);
            afterWake();
            m_flag = false;
        }
        /// Calls while nobody can release the signal or go on from it.
        template <typename Function>
        void whileLocked(const Function& function) {
            const std::lock_guard lock(m_mutex);
            function();
        }

    private:
        RankedMutex<LockRank::Sleep> m_mutex;
        std::condition_variable m_condition;
        bool m_flag = false;    // guarded by m_mutex
        bool m_waiting = false; // guarded by m_mutex
    };

    class MainThreadSingleton;
    class Activity;
    class AwaitScope;
    enum class Taken { Job, NotReady, Nothing };

    void initialize();
    void workLoop();
    Taken takeJob(Job*& job, size_t& remaining, Activity& activity);
    Taken takeReadyJob(Job*& job, size_t& remaining);
    Job* queueLocalJobs(size_t& remaining);
    void stealIntoQueue();
    void takePushedJobs(uint32 count);
    [[nodiscard]] Thread* chooseVictim(uint32 numThreads, uint32& last);
    [[nodiscard]] bool topFrameDone() const noexcept;
    [[nodiscard]] bool othersHaveJobs() const noexcept;
    void leaveCallersProcessor() noexcept;
    void returnToProcessors() noexcept;
    static void returnAllToProcessors();
    void dealOut();
    void dealOutForOutsiders();
    void takeLocalJobs();
    /// Whether the task is among the active ones. The caller holds s_sharedMutex.
    [[nodiscard]] static bool isActive(const Task* task);
    /// @return whether it was among them
    static bool eraseActive(const Task* task);
    /// As addTask; the caller works at once, and may keep the task's first job in hand.
    static void beginTask(Task* task, bool inHand);
    /// Whether nothing keeps the job from running on this thread at once.
    [[nodiscard]] bool runsHere(const Job* job) const noexcept {
        return !job->m_restricted || (job->m_syncTag.get() == nullptr &&
                                      (job->m_targetThread == nullptr || job->m_targetThread == this));
    }
    void leaveTask();
    void handJobsOver();
    void giveJobsAway(uint32 numThreads, Thread* waiting);
    void leavePool(uint32 newCount);
    /// For a thread that may be about to leave the work loop.
    void spawnForOthers(Job* job);
    void markFrameDone(Task* task);
    void finishEarlierRun(Task* task);
    /// Whether a job on this thread's stack is part of the task's present run.
    [[nodiscard]] bool worksFor(Task* task) const;
    /// For a task that goes while it is active, after an exception.
    static void forgetTask(Task* task);
    void stayWhileHeld();
    /// For a thread that waits for something else than a frame.
    void workOrYield();
    void verifyLastFrame(const Task* task) const;
    void gatherLogEntries(Vector<LogEntry>& entries);
    /// @return whether there is an entry that endSleepEntry is to end
    [[nodiscard]] bool beginSleepEntry();
    void endSleepEntry();
    void exportTimelineEntries();
    [[nodiscard]] bool isWorker() const noexcept { return getId() >= 1 && getId() < DiscardedMainThread; }
    [[nodiscard]] static Thread* getThread(uint32 index) noexcept {
        // Acquire: pairs with the release in setThread, so that a new thread is seen complete.
        return s_threads[index].load(std::memory_order_acquire);
    }
    static void setThread(uint32 index, Thread* thread) noexcept {
        s_threads[index].store(thread, std::memory_order_release);
    }
    static void performPendingChange();
    static void changeNumThreads(std::unique_lock<ActiveTasksMutex>& sharedLock);
    static void waitUntilInactive();
    static void endChange();
    static void resizePool(uint32 oldCount, uint32 newCount);
    static void killWorkers();
    static void restoreMainThreadState() noexcept;

    // Owner only, unless noted otherwise.
    ref_ptr<Notify::ThreadData> m_notifyData;
    FastRandom m_random;
    double m_theftPause = 0;                          // before the next attempt to steal, in milliseconds
    Frame m_frames[ZEL_THREAD_FRAME_STACK_MAX_DEPTH]; // tasks guarded by s_sharedMutex
    std::atomic<uint64> m_numFrames{0};               // written by the owner, read by completing threads
    Frame* m_awaited = nullptr;     // the frame that the work loop is to work for; null for none
    Frame m_neverDone;              // awaited by who waits for something else
    Activity* m_activity = nullptr; // the innermost work loop
    Job* m_inHand = nullptr;        // for the next work loop to begin with
    bool m_calledItself = false;    // has completed a task of its own since the outermost loop began
    uint64 m_workDepth = 0;
    std::atomic<int32> m_activationCount{0}; // shared: above 0, the thread should be in its work loop
    Signal m_startSignal;
    Signal m_sleepSignal;
    // What a sleeping worker's processors were before it was called, and the one it was told to leave; -1 for
    // none. Guarded by m_sleepSignal.
    pthread_t m_handle{}; // set when the worker starts
    cpu_set_t m_processors{};
    int m_leftProcessor = -1;
    Thread* m_nextInRing = nullptr; // guarded by s_sharedMutex
    // What thieves, the owner and the givers of jobs write lies on different cache lines; the locks above
    // all.
    alignas(CacheLine) JobQueue m_sharedJobs;        // guarded by m_sharedLock
    alignas(CacheLine) VectorPOD<Job*> m_localJobs;  // scratch; of a sleeping thread guarded by s_sharedMutex
    alignas(CacheLine) VectorPOD<Job*> m_pushedJobs; // guarded by m_pushedLock
    VectorPOD<Job*> m_keptJobs;                      // scratch of dealOut; guarded by m_sharedLock
    std::atomic<uint32> m_numPushed{0}; // shared: length of m_pushedJobs, readable without the lock
    std::atomic<uint32> m_running{0};   // shared: set by the thread, cleared by who stops it
    QueueLock m_sharedLock{m_sharedJobs};
    alignas(CacheLine) RankedMutex<LockRank::PushedJobs, SpinMutex> m_pushedLock;
    // Written before the thread is known, but for a discarded main thread.
    alignas(CacheLine) std::atomic<uint32> m_id;
    Timer m_overheadTimer;
    Timer m_activationTimer; // guarded by m_timerLock: started by the activating thread
    Timer m_idleTimer;
    mutable RankedMutex<LockRank::ThreadRecords, SpinMutex> m_timerLock;
    bool m_sleeping = false; // guarded by s_sharedMutex
    uint32 m_savedFloatingPointControl = 0;
    bool m_floatingPointControlSaved = false;
    std::unique_ptr<std::mt19937> m_uuidRandom; // made for the first identity: a seed is dear
    HashTable<zelData::EntityModel*, ref_ptr<zelData::EntityStorage>> m_defaultStorages;
    UuidGenerator m_uuidGenerator;
    ThreadLocalAllocator::Arena m_arena;
    ref_ptr<LogChunk> m_logChunk; // newest first; guarded by m_logLock
    RankedMutex<LockRank::ThreadRecords, SpinMutex> m_logLock;
    Vector<LocalTimelineEntry> m_timelineEntries; // guarded by m_timelineLock
    RankedMutex<LockRank::ThreadRecords, SpinMutex> m_timelineLock;
    size_t m_queueLength = 0; // when the present job was taken

    // The system. Objects with destructors are never destroyed: threads may run on while the process exits.
    static std::atomic<Thread*> s_threads[ZEL_MAX_NUM_THREADS];
    static std::atomic<Thread*> s_mainThread;
    static std::atomic<uint32> s_highestId;
    static std::atomic<int32> s_numActiveThreads;     // threads inside the outermost work loop
    static ActiveTasksMutex s_sharedMutex;            // before any spin lock
    static Vector<Task*>& s_activeTasks;              // guarded by s_sharedMutex; each knows its place
    static Vector<Thread*>& s_sleepingThreads;        // guarded by s_sharedMutex
    static std::atomic<size_t> s_numSleeping;         // their number, readable without the lock
    static std::atomic<uint32> s_numWithoutProcessor; // workers that have left one; see ThreadWake.cpp
    static bool s_changing;                           // guarded by s_sharedMutex: the pool is being resized
    static bool s_taskLost;                    // guarded by s_sharedMutex: a task went before it was complete
    static std::condition_variable& s_changed; // with s_sharedMutex: s_changing was cleared
    static std::exception_ptr& s_unhandledException; // guarded by s_sharedMutex
    static std::atomic<uint64> s_numHolds;           // of the main thread; written under s_sharedMutex
    static RankedMutex<LockRank::RegisteredThreads> s_mutex; // guards s_promotedThreads; after s_sharedMutex
    static HashTable<Thread*, uint32>* s_promotedThreads;
    static std::atomic<int64> s_numThreadsPromise; // -1 for none
    static std::atomic<bool> s_shutdown;           // workers stay out of the work loop
    static std::atomic<bool> s_forcedShutdown;
    static Vector<Thread*>& s_discardedMainThreads;
    // Relaxed: switches and times that are set between frames.
    static std::atomic<bool> s_enableJobTimeline;
    static std::atomic<bool> s_registerTimelineEntries;
    static std::atomic<uint64> s_timelineStartTick; // of the first frame
    static std::atomic<uint64> s_frameStartTick;
    static std::atomic<uint64> s_frameEndTick;
    static const Callback1<Task*>& s_taskCompletionCallback; // taskCompleted
};

/// The size of the pool: the main thread and the workers.
/// @threads any thread
[[nodiscard]] ZEL_CORE_API size_t getNumThreads() noexcept;
/// The same with the registered threads from outside.
/// @threads any thread
[[nodiscard]] ZEL_CORE_API size_t getNumThreadsIncludingRegistered();
/// Sets the size of the pool, the main thread included; at most ZEL_MAX_NUM_THREADS, and 0 for one thread per
/// online processor. Takes effect at once, or when the active tasks are complete.
/// @threads any thread
ZEL_CORE_API void setNumThreads(size_t n);
/// Thread::getCurrentThread().
[[nodiscard]] ZEL_CORE_API Thread* getCurrentThread() noexcept;
/// Whether many threads create reference-counted entities: each default storage that is asked for is then a
/// new one.
/// @threads any thread
ZEL_CORE_API void setEntityCreationThreadSafe(bool threadSafe);
[[nodiscard]] ZEL_CORE_API bool getEntityCreationThreadSafe();
/// Whether the threads were shut down while tasks were active. Stays so.
/// @threads any thread
[[nodiscard]] ZEL_CORE_API bool forcedShutdown() noexcept;

} // namespace zel

/// Thread::flushLogs for a debugger.
extern "C" ZEL_CORE_API void zelFlushThreadLogs();
