#pragma once

#include <zel/Export.h>
#include <zel/String.h>
#include <zel/ref_ptr.h>
#include <zelStream/ClassInformation.h>
#include <zelStream/Serializable.h>
#include <zelStream/StorageManager.h>

#include <type_traits>

namespace zelStream {

/// Makes the objects of a class whose name stands in an archive. Agents live as long as they are registered
/// with the StorageManager, which does not own them: normally as statics of the class's library.
/// @threads any thread
class ZEL_CORE_API StorageAgent {
public:
    /// @param className  as it stands in archives: with its namespaces, "fleet::Wheel"
    explicit StorageAgent(const zel::String& className);
    StorageAgent(const StorageAgent&) = delete;
    StorageAgent& operator=(const StorageAgent&) = delete;
    virtual ~StorageAgent();

    /// An empty object of the class, with count 0: the caller adopts it.
    [[nodiscard]] virtual Serializable* create() const = 0;
    /// The same for classes that ask the archive when they are made; create() by default.
    [[nodiscard]] virtual Serializable* create(InputArchive& archive) const;

    [[nodiscard]] const zel::String& getClassName() const noexcept { return m_className; }

    /// StorageManager::find.
    [[nodiscard]] static const StorageAgent* lookup(const zel::String& name, const InputArchive* archive);

    /// Cuts a compiler's pretty function text to the name of its class: drops what follows the last "::", and
    /// then everything up to the last blank. Names that hold blanks of their own, as those of templates do,
    /// go wrong.
    [[nodiscard]] static zel::String stripClassName(const zel::String& prettyName);

private:
    zel::String m_className;
};

/// The agent of a class that is made by a constructor without arguments, or from an InputArchive&, where it
/// has such a one.
template <typename T>
class SerializableStorageAgent : public StorageAgent {
public:
    using StorageAgent::StorageAgent;

    [[nodiscard]] Serializable* create() const override {
        if constexpr (std::is_default_constructible_v<T>)
            return mark(new T);
        else
            return nullptr;
    }
    [[nodiscard]] Serializable* create(InputArchive& archive) const override {
        return createInstance(archive);
    }
    /// An object for the archive, which gives it its uuid.
    [[nodiscard]] T* createInstance(InputArchive& archive) const {
        if constexpr (std::is_constructible_v<T, InputArchive&>) {
            return mark(new T(archive));
        } else {
            {
                const detail::NextWithoutUuid next;
                T* const object = mark(new T);
                if (next.getObject() == nullptr || next.getObject() == object)
                    return object;
                // A part that is made ahead of the object's own base had it.
                const zel::ref_ptr<Serializable> dropped(object);
            }
            return mark(new T);
        }
    }

private:
    static T* mark(T* object) noexcept {
        object->setDynamicallyAllocated(true);
        return object;
    }
};

} // namespace zelStream

/// In the body of a class that archives store: declares its agent. The class needs a constructor without
/// arguments, or one that takes an InputArchive&.
#define ZEL_SERIALIZABLE(Class)                                                                              \
public:                                                                                                      \
    [[nodiscard]] static const ::zelStream::StorageAgent& storageAgent();                                    \
    [[nodiscard]] const ::zelStream::StorageAgent* getStorageAgent() const override {                        \
        return &Class::storageAgent();                                                                       \
    }                                                                                                        \
                                                                                                             \
private:                                                                                                     \
    friend class ::zelStream::SerializableStorageAgent<Class>;

/// In a source file, in the namespace of the class: makes the agent, named by the class with its namespaces,
/// and registers it for as long as the library that holds it is loaded.
#define ZEL_REGISTER_SERIALIZABLE(Class)                                                                     \
    const ::zelStream::StorageAgent& Class::storageAgent() {                                                 \
        static const ::zelStream::SerializableStorageAgent<Class> agent(                                     \
            ::zelStream::StorageAgent::stripClassName(                                                       \
                ::zelStream::ClassInformation::cleanupAnonymousNamespace(__PRETTY_FUNCTION__)));             \
        return agent;                                                                                        \
    }                                                                                                        \
    namespace {                                                                                              \
    const ::zelStream::StorageRegistration registrationOf##Class{Class::storageAgent()};                     \
    }
