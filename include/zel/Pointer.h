#pragma once

#include <zel/Export.h>
#include <zel/Object.h>
#include <zel/Path.h>
#include <zelData/Value.h>

namespace zel {

/// A value that refers to an object, directly or by path: of the format `ObjectPointer`. It does not keep the
/// object alive: when the object dies, the value becomes null. Paths lead through it: what follows its name
/// is looked up from the object.
/// @threads as Value
class ZEL_CORE_API Pointer : public zelData::Value, public Object::EventListener {
public:
    explicit Pointer(const Name& name, Object* object = nullptr);
    Pointer(const Name& name, const Path& path);
    ~Pointer() override;

    /// Reads the attribute "bind", a path.
    void configure(TiXmlElement* element) override;
    /// Looks the path up and binds to what it names. Without a path, and while the path leads nowhere,
    /// nothing changes.
    void rebind() override;
    /// An empty path is the pointer itself, or the object if only that one is of the model.
    Object* getResourceImpl(const Path& path, Model* model) override;

    /// Refers to the object from now on; null to none. Forgets the path.
    /// @return true
    bool bind(Object* object) override;
    /// As Value::bind.
    void bind(const Path& path) { Value::bind(path); }
    /// Refers to no object, and forgets the path.
    void unbind();
    /// Null for none.
    [[nodiscard]] Object* getObject() const noexcept { return m_object; }

    /// The object goes: becomes null. Not for callers.
    void destroyCallback(Object* object) override;

    [[nodiscard]] static Model* ClassModel();
    /// Makes a pointer from an element of the tag "Pointer", with the attributes "name" and "bind".
    /// @return a new pointer without owner
    /// @throws std::runtime_error with file and row
    [[nodiscard]] static Pointer* load(TiXmlElement* element, Device* device);

private:
    void refer(Object* object);

    Object* m_object = nullptr; // listened to
};

} // namespace zel
