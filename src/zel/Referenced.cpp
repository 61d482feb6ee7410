#include <zel/Log.h>
#include <zel/Observer.h>
#include <zel/Referenced.h>

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
        if (handler != s_handler)
            delete std::exchange(s_handler, handler);
    }
    [[nodiscard]] static DeleteHandler* get() { return s_handler; }

private:
    constinit static inline DeleteHandler* s_handler = nullptr;
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
        // Without the lock: an observer may take itself, or others, off the list.
        const size_t count = m_observers->size();
        for (size_t i = 0; i < count && i < m_observers->size(); ++i)
            (*m_observers)[i]->objectDeleted(this);
        delete m_observers;
    }
}

void Referenced::allocateObserverVector() const {
    if (m_observers == nullptr)
        m_observers = new Vector<Observer*>;
}

void Referenced::addObserver(Observer* observer) const {
    const std::lock_guard lock(m_observerMutex);
    allocateObserverVector();
    m_observers->push_back(observer);
}

void Referenced::removeObserver(Observer* observer) const {
    const std::lock_guard lock(m_observerMutex);
    if (m_observers != nullptr)
        m_observers->findAndErase(observer);
}

void Referenced::dispose() const {
    if (s_deleteHandler.get() != nullptr)
        deleteUsingDeleteHandler();
    else
        delete this;
}

void Referenced::setDeleteHandler(DeleteHandler* handler) {
    s_deleteHandler.set(handler);
}

DeleteHandler* Referenced::getDeleteHandler() {
    return s_deleteHandler.get();
}

void Referenced::deleteUsingDeleteHandler() const {
    s_deleteHandler.get()->requestDelete(this);
}

void DeleteHandler::requestDelete(const Referenced* object) {
    delete object;
}

void Observer::objectDeleted(void*) {}

} // namespace zel
