#include <zel/Log.h>
#include <zel/Observer.h>
#include <zel/Referenced.h>

#include <algorithm>
#include <typeinfo>
#include <utility>

namespace zel {

namespace {

/// Owns the installed handler until the process ends. The pointer is apart from it, since static objects that
/// are destroyed later still look at it.
class DeleteHandlerPointer {
public:
    ~DeleteHandlerPointer() { set(nullptr); }
    static void set(DeleteHandler* handler) {
        if (handler != get())
            delete s_handler.exchange(handler, std::memory_order_acq_rel);
    }
    // Acquire: pairs with the exchange, so that a thread that sees the handler sees it complete.
    [[nodiscard]] static DeleteHandler* get() { return s_handler.load(std::memory_order_acquire); }

private:
    constinit static inline std::atomic<DeleteHandler*> s_handler{nullptr};
};

DeleteHandlerPointer s_deleteHandler;

} // namespace

Referenced::~Referenced() {
    if (const int count = referenceCount(); count > 0)
        // The type is that of the pointer, whichever class is being destroyed.
        ZEL_LOG_ERROR("Deleting still referenced object " << static_cast<const void*>(this) << " of type '"
                                                          << typeid(this).name() << "'" << std::endl
                                                          << "         the final reference count was "
                                                          << count << ", memory corruption possible.");
    if (m_observers != nullptr) {
        // Without the lock: an observer may take itself, or others, off the list. The null at the end says
        // that those places are nulled rather than closed from now on.
        const size_t count = m_observers->size();
        m_observers->push_back(nullptr);
        for (size_t i = 0; i < count; ++i)
            if (Observer* observer = (*m_observers)[i])
                observer->objectDeleted(this);
        delete m_observers;
    }
}

bool Referenced::isNotifying() const {
    return m_observers != nullptr && !m_observers->empty() && m_observers->back() == nullptr;
}

void Referenced::allocateObserverVector() const {
    if (m_observers == nullptr)
        m_observers = new Vector<Observer*>;
}

void Referenced::addObserver(Observer* observer) const {
    const std::lock_guard lock(m_observerMutex);
    allocateObserverVector();
    m_observers->push_back(observer);
    if (m_observers->size() > 1 && (*m_observers)[m_observers->size() - 2] == nullptr)
        std::swap(m_observers->back(),
                  (*m_observers)[m_observers->size() - 2]); // the end of a notification stays behind
}

void Referenced::removeObserver(Observer* observer) const {
    const std::lock_guard lock(m_observerMutex);
    if (m_observers == nullptr)
        return;
    if (!isNotifying()) {
        m_observers->findAndErase(observer);
        return;
    }
    if (const auto place = std::find(m_observers->begin(), m_observers->end(), observer);
        place != m_observers->end())
        *place = nullptr;
}

// What a handler throws ends the process: whoever lets go of an object can not know what became of it.
void Referenced::dispose() const noexcept {
    deleteUsingDeleteHandler();
}

void Referenced::setDeleteHandler(DeleteHandler* handler) {
    s_deleteHandler.set(handler);
}

DeleteHandler* Referenced::getDeleteHandler() {
    return s_deleteHandler.get();
}

void Referenced::deleteUsingDeleteHandler() const {
    if (DeleteHandler* const handler = s_deleteHandler.get())
        handler->requestDelete(this);
    else
        delete this;
}

void DeleteHandler::requestDelete(const Referenced* object) {
    delete object;
}

void Observer::objectDeleted(void*) {}

} // namespace zel
