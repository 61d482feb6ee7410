#pragma once

#include <zel/Event.h>
#include <zel/Export.h>
#include <zel/HashSet.h>
#include <zel/Object.h>
#include <zel/Path.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelData/Transform.h>

#include <iosfwd>
#include <string_view>

namespace zelData {

class Format;
class FunctionValue;
class Type;

/// One named, typed, observable datum of the object tree. It is in one of three states: without a format, the
/// owner of its element, or bound to another value. A value that is bound to one of the same format reads
/// that one's element and costs nothing per update but its own callbacks; one of another format converts the
/// content at each update.
///
/// Owned through ref_ptr. A bound value keeps its binding alive, and not the other way round. A value that
/// loses its binding, in whatever way, holds a default-constructed element, unless it has one of its own from
/// conversion.
///
/// Callbacks and listeners may change any binding, and remove any value, the running one included. Each is
/// called, and all that is bound follows, also where one of them throws; the first exception comes out of the
/// change at the end.
/// @threads owner thread; tasks of other threads may read while nothing is changed
/// @cost set: the callbacks, listeners and conversions of all dependents, direct and indirect, and nothing
///     for those that have none
class ZEL_CORE_API Value : public zel::Object {
public:
    class EventListener;

    /// What happens to a value, as a record.
    class ZEL_CORE_API Event : public zel::Object::Event {
    public:
        explicit Event(Value* value) : m_value(value) {}
        [[nodiscard]] Value* getValue() const noexcept { return m_value; }

    private:
        Value* m_value;
    };
    class ZEL_CORE_API DestroyEvent : public Event {
    public:
        using Event::Event;
    };
    class ZEL_CORE_API UpdateEvent : public Event {
    public:
        using Event::Event;
    };
    class ZEL_CORE_API BindEvent : public Event {
    public:
        BindEvent(Value* value, Value* newBinding, Value* oldBinding)
            : Event(value), m_newBinding(newBinding), m_oldBinding(oldBinding) {}
        /// Null if the value was unbound.
        [[nodiscard]] Value* getNewBinding() const noexcept { return m_newBinding; }
        [[nodiscard]] Value* getOldBinding() const noexcept { return m_oldBinding; }

    private:
        Value* m_newBinding;
        Value* m_oldBinding;
    };

    /// Learns of what happens to a value. Not owned by the values that it listens to.
    class ZEL_CORE_API EventListener {
    public:
        /// @param object  the object on whose behalf it listens; not owned, may be null
        explicit EventListener(zel::Object* object = nullptr) : m_object(object) {}
        EventListener(const EventListener&) = default;
        EventListener& operator=(const EventListener&) = default;

        /// Called from the value's destructor.
        virtual void destroyCallback(Value* value);
        virtual void updateCallback(Value* value);
        virtual void bindCallback(Value* value, Value* newBinding, Value* oldBinding);
        virtual ~EventListener() = default;

        [[nodiscard]] zel::Object* getObject() const noexcept { return m_object; }

    private:
        zel::Object* m_object;
    };

    /// The listeners of one value. They may come and go while they are called; one that comes waits for the
    /// next event.
    class ZEL_CORE_API EventDispatch {
    public:
        /// Adding one twice does nothing.
        void addListener(EventListener* listener) { m_listeners.insert(listener); }
        void removeListener(EventListener* listener) { m_listeners.erase(listener); }
        [[nodiscard]] bool hasListener(const EventListener* listener) const;
        [[nodiscard]] const zel::HashSet<EventListener*>& getListeners() const noexcept {
            return m_listeners;
        }

        void triggerDestroyEvent(Value* value);
        void triggerUpdateEvent(Value* value);
        void triggerBindEvent(Value* value, Value* newBinding, Value* oldBinding);

    private:
        zel::HashSet<EventListener*> m_listeners;
    };

    /// The callbacks that are called at each update of a value: an EventT that tells its value of them, since
    /// updates pass over the values that nobody listens to.
    class ZEL_CORE_API CallbackEvent : protected zel::Event1<Value*> {
    public:
        explicit CallbackEvent(Value* value) : EventT(zel::Name(), value) {}

        using EventT::empty;
        using EventT::Entry;
        using EventT::find;
        using EventT::getName;
        using EventT::getSource;
        using EventT::size;
        /// As EventT::connect.
        zel::uint64 connect(zel::Callback1<Value*> callback, bool oneShot = false);
        /// As EventT::disconnect.
        bool disconnect(zel::uint64 id);

