#include "ShutdownStep.h"

#include <zel/InitCallback.h>
#include <zel/Logger.h>
#include <zel/Notify.h>
#include <zel/SingletonManager.h>
#include <zel/Thread.h>
#include <zel/Timer.h>
#include <zelCore/zelCore.h>
#include <zelIO/RemoteCommandServer.h>

#include <pthread.h>

#include <atomic>
#include <iostream>
#include <utility>

namespace {

// Written by the owner thread in init and shutdown. Worker threads read the flag when they log; nothing is
// published through it, so relaxed order is enough for both.
constinit std::atomic<bool> s_zel_initialized{false};
constinit std::atomic<zel::uint64> startTick{0};

// Owner thread.
constinit bool s_failureTold = false;

} // namespace

void zel::detail::beginShutdown() noexcept {
    s_failureTold = false;
}

void zel::detail::reportShutdownFailure(const char* step, const char* what) noexcept {
    if (!std::exchange(s_failureTold, true))
        std::cerr << "zelCore: shutdown goes on after an exception in " << step << ": " << what << std::endl;
}

namespace {

// A child process has one thread, whatever the parent had, and cannot know what the others held.
size_t s_numThreadsAtFork = 0; // written by the forking thread

void prepareFork() {
    s_numThreadsAtFork = zel::getNumThreadsIncludingRegistered();
}

void enterChild() {
    if (s_numThreadsAtFork > 1)
        s_zel_initialized.store(false, std::memory_order_relaxed);
}

} // namespace

namespace zelCore {

void init() {
    if (!isShutdown())
        return;
    // What the environment said of the output, to a logger that an earlier message made, holds for this
    // thread.
    const bool known = zel::Thread::getCurrentThread() != nullptr;
    const zel::Notify::NotifyLevel level = zel::Notify::getThreadData().notifyLevel;
    static const int forkHandlers = pthread_atfork(prepareFork, nullptr, enterChild);
    static_cast<void>(forkHandlers); // without them a child that shuts down may wait for ever, and no more
    zel::Thread::initThreadSystem();
    if (!known)
        zel::Notify::getThreadData().notifyLevel = level;
    zel::InitCallback::triggerInit();
    zel::resetStartTick();
    s_zel_initialized.store(true, std::memory_order_relaxed);

    zel::Logger::beginSession();
    zel::Notify* const notify = zel::Notify::instance();
    notify->getThreadStringStream() << notify->setDebugStrings(zel::Notify::Debug, "", -1, "")
                                    << notify->push(15) << "zelCore Initialized." << std::endl
                                    << notify->end();
}

void shutdown() {
    if (isShutdown())
        return;
    s_zel_initialized.store(false, std::memory_order_relaxed);
    zel::detail::beginShutdown();
    // Its thread is one of the system's. In later sessions the manager, whose turn is last, does nothing.
    if (auto* server = zelIO::RemoteCommandServerSingleton::find())
        zel::detail::attemptShutdown("RemoteCommandServer::stop", [server] {
            server->_shutdown();
            zel::SingletonManager* const manager = zel::SingletonManager::instance();
            if (manager != nullptr && !manager->unregisterSingleton(server))
                delete server;
        });
    zel::detail::attemptShutdown("Thread::shutdown", [] { zel::Thread::shutdown(); });
    zel::ShutdownCallback::triggerShutdown();
    if (zel::SingletonManager* manager = zel::SingletonManager::instance())
        manager->shutdown();
}

bool isShutdown() {
    return !s_zel_initialized.load(std::memory_order_relaxed);
}

} // namespace zelCore

namespace zel {

uint64 getStartTick() {
    return startTick.load(std::memory_order_relaxed);
}

uint32 resetStartTick() {
    const uint64 now = Timer::now();
    startTick.store(now, std::memory_order_relaxed);
    return static_cast<uint32>(now);
}

} // namespace zel
