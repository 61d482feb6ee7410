#include "logging/LogChunk.h"

#include <zel/Exception.h>
#include <zel/FloatingPoint.h>
#include <zel/Random.h>
#include <zel/Singleton.h>
#include <zel/Thread.h>
#include <zel/Verify.h>
#include <zelData/EntityStorage.h>

#include <cmath>
#include <stdexcept>

// What a thread is and how it comes into being. The work loop is in ThreadWork.cpp, the size of the pool in
// ThreadPool.cpp, the thread log in ThreadLog.cpp.

namespace zel {

namespace {

// Initial-exec: the library is loaded at start, or takes a few bytes of the room that the loader keeps.
[[gnu::tls_model("initial-exec")]] constinit thread_local Thread* t_currentThread = nullptr;

} // namespace

std::atomic<bool> Thread::immediateLogging{true};

constinit std::atomic<Thread*> Thread::s_threads[ZEL_MAX_NUM_THREADS]{};
constinit std::atomic<Thread*> Thread::s_mainThread{nullptr};
constinit RankedMutex<LockRank::RegisteredThreads> Thread::s_mutex;
constinit HashTable<Thread*, uint32>* Thread::s_promotedThreads = nullptr;
Vector<Thread*>& Thread::s_discardedMainThreads = *new Vector<Thread*>;

Thread::FastRandom::FastRandom() {
    std::uniform_int_distribution<int32> distribution(0, 2147483647);
    const double r = distribution(getRandGenerator());
    init(static_cast<uint32>(std::trunc(r / 2147483647.0 * 4294967290.0)) + 5);
}

void Thread::Signal::wait() {
    /// Ends the wait also where the thread is cancelled.
    struct Waiting {
        explicit Waiting(bool& f) : flag(f) { flag = true; }
        Waiting(const Waiting&) = delete;
        Waiting& operator=(const Waiting&) = delete;
        ~Waiting() { flag = false; }
        bool& flag;
    };
    const std::lock_guard lock(m_mutex);
    const Waiting waiting(m_waiting);
    m_mutex.wait(m_condition, [this] { return m_flag; });
}

/// Frees the main thread when the services are torn down.
class Thread::MainThreadSingleton : public Singleton {
public:
    static void create() {
        if (s_instance == nullptr)
            s_instance = new MainThreadSingleton;
    }
    ~MainThreadSingleton() override { forget(); }

    void shutdown() override {
        forget();
        // A process that ends without zelCore::shutdown() still has its workers, which look at all threads.
        if (forcedShutdown() || getNumThreads() > 1)
            return;
        setThread(0, nullptr);
        delete s_mainThread.exchange(nullptr, std::memory_order_acq_rel);
        for (Thread* thread : s_discardedMainThreads)
            delete thread;
        s_discardedMainThreads.clear();
        t_currentThread = nullptr;
    }
    [[nodiscard]] std::string getClassName() const override { return __PRETTY_FUNCTION__; }

private:
    MainThreadSingleton() : Singleton(3) {}
    void forget() {
        if (s_instance == this)
            s_instance = nullptr;
    }

