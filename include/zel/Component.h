#pragma once

#include <zel/Callback.h>
#include <zel/Event.h>
#include <zel/Export.h>
#include <zel/HashTable.h>
#include <zel/Object.h>
#include <zel/ObjectList.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>

#include <iosfwd>
#include <memory>

namespace zel {

class ComponentVisitor;

/// An object with children, which it owns. Children of one name form a chain in the order of insertion; names
/// may be empty, and those chain as well.
///
/// Adding and removing fires events here and in each component above. While rebinding is enabled, both look
/// up anew what the changed objects refer to. Callbacks may change the tree in any way, and let go of the
/// objects that are being added and of the component itself. An event that they have made untrue is not told
/// further up. An exception from a callback or a rebind comes out of the change, which stands.
/// @threads owner thread; tasks of other threads may read while the tree is not changed
/// @cost addObject, removeObject and findObject O(1) in the number of children, the first two on average and
///     but for the callbacks and the children that look something up (see Object::rebindsOnDemand); getObject
///     O(1), some hundred steps once some have been removed
class ZEL_CORE_API Component : public Object {
public:
    using TreeEvent = EventT<Callback2<Component*, Object*>>;

    explicit Component(const Name& name = Name(), Model* model = nullptr, Device* device = nullptr);
    ~Component() override;

    /// Loads each child element in document order; see docs/model-files.md.
    /// @throws std::runtime_error with file and row
    void configure(TiXmlElement* element) override;
    void printSubtree() const override;
    void buildNavigationTree(Json::Value& json) const override;
    /// Calls each child's rebind, unless it is known to do nothing. A request from within starts the pass
    /// again instead of nesting.
    void rebind() override;
    Object* getResourceImpl(const Path& path, Model* model) override;

    /// Takes the object in as last of its name.
    /// @param assignContext  whether the object gets this component as its context
    virtual void addObject(Object* object, bool assignContext = true);
    /// Lets a child go; it is deleted if nobody else owns it. The other children keep their order.
    /// @return whether the object was a child
    virtual bool removeObject(Object* object);
    /// Appends the names of the children that begin with the text, whatever the case of the letters.
    virtual void autoComplete(const String& text, Vector<String>& list);

    /// Lets the index-th child of the name go.
    /// @return whether there was one
    bool removeObject(const Name& name, size_t index);
    /// Lets all children go, the last one first. Each goes, also where a callback throws; the first exception
    /// comes out at the end. What callbacks add meanwhile stays.
    void removeAllObjects();

    /// @param model  the class that the child must be of; null for any. Children without a model fit only
    /// null.
    /// @param index  how many fitting children of the name to pass over
    [[nodiscard]] Object* findObject(const Name& name, Model* model = nullptr, size_t index = 0) const;
    [[nodiscard]] size_t getNumObjects() const noexcept { return m_objects.size(); }
    [[nodiscard]] size_t getNumObjects(const Name& name) const;
    [[nodiscard]] Object* getObject(size_t index) const { return m_objects.get(index); }
    /// Appends the children of the class, all for a null model.
    void getObjects(Vector<Object*>& objects, Model* model = nullptr) const;

    /// Calls the callback on this component and everything below, parents first. Children that callbacks add
    /// to a component under way are not visited, those that they remove neither.
    void traverse(const Callback1<Object*>& callback);
    /// Lets the visitor visit the children; not this component itself.
    void traverse(ComponentVisitor* visitor);

    /// A dump for debugging: one line an object, indented by its depth.
    void printSubtree(std::ostream& stream, int indentation) const;

    /// The device on which buffers of this component live; may be null.
    [[nodiscard]] Device* getDevice() const noexcept { return m_device; }
    void setDevice(Device* device);

    [[nodiscard]] static Model* ClassModel();

    /// Makes a component of the model that the path names and fills it from the model's file.
    /// @return a new component without owner; null, with a warning, if there is no such model
    /// @throws std::runtime_error with file and row for bad content
    [[nodiscard]] static Component* load(const Path& path, const Name& name, Device* device);
    /// The same, named as its model.
    [[nodiscard]] static Component* load(const Path& path, Device* device);
    [[nodiscard]] static Component* load(const char* path, Device* device);
    /// The same from a model file, which holds a model of the file's name.
    [[nodiscard]] static Component* loadFile(const String& file, Device* device);
    /// Makes a component from an element of the tag "Component", with its children.
    [[nodiscard]] static Component* load(TiXmlElement* element, Device* device);

    /// Fills the component from its model's file, beginning with the models that this one derives from.
    /// @throws std::runtime_error with file and row
    void configure(Model* model);

    /// Fires when an object enters this component or any below; the component is the object's parent.
    TreeEvent addObjectEvent;
    /// Fires when an object leaves; it is still alive.
    TreeEvent removeObjectEvent;

protected:
    /// Whether the rebind under way on this thread is that of a subtree that has left its component: paths
    /// out of it lead nowhere, and that is no news.
    [[nodiscard]] static bool isDetaching() noexcept;

private:
    friend class Device; // owns copies of buffers, which do not own it
    friend class Object; // renames, tells of its demand

    /// The children of one name, linked through Object::m_nextSibling.
    struct Chain {
        Object* head = nullptr;
        Object* tail = nullptr;
    };

    [[nodiscard]] Chain* findChain(const Name& name) const;
    void link(Object* object);
    void unlink(Object* object);
    void rename(Object* object, Name name);
    [[nodiscard]] bool liesWithin(const Object* object) const;
    void trigger(TreeEvent Component::*event, Object* object);
    void remove(Object* object);
    void detach(Object* object);
    void noteDemand(Object* object, bool demands);
    /// After a change of the children.
    void updateHolding();
    void configureChild(TiXmlElement* child);
    void takeDevice(Device* device, bool counted);

    Device* m_device = nullptr;
    bool m_countsDevice = true;
    ObjectList m_objects;
    std::unique_ptr<HashTable<Name, Chain>>
        m_objectTable; // made for the first child: most components are leaves
    uint64 m_rebindDepth = 0;
};

/// The root of the system's object tree, loaded from "Root.zelComponent" at first use. Null, after an error
/// message, if that fails.
/// @throws std::runtime_error as every message of level Error does by default
[[nodiscard]] ZEL_CORE_API Component* root();

} // namespace zel
