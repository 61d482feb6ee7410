#pragma once

#include <zel/Event.h>
#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/InvalidIndex.h>
#include <zel/Object.h>
#include <zel/Path.h>
#include <zel/ref_ptr.h>
#include <zelData/AccessMode.h>

namespace zelData {
class Format;
class Type;
} // namespace zelData

namespace zel {

class Task;

/// A task's named connection to data: to a value, a buffer, a storage or another object, directly or by a
/// path that is looked up anew whenever the tree changes. It checks that the data fit what the task asks for,
/// and tells those who listen when it is bound, unbound, and when the content changes.
///
/// Owned through ref_ptr; a task owns its parameters. Values, buffers and parameters that it is bound to live
/// at least as long as the binding; of other objects, and of values that are members of those, the parameter
/// learns when they go, and is unbound then. A pointer parameter keeps nothing alive.
///
/// Two flags tell the task which parameters have work to do around a run: update() is called ahead of a run
/// if needsUpdate(), and commit() after it if needsCommit(). Most parameters need neither.
/// @threads owner thread, between runs; kernels read while nothing is changed
/// @cost bind and rebind: the look-up, and the callbacks
class ZEL_CORE_API Parameter : public Object, public Object::EventListener {
public:
    /// What a parameter is bound to.
    enum class MetaType : uint32 {
        Scalar = 0,
        Array = 1,
        Pointer = 2,
        Unresolved = 3,
        EntityData = 4,
        EntityPtr = 5,
        EntityInstance = 6,
    };

    /// @param format  what the task asks for; null for any
    /// @param accessMode  of zelData::AccessMode
    Parameter(
        const Name& name, Model* model, MetaType metaType, const zelData::Format* format, uint32 accessMode);
    ~Parameter() override;

    /// Reads the attributes "required", a boolean, and "bind", a path.
    /// @throws std::runtime_error with file and row
    void configure(TiXmlElement* element) override;
    /// Adds "binding", the full path of what the parameter is bound to, empty for nothing.
    void buildNavigationTree(Json::Value& json) const override;
    /// Looks the path up, if there is one, and binds to what it finds, which may be nothing. Then lets a
    /// binding that the parameter made itself look its own paths up. Does nothing while rebinding is
    /// disabled.
    void rebind() override;
    /// A parameter that leaves its task's component leaves the task.
    void setContext(Object* context) override;

    /// What the data mean; null while that is open.
    [[nodiscard]] virtual zelData::Type* getType() = 0;
    [[nodiscard]] virtual const zelData::Type* getType() const = 0;
    /// Whether there are data to work on.
    [[nodiscard]] virtual bool isValid() const = 0;
    /// Whether the jobs of the task append to what the parameter is bound to.
    [[nodiscard]] virtual bool hasGlobalResult() const;
    /// Called by the task ahead of each run, if needsUpdate().
    virtual void update();
    /// Called by the task after each run, if needsCommit().
    virtual void commit();

protected:
    /// Installs what the parameter is bound to; null ends the binding. Fails for an object that does not fit.
    virtual void _bind(Object* object) = 0; // NOLINT(readability-identifier-naming)

public:
    /// Called by the task when a run is cut into so many jobs, to sort what they append.
    virtual void prepareGlobalResultSorting(size_t numJobs);

    /// Binds to the object, or, if it is a pointer of some kind, to what it points at. The path stays.
    /// Binding to the present object does nothing. Null ends the binding.
    /// @throws std::runtime_error if the other one follows this one, or is this one
    void bind(Object* object);
    /// Stores the path and, while rebinding is enabled, looks it up at once.
    void bind(const Path& path);
    /// Forgets the path and binds to the object.
    void set(Object* object);
    /// Forgets the path and ends the binding.
    void unbind();

