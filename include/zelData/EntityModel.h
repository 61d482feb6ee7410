#pragma once

#include <zel/Callback.h>
#include <zel/Event.h>
#include <zel/Export.h>
#include <zel/HashTable.h>
#include <zel/Model.h>
#include <zel/Name.h>
#include <zel/Path.h>
#include <zel/Vector.h>
#include <zel/Xml.h>
#include <zel/ref_ptr.h>
#include <zelData/Attribute.h>
#include <zelData/EntityPtr.h>

#include <atomic>
#include <iosfwd>

namespace zel {
class Device;
} // namespace zel

namespace zelData {

class EntityData;
class EntityStorage;
class Format;

/// Describes one entity, a record kept in columns: its attributes, its base entity, and the entities derived
/// from it. Models come from XML elements of the tag "Entity.Model", in files of the extension "zelEntity";
/// an entity that the program knows has a class of its own, derived from this one, see docs/entities.md.
///
/// Lives in the model tree until the library's shutdown. All entities derive from the root model, "Entity".
/// @threads owner thread: models are built at start-up or during a load; concurrent reads from then on
class ZEL_CORE_API EntityModel : public zel::Model {
public:
    class Loader;
    template <typename EntityClass>
    class LoaderT;

    /// A buffer that each storage of the entity has beside its columns.
    struct SharedBuffer {
        zel::Name name;
        zel::ref_ptr<const Format> format;
    };
    /// A storage that each storage of the entity has as a child.
    struct SharedStorage {
        zel::Name name;
        zel::Path entity;
    };

    explicit EntityModel(const zel::Name& name);
    ~EntityModel() override;

    using Component::configure;
    /// Reads "useInstanceTable" and "hasConstructor", where present, and the attributes, in document order.
    /// @throws std::runtime_error with file and row
    void configure(zel::TiXmlElement* element) override;

    /// Lets go of what a generated class holds in static members; called once when the model tree ends.
    virtual void shutdownCleanup();
    /// Makes the view of a storage.
    /// @return a new view without owner
    [[nodiscard]] virtual EntityData* createData(EntityStorage* storage);
    /// Adds the attributes that only code knows and fills a generated class's accessors. The base class has
    /// none.
    virtual void initAttributeAccessors();
    /// Called for each new instance if hasConstructor() is set. The base class leaves it to the base entity.
    virtual void construct(EntityPtr instance);

    // What the model is made of

    /// The entity that this one derives from; null for the root and for a model without base.
    [[nodiscard]] EntityModel* getBaseEntity() const noexcept { return m_base; }
    /// Derives this entity from another one. Refused, as a failed verification, if it has a base already.
    void setBaseEntity(EntityModel* base);
    /// Enters a derived model and gives it, and those derived from it, this model's attributes ahead of its
    /// own. Called by setBaseEntity.
    void addChild(EntityModel* child);
    void removeChild(EntityModel* child);
    [[nodiscard]] const zel::Vector<EntityModel*>& getChildren() const noexcept { return m_children; }

    /// Adds the attribute to this entity and to all that derive from it; each existing storage gets a buffer
    /// for it. Refused, as a failed verification, for a name that is in use and for an attribute that belongs
    /// to an entity.
    void addAttribute(Attribute* attribute);
    /// Null if there is none of the name.
    [[nodiscard]] Attribute* getAttribute(const zel::Name& name) const;
    /// All attributes by rising id; those of the base entity come first.
    [[nodiscard]] const zel::Vector<zel::ref_ptr<Attribute>>& getAttributes() const noexcept {
        return m_attributes;
    }

    void addSharedBuffer(const zel::Name& name, const Format* format);
    void addSharedStorage(const zel::Name& name, const zel::Path& entity);
    [[nodiscard]] const zel::Vector<SharedBuffer>& getSharedBuffers() const noexcept {
        return m_sharedBuffers;
    }
    [[nodiscard]] const zel::Vector<SharedStorage>& getSharedStorages() const noexcept {
        return m_sharedStorages;
    }

    /// Whether the storages that are made from now on have handles for their instances.
    [[nodiscard]] bool useInstanceTable() const noexcept { return m_useInstanceTable; }
    void setUseInstanceTable(bool use) noexcept { m_useInstanceTable = use; }
    /// Whether construct() is called for new instances.
    [[nodiscard]] bool hasConstructor() const noexcept { return m_hasConstructor; }
    void setHasConstructor(bool has) noexcept { m_hasConstructor = has; }

    /// The storages of this very model that live now.
    /// @threads external lock: the type-system mutex
    [[nodiscard]] const zel::Vector<EntityStorage*>& getStorages() const noexcept { return m_storages; }

    // Size

    /// The bytes of one element of each attribute that has a column, in the attributes' formats. A container
    /// attribute ends the process: its size is not known.
    [[nodiscard]] zel::uint64 getNumBytes() const;
    /// The same in the formats that the device prefers.
    [[nodiscard]] zel::uint64 getNumBytes(zel::Device* device) const;

    // Instances