    private:
        friend class Value; // fires
    };

    explicit Value(const Type* type);
    explicit Value(const Format* format);
    /// @param type  gives its default format
    Value(const zel::Name& name, const Type* type);
    /// @param format  null for a value that takes the format of what it is bound to or set from
    Value(const zel::Name& name, const Format* format);
    ~Value() override;

    /// Reads the attributes "bind", a path, and "value", an expression.
    void configure(TiXmlElement* element) override;
    /// Adds a child "Value" with the attributes "name" and, if it can be written as text, "value".
    void save(TiXmlElement* element) const override;
    /// Adds a child "Value" with the attributes "instance" and, if it can be written as text, "value".
    void snapshot(TiXmlNode* node, const zel::String& directory) override;
    /// Adds "type", "value" and, for a bound value, "binding".
    void buildNavigationTree(Json::Value& json) const override;
    /// Hands the context on to the function that the value follows.
    void setContext(zel::Object* context) override;
    /// Looks the path of the binding up and binds to what it names. Without a path, and while the path leads
    /// nowhere, nothing changes.
    void rebind() override;

    /// The element; null while there is none.
    [[nodiscard]] virtual void* getData();
    /// Binds to a value, or to that of a scalar parameter, as bind(Value*) does. Another object, or null,
    /// makes this value an `ObjectPointer` that holds it, which ends any binding and forgets the path.
    /// @return true
    /// @throws std::runtime_error if the value can hold no pointer
    virtual bool bind(zel::Object* object);

    /// Stores the path and, while rebinding is enabled, looks it up at once.
    void bind(const zel::Path& path);
    /// Follows the other value from now on; null ends the binding and forgets the path.
    /// @throws std::runtime_error if the other one follows this one, or is this one, and if its format can
    /// not be converted to this one's; the present binding then stays
    void bind(Value* other);
    /// @param clearPath  whether to forget the path as well
    void unbind(bool clearPath);
    [[nodiscard]] Value* getBinding() const noexcept { return m_binding.get(); }
    /// The value at the end of the chain of bindings; this one if it is not bound.
    [[nodiscard]] Value* getRootBinding();
    [[nodiscard]] const zel::Path& getBindPath() const noexcept { return m_bindPath; }
    /// The values that are bound to this one, in the order in which they were.
    [[nodiscard]] zel::Vector<Value*> getDependents() const;

    /// Gives a value without a format its format, and all that follow it and have none. A second format is a
    /// failed verification; null is ignored.
    void setFormat(const Format* format);
    [[nodiscard]] const Format* getFormat() const noexcept { return m_format.get(); }
    /// Null without a format.
    [[nodiscard]] const Type* getType() const;
    /// Whether one of the two has no type, or this one's type is or derives from the other's.
    [[nodiscard]] bool isTypeCompatible(const Value* other) const;

    /// Assigns the content and announces it. Ends the binding and forgets its path.
    /// @param element  of this value's format; may lie in any value
    void set(const void* element);
    /// The same, converted if the formats differ. A value without a format takes the other's.
    void set(const Value* other);
    /// Sets the default value of the format.
    void setDefaultValue();
    /// Sets the value from a text, blanks at both ends removed; an empty text changes nothing. The text is
    ///
    ///     a literal           begins with a digit or "-", or is one of true, false, PI, INFINITY,
    ///                         InvalidIndex, nullptr; needs a format
    ///     a path              begins with "@": binds
    ///     any text            for a value of type `String`, and without "(" for one without a format
    ///     an explicit form    such as "Real:32bit(1.5)"; a value without a format takes the one named, and
    ///                         what lies between the parentheses is parsed in turn; nothing between them
    ///                         means the default value of the format
    ///     a function          such as "Math.Mul(@a, 2)": see FunctionValue
    /// @throws std::runtime_error, naming the value and the text, if it is none of these
    void setExpression(const zel::String& expression);
    /// Asks whether setExpression would take the whole of a literal, of which it else takes what it can read:
    /// 3 of "3,5", and 2 of "2.5" for an `Int`. For who hands on what somebody has typed.
    /// @throws std::runtime_error with the reason; never for a text that is no literal
    void verifyLiteral(const zel::String& expression) const;
    /// Sets the target from the source.
    static void copy(Value* target, const Value* source);
    /// Tells all that follow this value that its content has changed in place.
    void update();

