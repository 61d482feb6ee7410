#include <zel/InitCallback.h>
#include <zel/Logger.h>
#include <zel/Notify.h>
#include <zel/SingletonManager.h>
#include <zel/Thread.h>
#include <zel/Timer.h>
#include <zelCore/zelCore.h>

#include <atomic>

namespace {

// Written by the owner thread in init and shutdown. Worker threads read the flag when they log; nothing is
// published through it, so relaxed order is enough for both.
constinit std::atomic<bool> s_zel_initialized{false};
constinit std::atomic<zel::uint64> startTick{0};

} // namespace

namespace zelCore {

void init() {
    if (!isShutdown())
        return;
    zel::Thread::initThreadSystem();
    zel::InitCallback::triggerInit();
    zel::resetStartTick();
    s_zel_initialized.store(true, std::memory_order_relaxed);

    zel::Logger::instance();
    zel::Notify* const notify = zel::Notify::instance();
    notify->getThreadStringStream() << notify->setDebugStrings(zel::Notify::Debug, "", -1, "")
                                    << notify->push(15) << "zelCore Initialized." << std::endl
                                    << notify->end();
}

void shutdown() {
    if (isShutdown())
        return;
    s_zel_initialized.store(false, std::memory_order_relaxed);
    zel::Thread::shutdown();
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