    /// The storage for instances that are created without naming one: each thread of the system has its own,
    /// and all other threads share one. Lives until the library's shutdown.
    /// @threads any thread; the storage itself needs an external lock where threads share it
    [[nodiscard]] EntityStorage* getDefaultStorage();
    /// Makes an instance in the default storage.
    /// @threads any thread: one after the other where threads share the storage, with its callbacks; for what
    ///     else they do to it, see getDefaultStorage
    EntityPtr createInstanceWrapper();

    /// Whether each call of getDefaultStorage gives a new storage for entities of the model "Referenced".
    /// @threads any thread
    static void setThreadSafe(bool threadSafe) noexcept;
    [[nodiscard]] static bool isThreadSafe() noexcept;

    /// Writes the names of the model, its base, the entities derived from it and its attributes.
    void print(std::ostream& stream) const;
    /// The same on the standard output stream.
    void print() const;

    // Finding models

    /// The base of all entities, with the name "Entity".
    /// @threads any thread
    [[nodiscard]] static EntityModel* getRootModel();
    /// The attribute of the root model whose column holds the handles of the instances; null before the root
    /// model is made.
    /// @threads any thread
    [[nodiscard]] static const Attribute* getInstanceAttribute() noexcept {
        return instanceAttribute.load(std::memory_order_acquire); // pairs with getRootModel
    }
    static std::atomic<const Attribute*> instanceAttribute;

    /// Makes the model that an element of the tag "Entity.Model" describes, or finds the one that its
    /// attribute "instance" names. A model at the top of its document is entered in the model tree.
    /// @throws std::runtime_error with file and row
    [[nodiscard]] static EntityModel* load(zel::TiXmlElement* element, zel::Device* device);
    /// Finds the file of an entity and the C++ name of the class that a program has for it: "zel::A::B" for
    /// "A.B".
    /// @return whether there is such a file
    [[nodiscard]] static bool
    findEntityPath(const zel::Path& path, zel::String& resultPath, zel::String& implementationName);

    [[nodiscard]] static zel::Model* ClassModel();

    /// Fires when a storage of this very model has been made, with the storage.
    zel::EventT<zel::Callback1<EntityStorage*>> storageCreationEvent;

private:
    friend class EntityStorage;           // enters itself in m_storages
    friend class DefaultStorageSingleton; // takes m_defaultStorage back at shutdown

    template <typename Visit>
    void forEachStorage(const Visit& visit);
    void propagateNewAttribute(Attribute* attribute);
    [[nodiscard]] zel::uint32 getNextAttributeId() const;
    void takeBaseAttributes(const zel::Vector<zel::ref_ptr<Attribute>>& attributes, zel::uint32 numIds);
    void configureChild(zel::TiXmlElement* child);
    [[nodiscard]] static EntityModel* make(zel::TiXmlElement* element, const zel::Path& space);
    class FileLoader;

    zel::Vector<EntityModel*> m_children;
    zel::Vector<zel::ref_ptr<Attribute>> m_attributes;
    zel::HashTable<zel::Name, Attribute*> m_attributeTable;
    zel::Vector<SharedBuffer> m_sharedBuffers;
    zel::Vector<SharedStorage> m_sharedStorages;
    zel::ref_ptr<EntityStorage> m_defaultStorage; // guarded by the type-system mutex
    bool m_useInstanceTable = true;
    bool m_hasConstructor = false;
    EntityModel* m_base = nullptr;          // kept alive as the model's source
    zel::Vector<EntityStorage*> m_storages; // guarded by the type-system mutex
};

/// Knows how to make the model of one entity: a class of the program takes the place of EntityModel when the
/// entity's file is loaded. A static object: it enters itself in a table by the entity's path, and a path may
/// be entered once.
class ZEL_CORE_API EntityModel::Loader {
public:
    /// @param path  the entity's path, such as "Robots.Arm"; not copied
    explicit Loader(const char* path);
    Loader(const Loader&) = delete;
    Loader& operator=(const Loader&) = delete;
    virtual ~Loader();

    /// @return a new model without owner, base and attributes
    [[nodiscard]] virtual EntityModel* load() = 0;

    [[nodiscard]] const char* getPath() const noexcept { return m_path; }

private:
    const char* m_path;
};

/// The loader of a generated model class, which is constructed from the entity's name.
template <typename EntityClass>
class EntityModel::LoaderT : public EntityModel::Loader {
public:
    using Loader::Loader;
    [[nodiscard]] EntityModel* load() override { return new EntityClass(zel::Path(getPath()).back()); }
};

/// Finds an entity's model in the model tree, or in a file of the search paths. Whatever is wrong with the
/// file is logged.
/// @return null, with the warning "Could not load entity 'PATH'", if there is none
/// @threads any thread
[[nodiscard]] ZEL_CORE_API EntityModel* getEntity(const zel::Path& path);
/// Whether getEntity would find a model.
[[nodiscard]] ZEL_CORE_API bool hasEntity(const zel::Path& path);

} // namespace zelData