    using zel::Object::addListener;
    using zel::Object::hasListener;
    using zel::Object::removeListener;
    /// The listener must be removed, or outlive the value.
    void addListener(EventListener* listener);
    void removeListener(EventListener* listener);
    [[nodiscard]] bool hasListener(const EventListener* listener) const {
        return m_eventDispatch.hasListener(listener);
    }

    /// Whether a change of the content concerns nobody but the callbacks of updateEvent.
    [[nodiscard]] bool isUnobserved() const noexcept {
        return !m_binding && m_dependents.empty() && m_bindPath.empty() &&
               m_eventDispatch.getListeners().empty();
    }
    /// The content as text; empty, with a warning, if the type has no ascii format.
    [[nodiscard]] zel::String toString() const;
    /// Writes path and content to the log.
    void print() const;
    /// A new value without owner, of the same name, format and content.
    [[nodiscard]] Value* clone() const;

    /// Takes the value off the tree and off all that follow it, and stops an update of it that is under way.
    void forceRemove();
    /// Whether the value is a member of another object, and lives as long as that one: references to it do
    /// not keep it alive.
    [[nodiscard]] bool isMember() const noexcept { return m_isMember; }
    /// Frees the content and forgets the format: for the default values of formats that are going away.
    void forceInvalidateDefaultFormatValue();

    [[nodiscard]] static zel::Model* ClassModel();
    /// Makes a value from an element of the tag "Value".
    /// @return a new value without owner
    /// @throws std::runtime_error with file and row
    [[nodiscard]] static Value* load(TiXmlElement* element, zel::Device* device);

    /// Called at each update of the content, ahead of the listeners and the dependents.
    CallbackEvent updateEvent{this};

protected:
    [[nodiscard]] const void* storage() const noexcept { return m_storage; }
    /// Takes another path without looking it up.
    void setBindPath(const zel::Path& path);
    /// Fails unless the elements of the format are of this size and class.
    void verifyElement(zel::size_t size, const char* implementation) const;
    /// For a value that is a member of another object, which counts as one that holds it.
    void enterOwner() noexcept;
    /// Ends what enterOwner began: those that listen to the value learn that it goes, and all lose it.
    void leaveOwner();

private:
    class Walk;

    void allocate();
    void deallocate();
    void setStorage(void* storage);
    void propagate();
    [[nodiscard]] bool hasCallbacks() const noexcept {
        return !updateEvent.empty() || !m_eventDispatch.getListeners().empty();
    }
    /// No format, or the marker for one that is to be taken from the other side.
    [[nodiscard]] bool isUntyped() const;
    void takeFormat(const Format* format);
    void verifyBindable(const Value* other) const;
    void verifyDependents(const Format* format) const;
    void joinBinding(Value* binding);
    void leaveBinding();
    void removeDependent(const Value* dependent);
    void updateAudible();
    void dropDependents();
    [[nodiscard]] bool writeText(zel::String& text) const;
    void writeContent(TiXmlElement* element) const;
    void setText(std::string_view text);
    void setFunction(std::string_view text);
    [[nodiscard]] FunctionValue* getFunction() const;

    zel::Path m_bindPath;
    zel::ref_ptr<Value> m_binding;
    // Not owned; each one's binding is this value. Null where one has left, at less than half the places, so
    // that it is empty when nobody is there.
    zel::Vector<Value*> m_dependents;
    void* m_storage = nullptr;
    zel::ref_ptr<const Format> m_format;
    zel::uint32 m_ownsStorage = 0xFFFFFFFFU; // 0 once it has allocated its own element
    bool m_propagationAborted = false;
    bool m_isMember = false;
    EventDispatch m_eventDispatch;

    // A value is audible if an update has something to do there: callbacks, listeners, a conversion, or a
    // dependent that is audible.
    bool m_audible = false;                  // as counted by the binding
    zel::uint32 m_numAudible = 0;            // dependents
    zel::uint32 m_numLeft = 0;               // null places among the dependents
    zel::uint32 m_place = 0;                 // among the dependents of the binding
    zel::uint32 m_numWalks = 0;              // levels of updates under way that stand on this value
    TransformFunction m_transform = nullptr; // from the binding's format; null if it is the same
};

/// The content as text; "'name': No ascii format'" if its type has no ascii format.
ZEL_CORE_API std::ostream& operator<<(std::ostream& stream, const Value& value);

} // namespace zelData
