#include "ArchiveHeader.h"
#include "ArchiveLink.h"
#include "ArchiveReader.h"
#include "StackLeft.h"
#include "TypeName.h"
#include "containers/FlagScope.h"

#include <zelStream/InputArchive.h>
#include <zelStream/StorageAgent.h>

#include <array>
#include <cstring>
#include <exception>
#include <type_traits>
#include <utility>

// The objects in an archive.

namespace zelStream {

namespace {

constexpr const char* UnknownAgent = "Unable to get StorageAgent for a referenced object: '";
constexpr zel::uint32 Nobody = ~zel::uint32{0};

} // namespace

/// Counts the objects around the one that is read, and sees to it that they fit on the stack.
class InputArchive::Nesting {
public:
    explicit Nesting(InputArchive& archive) : m_archive(archive), m_numPutOff(archive.m_putOff.size()) {
        if (archive.m_depth == 0)
            archive.m_stackFloor = stackFloor();
        if (stackAbove(archive.m_stackFloor) == 0)
            archive.fail("Objects are nested too deep: " + std::to_string(archive.m_depth));
        ++archive.m_depth;
    }
    Nesting(const Nesting&) = delete;
    Nesting& operator=(const Nesting&) = delete;
    ~Nesting() {
        // Where an exception came between, the pointers that wait may be gone.
        for (zel::size_t i = m_numPutOff; !m_isComplete && i < m_archive.m_putOff.size(); ++i)
            m_archive.m_putOff[i].place = nullptr;
        if (--m_archive.m_depth != 0)
            return;
        m_archive.m_isEndTold = false;
        m_archive.m_waiting.clear();
        m_archive.m_putOff.clear();
        // Off the list, which the last words of an object may ask.
        const auto removed = std::exchange(m_archive.m_removed, {});
    }
    void complete() noexcept { m_isComplete = true; }

private:
    InputArchive& m_archive;
    const zel::size_t m_numPutOff; ///< of pointers ahead of those of this object
    bool m_isComplete = false;
};

/// What `read` reads, as an object within others; behind the outermost one also the bodies that were put off.
template <typename Read>
auto InputArchive::nested(const Read& read) {
    verifyReadable();
    Nesting nesting(*this);
    auto result = read();
    if (m_depth == 1 && !m_waiting.empty())
        readPutOff();
    // It may have been removed with the bodies that were put off.
    if constexpr (std::is_same_v<decltype(result), Serializable*>)
        if (m_depth == 1 && numAwaited(result) != 0 && result->referenceCount() == 1)
            result = nullptr;
    nesting.complete();
    return result;
}

/// What `read` reads; if the stream ends in it, the exception says so in the given words. The innermost
/// object has the word.
template <typename Text, typename Read>
auto InputArchive::orEnd(const Text& text, const Read& read) {
    try {
        return read();
    } catch (const ArchiveException&) {
        if (!hasFailed() || m_isEndTold)
            throw;
        m_isEndTold = true;
        std::throw_with_nested(ArchiveException(getErrorMessage(text())));
    }
}

void InputArchive::readObjectHeader(StorageMode& mode, const StorageAgent*& agent) {
    zel::int32 tag = 0;
    getAttribute("tag", tag);
    if (tag != ObjectTag)
        fail("Invalid archive format (bad class tag)");
    zel::int32 value = 0;
    getAttribute("storageMode", value);
    if (value != NewObject && value != KnownObject && value != NullObject)
        fail("Invalid storage mode read: " + std::to_string(value));
    mode = static_cast<StorageMode>(value);
    if (mode != NullObject && !m_isValueHeader)
        readTypeHeader(agent);
}

void InputArchive::readTypeHeader(const StorageAgent*& agent) {
    const ScopedSection section(*this, "TypeHeader");
    zel::int32 tag = 0;
    getAttribute("tag", tag);
    if (tag != TypeTag)
        fail("Invalid archive format (bad class tag)");
    zel::int32 mode = 0;
    getAttribute("storageMode", mode);
    if (mode != NewObject && mode != KnownObject)
        fail("Invalid storage mode");
    zel::uint32 id = 0;
    getAttribute("referenceID", id);
    if (mode == KnownObject) {
        const auto known = m_agents.find(id);
        if (known == m_agents.end())
            fail(UnknownAgent + std::to_string(id) + "'");
        agent = m_lastAgent = known->value;
        m_lastAgentId = id;
        return;
    }
    if (id == 0 || m_agents.contains(id))
        fail("Bad object id " + std::to_string(id));
    zel::String name;
    getAttribute("className", name);
    const StorageAgent* const found = StorageAgent::lookup(name, this);
    if (found == nullptr)
        fail(UnknownAgent + name + "'");
    m_agents.insert(id, found);
    agent = m_lastAgent = found;
    m_lastAgentId = id;
}

// By reference.

Serializable* InputArchive::readObjectByRef() {
    return nested([this] { return readRecord(); });
}

/// A record up to its id, in one piece: of a binary archive, where it is there in the buffer and has the
/// class of the record ahead of it.
/// @return false, with nothing taken, where that is not so, or something is wrong with it
bool InputArchive::readRecordAtOnce(Record& record) {
    constexpr zel::size_t NumNumbers = 6;
    constexpr zel::size_t Width = sizeof(zel::uint32);
    constexpr zel::size_t NumBytes = NumNumbers * (1 + Width);
    if (!isAhead(NumBytes))
        return false;
    std::array<zel::uint32, NumNumbers> numbers{};
    const char* head = m_ahead.head;
    for (zel::uint32& number : numbers) {
        if (*head != Width)
            return false;
        std::memcpy(&number, head + 1, Width);
        head += 1 + Width;
    }
    const auto [tag, mode, typeTag, typeMode, agentId, id] = numbers;
    if (tag != ObjectTag || (mode != NewObject && mode != KnownObject) || typeTag != TypeTag ||
        typeMode != KnownObject || m_lastAgent == nullptr || agentId != m_lastAgentId)
        return false;
    record = {static_cast<StorageMode>(mode), m_lastAgent, id};
    takeAhead(NumBytes);
    return true;
}

Serializable* InputArchive::readRecord() {
    Record record{};
    const bool isTaken = readRecordAtOnce(record);
    if (isTaken && record.mode == KnownObject) {
        const Entry* const entry = findEntry(record.id);
        if (entry != nullptr && entry->object != nullptr)
            return entry->object;
    }
    ScopedSection section(*this, "Object");
    if (!isTaken) {
        readObjectHeader(record.mode, record.agent);
        if (record.mode == NullObject)
            return readNull();
        record.id = readId();
    }
    if (record.mode == KnownObject)
        return readKnown(record.id);
    Serializable* const object = readNew(record.id, record.agent);
    const auto text = [&record] {
        return "End of file reached while trying to read end section Object, during restore of object: " +
               record.agent->getClassName();
    };
    orEnd(text, [&section] { section.end(); });
    return object;
}

Serializable* InputArchive::readNull() {
    const auto text = [] {
        return "End of file reached while trying to read 'referenceID' during restore of a null pointer "
               "object";
    };
    return orEnd(text, [this]() -> Serializable* {
        char id = 0;
        getAttribute("referenceID", id);
        return nullptr;
    });
}

zel::uint32 InputArchive::readId() {
    const auto text = [] {
        return "End of file reached while trying to read 'referenceID' during restore of object";
    };
    return orEnd(text, [this] {
        zel::uint32 id = 0;
        getAttribute("referenceID", id);
        return id;
    });
}

Serializable* InputArchive::readKnown(zel::uint32 id) {
    const Entry* const entry = findEntry(id);
    if (entry == nullptr)
        fail("Bad object id " + std::to_string(id));
    if (entry->object == nullptr)
        fail("During restore an object was referenced of type (" + entry->agent->getClassName() +
             ") that has been deleted (id: " + std::to_string(id) + ")");
    return entry->object;
}

Serializable* InputArchive::readNew(zel::uint32 id, const StorageAgent* agent) {
    const zel::size_t numPutOff = m_putOff.size();
    zel::ref_ptr<Serializable> object(agent->create(*this));
    if (object == nullptr)
        fail("The storage agent of '" + agent->getClassName() + "' made no object");
    enter(id, {object, object.get(), agent});
    restoreReferenced(*object, agent);
    const Entry* const entry = findEntry(id);
    if (entry != nullptr && entry->object == object.get())
        return object.get();
    // It was removed meanwhile: null, if nobody took it.
    const int numOwners = object->referenceCount() - 1 - numAwaited(object.get());
    if (m_putOff.size() > numPutOff && numAwaited(object.get()) == 0)
        m_removed.push_back(object); // pointers in it may wait
    return numOwners > 0 ? object.get() : nullptr;
}

void InputArchive::restoreReferenced(Serializable& object, const StorageAgent* agent) {
    const auto text = [agent] {
        return "End of file reached while trying to restore an object: " + agent->getClassName();
    };
    orEnd(text, [this, &object] { return restoreBody(object); });
}

void InputArchive::restoreBody(Serializable& object) {
    object.setFinished(false);
    object.setArchive(this);
    object._restore(*this);
    ++m_numObjects;
    setFinished(&object);
}

void InputArchive::setFinished(Serializable* object) {
    object->setFinished(true);
    if (m_listeners.empty())
        return;
    {
        const zel::FlagScope telling(m_isTelling);
        for (zel::size_t i = 0; i < m_listeners.size(); ++i)
            if (const zel::ref_ptr<RestoreListener> listener = m_listeners[i]; listener != nullptr)
                listener->objectRestored(object, *this);
    }
    if (!m_isTelling && m_hasGaps)
        closeGaps();
}

// By value.

bool InputArchive::readObjectByVal(Serializable& object) {
    const auto headerText = [&object] {
        return "End of file reached while trying to read object header: '" + object.getClassName() + "'";
    };
    const auto bodyText = [] { return "End of file reached while trying to restoring an object"; };
    return nested([&] {
        ScopedSection section(*this, "Object");
        const StorageMode mode = orEnd(headerText, [this] {
            const zel::FlagScope isValue(m_isValueHeader);
            StorageMode read = NullObject;
            const StorageAgent* none = nullptr;
            readObjectHeader(read, none);
            return read;
        });
        if (mode == NullObject)
            return readNull() != nullptr;
        if (mode != NewObject)
            fail("Bad storage mode");
        orEnd(bodyText, [this, &object] { return restoreBody(object); });
        section.end();
        return true;
    });
}

void InputArchive::readVal(Serializable& object, StorageMode mode) {
    if (mode == ByValue) {
        readObjectByVal(object);
        return;
    }
    if (mode != ByReference)
        fail("Invalid storage mode specified for read");
    nested([this, &object] {
        ScopedSection section(*this, "Object");
        StorageMode stored = NullObject;
        const StorageAgent* agent = nullptr;
        readObjectHeader(stored, agent);
        if (stored != NewObject)
            fail("Bad storage mode");
        if (agent->getClassName() != object.getClassName())
            failClass(agent->getClassName(), object.getClassName());
        enter(readId(), {nullptr, &object, agent});
        restoreReferenced(object, agent);
        section.end();
        return true;
    });
}

void InputArchive::failCast(const Serializable& object, const std::type_info& wanted) const {
    failClass(object.getClassName(), typeName(wanted));
}

void InputArchive::failClass(const zel::String& stored, const zel::String& wanted) const {
    fail("The archive holds an object of class '" + stored + "' where one of class '" + wanted + "' is read");
}

// Known objects.

InputArchive::Entry* InputArchive::findEntry(zel::uint32 id) {
    if (id - 1 < m_objects.size())
        return &m_objects[id - 1];
    const auto stray = m_strayObjects.find(id);
    return stray == m_strayObjects.end() ? nullptr : &stray->value;
}

void InputArchive::enter(zel::uint32 id, Entry entry) {
    if (id == 0 || findEntry(id) != nullptr)
        fail("Bad object id " + std::to_string(id));
    Serializable* const object = entry.object;
    if (m_hasIds)
        m_ids.insert(object, id);
    if (id == m_objects.size() + 1)
        m_objects.push_back(std::move(entry));
    else
        m_strayObjects.insert(id, std::move(entry));
    const auto waiting = m_waiting.find(id);
    if (waiting == m_waiting.end())
        return;
    const zel::uint32 first = waiting->value;
    m_waiting.erase(id);
    for (zel::uint32 i = first; i != Nobody; i = m_putOff[i].next)
        if (m_putOff[i].place != nullptr)
            m_putOff[i].set(*this, m_putOff[i].place, object);
}

void InputArchive::removeObject(Serializable* object) {
    if (!m_hasIds) {
        for (zel::size_t i = 0; i < m_objects.size(); ++i)
            if (m_objects[i].object != nullptr)
                m_ids.insert(m_objects[i].object, static_cast<zel::uint32>(i + 1));
        for (const auto& stray : m_strayObjects)
            if (stray.value.object != nullptr)
                m_ids.insert(stray.value.object, stray.key);
        m_hasIds = true;
    }
    const auto known = m_ids.find(object);
    if (known == m_ids.end())
        return;
    Entry* const entry = findEntry(known->value);
    m_ids.erase(object);
    entry->object = nullptr;
    const zel::ref_ptr<Serializable> held = std::exchange(entry->held, nullptr); // goes last
    object->setArchive(nullptr);
    if (held != nullptr && m_depth != 0 && !m_putOff.empty())
        m_removed.push_back(held); // as in readNew
}

int InputArchive::numAwaited(const Serializable* object) const {
    // The newest are asked for.
    for (zel::size_t i = m_removed.size(); i != 0; --i)
        if (m_removed[i - 1] == object)
            return 1;
    return 0;
}

void InputArchive::letGo() {
    m_hasIds = false;
    m_ids.clear();
    m_agents.clear();
    m_lastAgent = nullptr;
    m_waiting.clear();
    m_putOff.clear();
    // In the order of their ids, so that the head of a chain goes while the rest of it is held; and off the
    // list, which the last words of an object may ask.
    const zel::Vector<Entry> objects = std::exchange(m_objects, {});
    const zel::HashTable<zel::uint32, Entry> strays = std::exchange(m_strayObjects, {});
}

// Bodies that were put off.

void InputArchive::readDeferredInto(void* place, Setter set) {
    nested([this, place, set] {
        ScopedSection section(*this, "Object");
        StorageMode mode = NullObject;
        const StorageAgent* agent = nullptr;
        readObjectHeader(mode, agent);
        const zel::uint32 id = mode == NullObject ? 0 : readId();
        if (mode == NullObject)
            set(*this, place, readNull());
        else if (mode == NewObject)
            set(*this, place, readNew(id, agent));
        else if (id == 0 || findEntry(id) != nullptr)
            set(*this, place, readKnown(id));
        else
            waitFor(id, place, set);
        section.end();
        return true;
    });
}

void InputArchive::waitFor(zel::uint32 id, void* place, Setter set) {
    const auto waiting = m_waiting.find(id);
    m_putOff.push_back({place, set, waiting == m_waiting.end() ? Nobody : waiting->value});
    m_waiting.insert(id, static_cast<zel::uint32>(m_putOff.size() - 1));
}

void InputArchive::readPutOff() {
    while (!m_waiting.empty()) {
        Nesting nesting(*this);
        (void)readRecord();
        nesting.complete();
    }
}

// Listeners.

void InputArchive::addRestoreListener(RestoreListener* listener) {
    if (!m_listeners.contains(listener))
        m_listeners.push_back(listener);
}

void InputArchive::removeRestoreListener(RestoreListener* listener) {
    auto* const known = m_listeners.find(listener);
    if (known == m_listeners.end())
        return;
    *known = nullptr;
    m_hasGaps = true;
    if (!m_isTelling)
        closeGaps();
}

void InputArchive::closeGaps() {
    zel::Vector<zel::ref_ptr<RestoreListener>> left;
    for (const zel::ref_ptr<RestoreListener>& listener : m_listeners)
        if (listener != nullptr)
            left.push_back(listener);
    m_listeners = std::move(left);
    m_hasGaps = false;
}

} // namespace zelStream