    [[nodiscard]] Object* getBinding() const noexcept { return m_binding; }
    [[nodiscard]] const Path& getBindPath() const noexcept { return m_bindPath; }
    [[nodiscard]] const zelData::Format* getFormat() const noexcept { return m_format.get(); }
    [[nodiscard]] MetaType getMetaType() const noexcept { return m_metaType; }
    /// "SCALAR", "Array", "POINTER", "UNRESOLVED", "ENTITY_DATA", "ENTITY_PTR", "ENTITY_INSTANCE"; "UNKNOWN"
    /// for another number.
    [[nodiscard]] const char* getMetaTypeName() const noexcept { return getMetaTypeName(m_metaType); }
    [[nodiscard]] static const char* getMetaTypeName(MetaType metaType) noexcept;
    [[nodiscard]] uint32 getAccessMode() const noexcept { return m_accessMode; }
    [[nodiscard]] bool isWritten() const noexcept { return (m_accessMode & zelData::AccessMode::WRITE) != 0; }
    /// Whether the task can not run while the parameter is not valid; true by default.
    [[nodiscard]] bool isRequired() const noexcept { return m_required; }
    void setRequired(bool required) noexcept { m_required = required; }

    /// Called by the task that takes the parameter in; null when it lets it go. The task is not kept alive.
    void setTask(Task* task, size_t index = InvalidIndex) noexcept {
        m_task = task;
        m_index = index;
    }
    /// The task that the parameter belongs to, also as a part of another parameter; may be null.
    [[nodiscard]] Task* getTask() const noexcept;
    /// The position among the task's parameters; InvalidIndex without a task.
    [[nodiscard]] size_t getIndex() const noexcept { return m_index; }

    /// Whether the task is to call update() ahead of a run.
    [[nodiscard]] bool needsUpdate() const noexcept { return m_needsUpdate; }
    /// Whether the task is to call commit() after a run.
    [[nodiscard]] bool needsCommit() const noexcept { return m_needsCommit; }

    /// The bound object goes: unbinds. Not for callers.
    void destroyCallback(Object* object) override;

    /// What the object stands for: follows pointers and parameters that point at others to their end.
    /// @return null for a pointer at nothing, and for pointers that lead in a circle
    [[nodiscard]] static Object* followPointers(Object* object);

    [[nodiscard]] static Model* ClassModel();

    /// Fires when the parameter has been bound.
    Event1<Parameter*> bindEvent;
    /// Fires ahead of the end of a binding.
    Event1<Parameter*> unbindEvent;
    /// Fires when the content has changed.
    Event1<Parameter*> updateEvent;

protected:
    void setFormat(const zelData::Format* format);
    void setMetaType(MetaType metaType) noexcept { m_metaType = metaType; }
    void setNeedsUpdate(bool needs) noexcept { m_needsUpdate = needs; }
    void setNeedsCommit(bool needs) noexcept { m_needsCommit = needs; }
    void setAccessMode(uint32 accessMode) noexcept { m_accessMode = static_cast<uint8>(accessMode); }
    /// The name of a format's type, and of the format itself, for messages; empty for null.
    [[nodiscard]] static String typeText(const zelData::Format* format);
    [[nodiscard]] static String formatText(const zelData::Format* format);
    /// The attribute "name" of an element that describes a parameter.
    /// @throws std::runtime_error with file and row
    [[nodiscard]] static Name loadName(TiXmlElement* element);
    /// The attribute "mode"; READ without one.
    [[nodiscard]] static uint32 loadAccessMode(TiXmlElement* element);

private:
    void verifyNoLoop(Object* object) const;
    void hold(Object* object);
    void letGo() noexcept;

    ref_ptr<const zelData::Format> m_format;
    Path m_bindPath;
    Object* m_binding = nullptr; // counted if m_ownsBinding, else listened to
    Task* m_task = nullptr;
    size_t m_index = InvalidIndex;
    MetaType m_metaType;
    uint8 m_accessMode;
    bool m_required = true;
    bool m_needsUpdate = false;
    bool m_needsCommit = false;
    bool m_ownsBinding = false;
};

} // namespace zel