    static MainThreadSingleton* s_instance;
};

constinit Thread::MainThreadSingleton* Thread::MainThreadSingleton::s_instance = nullptr;

Thread::Thread(uint32 id) : m_notifyData(new Notify::ThreadData), m_id(id) {
    zelVerifyN(id == InvalidIndex || id < ZEL_MAX_NUM_THREADS,
               "Max num threads (%d) exceeded!",
               ZEL_MAX_NUM_THREADS);
    MainThreadSingleton::create();
}

Thread::~Thread() {
    stop();
    if (m_logChunk)
        LogChunk::retain(m_logChunk.get());
    freeDefaultStorages();
    zelVerifyAs(forcedShutdown() || (m_sharedJobs.empty() && m_inHand == nullptr),
                "forcedShutdown() || m_sharedJobs.empty()");
    zelVerify(forcedShutdown() || m_pushedJobs.empty());
}

Uuid Thread::generateUuid() {
    if (!m_uuidRandom)
        m_uuidRandom = std::make_unique<std::mt19937>(std::random_device("default")());
    return m_uuidGenerator.generate(*m_uuidRandom);
}

Thread* Thread::getCurrentThread() noexcept {
    return t_currentThread;
}

std::string Thread::getCurrentThreadDescription() {
    const Thread* thread = getCurrentThread();
    return std::to_string(pthread_self()) + ", " +
           (thread == nullptr ? "null" : std::to_string(static_cast<int32>(thread->getId())));
}

void Thread::initThreadSystem() {
    Thread* mainThread = s_mainThread.load(std::memory_order_acquire); // pairs with the release below
    if (mainThread == nullptr) {
        mainThread = new Thread(0);
        t_currentThread = mainThread;
        setThread(0, mainThread);
        s_mainThread.store(mainThread, std::memory_order_release);
    }
    if (mainThread == getCurrentThread() && !mainThread->m_floatingPointControlSaved) {
        mainThread->m_savedFloatingPointControl = DenormalizationGuard::enable();
        mainThread->m_floatingPointControlSaved = true;
    }
}

void Thread::restoreMainThreadState() noexcept {
    Thread* thread = getCurrentThread();
    if (thread != nullptr && thread->m_floatingPointControlSaved && thread->m_id == 0) {
        DenormalizationGuard::disable(thread->m_savedFloatingPointControl);
        thread->m_floatingPointControlSaved = false;
    }
}

Thread* Thread::makeCurrentThreadMainThread() {
    Thread* caller = getCurrentThread();
    Thread* old = s_mainThread.load(std::memory_order_acquire);
    if (caller != nullptr && caller == old)
        return caller;
    if (caller != nullptr)
        throw std::runtime_error("Can not convert an existing work thread to the main thread");
    // The old object stays: its thread may hold pointers to it.
    if (old != nullptr)
        old->m_id.store(DiscardedMainThread, std::memory_order_relaxed);
    s_mainThread.store(nullptr, std::memory_order_release);
    initThreadSystem();
    return getCurrentThread();
}

Thread* Thread::registerAsZelThread() {
    if (getCurrentThread() != nullptr)
        return getCurrentThread();
    auto* thread = new Thread(InvalidIndex);
    thread->m_savedFloatingPointControl = DenormalizationGuard::enable();
    thread->m_floatingPointControlSaved = true;
    t_currentThread = thread;

    const std::lock_guard lock(s_mutex);
    if (s_promotedThreads == nullptr)
        s_promotedThreads = new HashTable<Thread*, uint32>;
    s_promotedThreads->insert(thread, static_cast<uint32>(s_promotedThreads->size()));
    return thread;
}

void Thread::unregisterAsZelThread() {
    Thread* thread = getCurrentThread();
    if (thread == nullptr)
        return;
    bool registered = false;
    {
        const std::lock_guard lock(s_mutex);
        if (s_promotedThreads != nullptr) {
            const auto position = s_promotedThreads->find(thread);
            registered = position != s_promotedThreads->end();
            if (registered) {
                const uint32 index = position->value;
                s_promotedThreads->erase(position);
                for (auto& entry : *s_promotedThreads)
                    if (entry.value > index)
                        --entry.value;
            }
        }
    }
    if (registered) {
        DenormalizationGuard::disable(thread->m_savedFloatingPointControl);
        // Whoever handed this thread its last job, or completed its last task, may still be waking it up:
        // both hold one of these locks until they have let go of the thread.
        { const std::lock_guard lock(s_sharedMutex); }
        { const std::lock_guard lock(thread->m_pushedLock); }
        delete thread;
    }
    t_currentThread = nullptr;
}

uint32 Thread::getIndex() const {
    const uint32 id = getId();
    if (id != InvalidIndex)
        return id;
    const std::lock_guard lock(s_mutex);
    if (s_promotedThreads == nullptr)
        return InvalidIndex;
    const auto position = s_promotedThreads->find(getCurrentThread());
    return position == s_promotedThreads->end() ? static_cast<uint32>(InvalidIndex)
                                                : static_cast<uint32>(getNumThreads()) + position->value;
}

void Thread::resetOverheadTime() noexcept {
    m_overheadTimer.reset();
    m_idleTimer.reset();
    const std::lock_guard lock(m_timerLock);
    m_activationTimer.reset();
}

pthread_key_t Thread::allocatePerThreadStorage() {
    pthread_key_t key{};
    if (pthread_key_create(&key, nullptr) != 0)
        ZEL_THROW(std::runtime_error, "Could not create thread local storage key.");
    return key;
}

void* Thread::readPerThreadStorage(pthread_key_t key) noexcept {
    return pthread_getspecific(key);
}

void Thread::writePerThreadStorage(pthread_key_t key, void* value) {
    if (pthread_setspecific(key, value) != 0)
        ZEL_THROW(std::runtime_error, "Could not set value in a thread local storage");
}

void Thread::freePerThreadStorage(pthread_key_t key) {
    if (pthread_key_delete(key) != 0)
        ZEL_THROW(std::runtime_error, "Could not free a thread local storage.");
}

// Life of a worker

void Thread::initialize() {
    static_cast<void>(DenormalizationGuard::enable()); // for good: the thread ends with its state
    FloatingPointExceptions::apply();
    t_currentThread = this;
    m_handle = pthread_self();
    m_running.store(1, std::memory_order_release);
    m_startSignal.release([] {});
}

bool Thread::start() {
    zelVerifyNAs(!isRunning(),
                 "!m_running",
                 "[%p]: Thread %d is already started",
                 static_cast<void*>(this),
                 static_cast<int32>(getId()));
    if (!BasicThread::start())
        return false;
    m_startSignal.wait();
    m_startSignal.reset([] {});
    return true;
}

void Thread::stop() {
    if (!isWorker())
        return;
    zelVerifyNAs(isRunning(),
                 "m_running",
                 "[%p] Thread %d is already stopped",
                 static_cast<void*>(this),
                 static_cast<int32>(getId()));
    m_running.store(0, std::memory_order_release);
    m_sleepSignal.release([] {});
    zelVerifyNAs(join(), "join()", "Thread join failed");
}

void Thread::run() {
    initialize();
    while (isRunning()) {
        sleep();
        // Sequentially consistent: see the argument in ThreadWork.cpp.
        while (isRunning() && m_activationCount.load(std::memory_order_seq_cst) >= 1 &&
               !s_shutdown.load(std::memory_order_seq_cst))
            doWork();
        // Cancelled threads without a job to hang on leave by themselves.
        if (forcedShutdown())
            return;
    }
}

Thread* getCurrentThread() noexcept {
    return Thread::getCurrentThread();
}

} // namespace zel
