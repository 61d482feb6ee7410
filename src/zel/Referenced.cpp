#include <zel/Observer.h>
#include <zel/Referenced.h>

#include <memory>
#include <typeinfo>

namespace zel {

namespace {

/// Owns the installed handler until the process ends.
class DeleteHandlerPointer {
public:
    ~DeleteHandlerPointer() { delete m_handler; }
    void set(DeleteHandler* handler) {
        if (handler == m_handler)
            return;
        delete m_handler;
        m_handler = handler;
    }
    [[nodiscard]] DeleteHandler* get() const { return m_handler; }

private:
    DeleteHandler* m_handler = nullptr;
};

DeleteHandlerPointer s_deleteHandler;

} // namespace

Referenced::~Referenced() {
    if (m_observers != nullptr) {
        const size_t count = m_observers->size();
        for (size_t i = 0; i < count; ++i)
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
