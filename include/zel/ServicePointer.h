#pragma once

#include <zel/LockRank.h>

#include <atomic>
#include <mutex>

namespace zel {

namespace detail {
/// Under which services are made: recursive, since a constructor may use another service.
using ServicesMutex = RankedMutex<LockRank::Services, std::recursive_mutex>;
[[nodiscard]] ZEL_CORE_API ServicesMutex& getServicesMutex();
} // namespace detail

/// Points at a service that is made at first use, by whoever asks first, and once even if two threads do. It
/// owns nothing, and no static destructor takes it from those that still look.
/// @threads any thread
template <typename Service>
class ServicePointer {
public:
    constexpr ServicePointer() noexcept = default;

    /// The service, made by `make` if there is none. What the constructor locks must rank behind
    /// LockRank::Services; one that needs the type system's mutex is made by a caller who holds it.
    template <typename Make>
    [[nodiscard]] Service* get(Make&& make) {
        if (Service* service = find())
            return service;
        const std::lock_guard lock(detail::getServicesMutex());
        if (find() == nullptr) {
            Service* const service = make();
            // Release: pairs with the acquire of find, so that who sees the service sees it complete.
            m_service.store(service, std::memory_order_release);
        }
        return find();
    }

    /// The service if there is one, else null.
    [[nodiscard]] Service* find() const noexcept { return m_service.load(std::memory_order_acquire); }

    /// Forgets this service; one that was made after it stays.
    void forget(Service* service) noexcept {
        m_service.compare_exchange_strong(service, nullptr, std::memory_order_acq_rel);
    }

private:
    std::atomic<Service*> m_service{nullptr}; // written under the mutex, or at shutdown
};

} // namespace zel
