#pragma once

#include <zel/Export.h>
#include <zel/HashTable.h>
#include <zel/Integers.h>
#include <zel/Name.h>
#include <zel/Object.h>
#include <zel/Referenced.h>
#include <zel/String.h>
#include <zel/ref_ptr.h>

#include <json/forwards.h>

namespace zelData {
class BinaryData;
class Buffer;
class Format;
class Value;
} // namespace zelData

namespace zelNet {
class StructuredMessage;
} // namespace zelNet

namespace zel {

class Model;
class Task;

/// Calls of tasks from elsewhere: a message names a task and describes its parameters, in JSON, with bulk
/// data in its payload.
///
///     zel::ref_ptr<zel::Stream::FunctionEvent> event(new zel::Stream::FunctionEvent(message));
///     event->evaluate();
///
/// docs/wire-format.md tells the form of a message. What it says is not trusted: all operations throw
/// std::runtime_error for a message that does not fit, ahead of anything that would end the process. Bytes
/// are taken only for elements that are plain numbers, and only what the search directories or the registered
/// plug-ins hold can be named.
/// @threads owner thread
class ZEL_CORE_API Stream {
public:
    Stream() = delete;

    /// Something that a peer wants done. Owned through ref_ptr.
    class ZEL_CORE_API Event : public Referenced {
    public:
        Event() = default;
        Event(const Event&) = delete;
        Event& operator=(const Event&) = delete;
        ~Event() override;
    };

    /// A task that is loaded and bound, for one run or several. It keeps alive what was made for its
    /// parameters. Where the message fails, no parameter has been bound and nothing has run; but the
    /// functions that a "value" calls are called while the message is read.
    class ZEL_CORE_API FunctionEvent : public Event {
    public:
        /// A task of the model, without bindings.
        /// @throws std::runtime_error if there is none
        explicit FunctionEvent(Model* model);
        /// The task and the parameters that the message describes. The payload is copied from.
        /// @throws std::runtime_error
        explicit FunctionEvent(const zelNet::StructuredMessage* message);
        ~FunctionEvent() override;

        /// Called at the end of each constructor; does nothing. For an object that is whole, so that a
        /// derived class calls its own.
        virtual void setup();

        /// Runs the task and returns when it is complete.
        /// @throws std::runtime_error if a required parameter is not valid; what a job threw
        void evaluate();

        [[nodiscard]] Task* getTask() const noexcept { return m_task.get(); }
        /// What was made for the parameters, or is bound to them, by the parameter's name.
        [[nodiscard]] const HashTable<Name, ref_ptr<Object>>& getParameters() const noexcept {
            return m_parameters;
        }

    private:
        ref_ptr<Task> m_task;
        HashTable<Name, ref_ptr<Object>> m_parameters;
    };

    /// Where the bytes of a value or a buffer lie in the payload.
    struct BinaryMeta {
        uint64 numBytes = 0;
        uint64 offset = 0;
        uint64 compressedSize = 0; ///< 0 if the message has none; nothing is decompressed
    };

    // All of them throw std::runtime_error.

    /// The format that "type" and, if it is there, "format" name.
    [[nodiscard]] static const zelData::Format* parseFormat(const Json::Value& eValue);
    [[nodiscard]] static Name parseName(const Json::Value& eValue);
    /// A decimal number at the front of the text, blanks ahead of it skipped; what follows it is passed over.
    [[nodiscard]] static uint64 parseInt(const String& str);
    /// The same from a text, or an unsigned number of 32 bits.
    [[nodiscard]] static uint64 parseInt(const Json::Value& eValue);
    [[nodiscard]] static BinaryMeta parseBinaryMeta(const Json::Value& eBinary);
    /// A new value: of the expression in "value", which sees the tree from the context; or, where that has a
    /// ":", a reference to the entity at an index of a storage; or, without one, of bytes of the payload.
    /// @param payload  null for none
    [[nodiscard]] static ref_ptr<zelData::Value>
    parseValue(Object* context, const Json::Value& eValue, const zelData::BinaryData* payload);
    /// A new buffer of bytes of the payload.
    [[nodiscard]] static ref_ptr<zelData::Buffer>
    parseBuffer(Object* context, const Json::Value& eBuffer, const zelData::BinaryData* payload);
    /// What a parameter is to be bound to: an object that is there, a pointer at it, or a new value or
    /// buffer.
    [[nodiscard]] static ref_ptr<Object>
    parseParameter(Object* context, const Json::Value& eParameter, const zelData::BinaryData* payload);
};

} // namespace zel
