#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Name.h>
#include <zel/Path.h>
#include <zel/Referenced.h>
#include <zel/String.h>
#include <zel/Xml.h>

#include <json/forwards.h>

#include <memory>
#include <typeinfo>

namespace zel {

class Component;
class Device;
class Model;

/// A named thing in the tree of components. It has a model, which describes its class, and a context, the
/// component that it lies in. Owned through ref_ptr; a parent owns its children, a child knows its parent.
///
/// An object is told apart from others of its name by its place in the component, and in the process by its
/// id.
/// @threads owner thread; tasks of other threads may read while the tree is not changed
class ZEL_CORE_API Object : public Referenced {
public:
    /// A record of what has happened, for those that keep it. Owned through ref_ptr.
    class ZEL_CORE_API Event : public Referenced {};

    /// Learns of the destruction of an object. Not owned by the objects that it listens to.
    class ZEL_CORE_API EventListener {
    public:
        virtual ~EventListener() = default;
        /// Called ahead of anything else that the object's destructor does. Does nothing by default.
        virtual void destroyCallback(Object* object);
    };

    /// @param model  described class of the object; kept alive by it; may be null
    explicit Object(const Name& name = Name(), Model* model = nullptr);
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;
    ~Object() override;

    /// Reads the object's own attributes and children from an XML element. The base class has none to read;
    /// an override calls its base's first.
    virtual void configure(TiXmlElement* element);
    /// Adds what a model file needs to describe the object. The base class has nothing to add.
    virtual void save(TiXmlElement* element) const;
    /// Adds the present content to a snapshot. The base class has none.
    /// @param directory  where files that belong to the snapshot go
    virtual void snapshot(TiXmlNode* node, const String& directory);
    /// Prints the object and all below it on the standard output stream.
    virtual void printSubtree() const;
    /// Describes the object as JSON: "name", "model", and for components "objects".
    virtual void buildNavigationTree(Json::Value& json) const;
    /// Stores the context; called by the component that takes the object in or lets it go.
    virtual void setContext(Object* context);
    /// Looks up anew what the object refers to by path. The base class refers to nothing. Called by the
    /// component around at each change of its children; see rebindsOnDemand.
    virtual void rebind();
    /// Finds what the path names, seen from this object. An empty path is the object itself.
    /// @param model  the class that the result must be of; null for any
    /// @return null if there is no such object
    virtual Object* getResourceImpl(const Path& path, Model* model);

    [[nodiscard]] static Model* ClassModel();

    [[nodiscard]] const Name& getName() const noexcept { return m_name; }
    /// Refused, as a failed verification, once the object has a context. A child without a context becomes
    /// the last of its new name.
    void setName(const Name& name);
    [[nodiscard]] Model* getModel() const noexcept { return m_model; }
    void setModel(Model* model);
    /// The component that the object lies in; null at the top.
    [[nodiscard]] Object* getContext() const noexcept { return m_context; }
    /// The top of the tree that the object lies in, the object itself if it has no context.
    [[nodiscard]] Object* getRootContext();
    /// Whether the other object lies anywhere above this one.
    [[nodiscard]] bool hasParent(const Object* object) const;
    /// The next object of the same name in the same component.
    [[nodiscard]] Object* getNextSibling() const noexcept { return m_nextSibling; }
    [[nodiscard]] uint32 getId() const noexcept { return m_id; }
    void setId(uint32 id) noexcept { m_id = id; }

    /// The names from below the system root to this object; anonymous objects show as "[anonymous]".
    [[nodiscard]] Path getPath() const { return getPath(nullptr); }
    /// The names from below `stopAt` to this object.
    [[nodiscard]] Path getPath(const Object* stopAt) const;
    /// The name, followed by ":" and the implementation name if there is one.
    [[nodiscard]] String fullName() const;
    /// As getPath, with full names.
    [[nodiscard]] String fullPath() const { return fullPath(nullptr); }
    [[nodiscard]] String fullPath(const Object* stopAt) const;
    /// The implementation name of the object's model; empty without one.
    [[nodiscard]] Name getImplementationName() const;

    [[nodiscard]] Object* getResource(const Path& path, Model* model = nullptr) {
        return getResourceImpl(path, model);
    }
    /// The same from a given object; null gives null.
    [[nodiscard]] static Object* getResource(Object* from, const Path& path, Model* model) {
        return from == nullptr ? nullptr : from->getResourceImpl(path, model);
    }
    /// Asks the parent and then each further ancestor, so that a short name finds the nearest definition
    /// around the object. Null for an empty path or without a context.
    [[nodiscard]] Object* getAutoScopedResource(const Path& path, Model* model = nullptr);

    /// The listener must be removed, or outlive the object. Adding one twice does nothing.
    void addListener(EventListener* listener);
    void removeListener(EventListener* listener);
    [[nodiscard]] bool hasListener(const EventListener* listener) const;

    /// Whether changes of the tree look paths up anew at once; off while a document is being loaded. A switch
    /// of the calling thread.
    static void setEnableRebind(bool enable) noexcept;
    [[nodiscard]] static bool getEnableRebind() noexcept;

    /// Makes a name from a text: without its first character, "." replaced by "_", the first letter lowered.
    /// @throws std::out_of_range for an empty text
    [[nodiscard]] static String generateName(const String& text);

    /// Makes an object from an XML element, by the load function that is registered for its tag. No path is
    /// looked up anew until the outermost element stands.
    /// @return a new object without owner
    /// @throws std::runtime_error with file and row
    [[nodiscard]] static Object* load(TiXmlElement* element, Device* device);

    /// Reads an XML document. Refuses files above 64 MiB and elements nested more than 512 deep.
    /// @throws std::runtime_error naming the file and, for a syntax error, the row
    [[nodiscard]] static std::unique_ptr<TiXmlDocument> openDocument(const String& file);

    /// Tracking of all objects is not compiled in: ends the process and says so.
    [[noreturn]] static void getActiveObjects();

protected:
    /// Tells the listeners that the object goes, and lets go of them. For classes whose listeners are to meet
    /// the object while it is still whole; the destructor does it else.
    void announceDestruction();
    /// For the constructor of a class whose rebind() does nothing until the object has called demandRebind(),
    /// or has a child that does something. A component then passes over those objects, and taking in the
    /// 100,000th costs no more than the first. It says so of one class alone: one that derives from it may
    /// override rebind(), so its objects are called each time, unless its constructor calls this as well.
    /// @param thisClass  typeid of the class whose constructor it is
    void rebindsOnDemand(const std::type_info& thisClass) noexcept { m_demandClass = &thisClass; }
    /// From now on rebind() has something to do.
    void demandRebind() {
        if (m_demandsRebind)
            return;
        m_demandsRebind = true;
        updateDemand();
    }

private:
    friend class Component;  // links siblings
    friend class ObjectList; // the place
    class EventDispatch;

    /// Tells the component around whether its passes have anything to do here.
    void updateDemand();

    uint32 m_id;
    Name m_name;
    Model* m_model = nullptr; // counted, unless the object is its own model
    Object* m_context = nullptr;
    Object* m_nextSibling = nullptr;
    EventDispatch* m_eventDispatch = nullptr; // made for the first listener
    // The component that owns the object and chains it, which need not be the context; null outside of any.
    Component* m_holder = nullptr;
    Object* m_previousSibling = nullptr;
    const std::type_info* m_demandClass = nullptr; // see rebindsOnDemand
    uint32 m_place = 0;                            // among the children of the holder
    bool m_demandsRebind = false;
    bool m_holdsDemanding = false; // a component with such a child
    bool m_isDemanding = false;    // as noted by the holder
};

} // namespace zel
