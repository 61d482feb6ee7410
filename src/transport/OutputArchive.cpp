#include "ArchiveHeader.h"
#include "ArchiveVectors.h"
#include "StackLeft.h"
#include "containers/FlagScope.h"

#include <zel/Log.h>
#include <zel/Verify.h>
#include <zelStream/OutputArchive.h>
#include <zelStream/Serializable.h>
#include <zelStream/StorageAgent.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <ostream>
#include <utility>

namespace zelStream {

namespace {

constexpr zel::size_t LargestScalar = 8;

} // namespace

/// Counts the objects around the one that is written, and sees to it that they fit on the stack. Where an
/// exception leaves the object, the archive has failed.
class OutputArchive::Nesting {
public:
    explicit Nesting(OutputArchive& archive) : m_archive(archive) {
        if (archive.m_depth == 0)
            archive.m_stackFloor = stackFloor();
        if (stackAbove(archive.m_stackFloor) == 0)
            archive.failForGood("Objects are nested too deep: " + std::to_string(archive.m_depth));
        ++archive.m_depth;
    }
    Nesting(const Nesting&) = delete;
    Nesting& operator=(const Nesting&) = delete;
    ~Nesting() { --m_archive.m_depth; }

    /// Writes what `write` writes; behind the outermost object also the bodies that were put off.
    template <typename Write>
    static void run(OutputArchive& archive, const Write& write) {
        const Nesting nesting(archive);
        try {
            write();
            if (archive.m_depth == 1 && !archive.m_putOff.empty())
                archive.writePutOff();
        } catch (const std::exception& exception) {
            if (!archive.hasFailed()) // which the innermost object has told
                archive.noteFailure(exception.what());
            throw;
        } catch (...) {
            archive.noteFailure("An object could not be stored");
            throw;
        }
    }

private:
    OutputArchive& m_archive;
};

OutputArchive::OutputArchive() : OutputArchive(true) {}

OutputArchive::OutputArchive(bool isBinary) : Archive(isBinary), m_isLittleEndian(IsLittleEndianMachine) {}

OutputArchive::~OutputArchive() {
    try {
        OutputArchive::close();
    } catch (const std::exception& exception) {
        ZEL_LOG_WARNING("An archive was not completed: " << exception.what());
    }
}

void OutputArchive::open(std::ostream& stream, const zel::String& appName) {
    if (isOpen())
        throw ArchiveException("The archive is open");
    m_failure.clear();
    m_objects.clear();
    m_agents.clear();
    m_agentIds.clear();
    m_lastAgentId = 0;
    m_putOff.clear();
    m_lastObjectId = 0;
    m_numObjects = 0;
    m_numReferences = 0;
    m_stream = &stream;
    m_isSwapped = m_isLittleEndian != IsLittleEndianMachine;
    m_isDirect = isBinary() && !m_isSwapped;
    m_numBuffered = 0;
    m_buffer.resize(m_bufferSize);
    m_appName = appName;
    m_isOpen = true;
    try {
        writeHeader();
    } catch (...) {
        letGo();
        throw;
    }
}

void OutputArchive::close() {
    if (!isOpen())
        return;
    try {
        verifySound();
        endSection("Archive");
        finish();
        flushStream();
    } catch (const std::exception& exception) {
        noteFailure(exception.what());
    }
    letGo();
    verifySound();
}

void OutputArchive::letGo() {
    dropSections(0);
    m_isOpen = false;
    m_isDirect = false;
    m_stream = nullptr;
    m_objects.clear();
    m_agents.clear();
    m_putOff.clear();
}

void OutputArchive::flush() {
    verifyWritable();
    flushBuffer();
    flushStream();
}

void OutputArchive::finish() {
    flushBuffer();
}

void OutputArchive::flushStream() {
    useStream([this] { m_stream->flush(); });
}

void OutputArchive::send(const void* bytes, zel::size_t numBytes) {
    useStream(
        [&] { m_stream->write(static_cast<const char*>(bytes), static_cast<std::streamsize>(numBytes)); });
}

/// What a stream throws, which may be asked to, is a failure like any other.
template <typename Use>
void OutputArchive::useStream(const Use& use) {
    bool isSound = true;
    try {
        use();
        isSound = !m_stream->fail();
    } catch (...) {
        isSound = false;
    }
    if (!isSound)
        failForGood("The output stream does not take the archive");
}

void OutputArchive::setLittleEndian(bool isLittleEndian) {
    if (isOpen())
        fail("The byte order is chosen ahead of opening the archive");
    m_isLittleEndian = isLittleEndian;
}

void OutputArchive::setWriteBufferSize(zel::size_t numBytes) {
    if (isOpen() && !hasFailed())
        flushBuffer();
    m_bufferSize = numBytes;
    m_buffer.resize(numBytes);
}

void OutputArchive::verifyWritable() const {
    verifySound();
    if (!isOpen())
        fail("Output archive closed. Writing not possible.");
}

// Bytes.

void OutputArchive::put(const void* bytes, zel::size_t numBytes) {
    if (numBytes == 0)
        return; // from or to nowhere, perhaps
    if (numBytes > m_buffer.size() - m_numBuffered) {
        flushBuffer();
        if (numBytes > m_buffer.size()) {
            send(bytes, numBytes);
            return;
        }
    }
    std::memcpy(m_buffer.data() + m_numBuffered, bytes, numBytes);
    m_numBuffered += numBytes;
}

void OutputArchive::flushBuffer() {
    if (m_numBuffered == 0)
        return;
    send(m_buffer.data(), std::exchange(m_numBuffered, 0));
}

void OutputArchive::writeScalar(const char*, const void* value, ScalarForm form) {
    verifyWritable();
    std::array<char, 1 + LargestScalar> bytes{};
    zel::size_t start = 0;
    if (!form.isRaw)
        bytes[start++] = static_cast<char>(form.size);
    if (m_isSwapped)
        swapWords(&bytes[start], value, 1, form.size);
    else
        std::memcpy(&bytes[start], value, form.size);
    put(bytes.data(), start + form.size);
}

void OutputArchive::writeString(const char*, std::string_view text) {
    verifyWritable();
    if (text.size() > std::numeric_limits<zel::uint32>::max())
        fail("A text of " + std::to_string(text.size()) + " bytes is too long for an archive");
    auto length = static_cast<zel::uint32>(text.size());
    if (m_isSwapped)
        swapWords(&length, &length, 1, sizeof(length));
    put(&length, sizeof(length));
    put(text.data(), text.size());
}

void OutputArchive::writeUuid(const char*, const zel::Uuid& uuid) {
    verifyWritable();
    put(uuid.data(), zel::Uuid::NumBytes);
}

void OutputArchive::write(const void* data, zel::size_t numBytes) {
    verifyWritable();
    put(data, numBytes);
}

void OutputArchive::writeVectorHead(zel::size_t numElements, VectorElement type) {
    const VectorElementForm form = formOf(type);
    write(zel::uint64{numElements});
    write(zel::uint64{form.size()});
    write(form.width);
    write(static_cast<zel::uint32>(type));
}

void OutputArchive::write_vector(const void* elements, zel::size_t numElements, VectorElement type) {
    verifyWritable();
    writeVectorHead(numElements, type);
    const VectorElementForm form = formOf(type);
    const auto* bytes = static_cast<const char*>(elements);
    zel::size_t left = numElements * form.size();
    if (!m_isSwapped) {
        put(bytes, left);
        return;
    }
    std::array<char, 4096> block{};
    while (left != 0) {
        const zel::size_t n = std::min(left, block.size());
        swapWords(block.data(), bytes, n / form.width, form.width);
        put(block.data(), n);
        bytes += n;
        left -= n;
    }
}

// Objects.

void OutputArchive::write(const Serializable* object, StorageMode mode) {
    if (mode == ByReference)
        writeObjectByRef(object);
    else if (mode != ByValue)
        fail("Invalid storage mode specified for write");
    else if (object != nullptr)
        writeObjectByVal(*object);
    else
        writeNull();
}

void OutputArchive::write(const Serializable& object, StorageMode mode) {
    write(&object, mode);
}

void OutputArchive::writeNull() {
    const ScopedSection section(*this, "Object");
    writeObjectHeader(NullObject, nullptr);
    addAttribute("referenceID", char{0});
}

void OutputArchive::writeObjectByRef(const Serializable* object) {
    verifyWritable();
    if (object == nullptr || !object->isSerializationEnabled()) {
        writeNull();
        return;
    }
    const auto [entry, isNew] = enter(object, true);
    if (!isNew && entry.isByReference != 0) {
        writeKnownObject(entry);
        return;
    }
    entry.isByReference = 1;
    writeNewObject(*object, IdEntry(entry)); // a copy, since the table grows with the objects within
}

/// The entry of an object, and whether it is a new one.
std::pair<OutputArchive::IdEntry&, bool> OutputArchive::enter(const Serializable* object,
                                                              bool isByReference) {
    constexpr zel::uint32 Largest = ~zel::uint32{0} >> 1;
    const auto [position, isNew] =
        m_objects.tryInsert(object, IdEntry{m_lastObjectId + 1, isByReference ? 1U : 0U, 0});
    if (isNew) {
        try {
            position->value.agentId = agentIdOf(*object) & Largest;
        } catch (...) {
            m_objects.erase(position);
            throw;
        }
        ++m_lastObjectId;
    }
    return {position->value, isNew};
}

void OutputArchive::writeDeferred(const Serializable* object) {
    verifyWritable();
    if (m_depth == 0 || object == nullptr || !object->isSerializationEnabled()) {
        writeObjectByRef(object);
        return;
    }
    const auto [entry, isNew] = enter(object, false);
    if (isNew)
        m_putOff.push_back(object);
    writeKnownObject(entry);
}

void OutputArchive::writePutOff() {
    while (!m_putOff.empty()) {
        const Serializable* const object = m_putOff.back();
        m_putOff.pop_back();
        IdEntry& entry = m_objects.find(object)->value;
        if (entry.isByReference != 0)
            continue;
        entry.isByReference = 1;
        writeNewObject(*object, IdEntry(entry)); // whether its serialization is on or not: it was promised
    }
}

void OutputArchive::writeObjectByVal(const Serializable& object) {
    verifyWritable();
    if (!object.isSerializationEnabled()) {
        writeNull();
        return;
    }
    Nesting::run(*this, [this, &object] {
        ScopedSection section(*this, "Object");
        {
            const zel::FlagScope isValue(m_isValueHeader);
            writeObjectHeader(NewObject, nullptr);
        }
        writeBody(object, 0);
        section.end();
    });
}

void OutputArchive::writeNewObject(const Serializable& object, const IdEntry& entry) {
    Nesting::run(*this, [this, &object, &entry] {
        ScopedSection section(*this, "Object");
        writeHeader(NewObject, entry);
        ++m_numReferences;
        writeBody(object, entry.id);
        section.end();
    });
}

void OutputArchive::writeKnownObject(const IdEntry& entry) {
    if (writeHeaderAtOnce(KnownObject, entry))
        return;
    const ScopedSection section(*this, "Object");
    writeHeader(KnownObject, entry);
}

void OutputArchive::writeBody(const Serializable& object, zel::uint32 id) {
    object._store(*this);
    ++m_numObjects;
    m_objectEvent.fire(&object, id);
}

void OutputArchive::writeHeader(StorageMode mode, const IdEntry& entry) {
    if (writeHeaderAtOnce(mode, entry))
        return;
    writeObjectHeader(mode, m_agents[entry.agentId - 1].agent);
    addAttribute("referenceID", entry.id);
}

/// A record up to its id, in one piece: what writeObjectHeader and the id make of a binary archive whose
/// class is known.
/// @return false, with nothing done, where they have to
bool OutputArchive::writeHeaderAtOnce(StorageMode mode, const IdEntry& entry) {
    constexpr zel::size_t NumNumbers = 6;
    constexpr zel::size_t Width = sizeof(zel::uint32);
    if (!m_agents[entry.agentId - 1].isWritten)
        return false;
    char* head = takeRoom(NumNumbers * (1 + Width));
    if (head == nullptr)
        return false;
    const std::array<zel::uint32, NumNumbers> numbers{
        ObjectTag, static_cast<zel::uint32>(mode), TypeTag, KnownObject, entry.agentId, entry.id};
    for (const zel::uint32 number : numbers) {
        *head = Width;
        std::memcpy(head + 1, &number, Width);
        head += 1 + Width;
    }
    return true;
}

void OutputArchive::writeObjectHeader(StorageMode mode, const StorageAgent* agent) {
    addAttribute("tag", ObjectTag);
    addAttribute("storageMode", static_cast<zel::int32>(mode));
    if (mode != NullObject && !m_isValueHeader)
        writeTypeHeader(agent);
}

void OutputArchive::writeTypeHeader(const StorageAgent* agent) {
    verifyWritable();
    zelVerifyN(agent != nullptr, "a class without a storage agent has no type header");
    const ScopedSection section(*this, "TypeHeader");
    const zel::uint32 id = idOf(agent);
    const bool isWritten = std::exchange(m_agents[id - 1].isWritten, true);
    addAttribute("tag", TypeTag);
    addAttribute("storageMode", static_cast<zel::int32>(isWritten ? KnownObject : NewObject));
    addAttribute("referenceID", id);
    if (!isWritten)
        addAttribute("className", agent->getClassName());
}

zel::uint32 OutputArchive::agentIdOf(const Serializable& object) {
    const StorageAgent* const agent = object.getStorageAgent();
    zelVerifyN(agent != nullptr,
               "an object of class '%s' has no storage agent, by which archives know its class",
               object.getClassName().c_str());
    return idOf(agent);
}

zel::uint32 OutputArchive::idOf(const StorageAgent* agent) {
    if (m_lastAgentId != 0 && m_agents[m_lastAgentId - 1].agent == agent)
        return m_lastAgentId;
    const auto [position, isNew] = m_agentIds.tryInsert(agent, static_cast<zel::uint32>(m_agents.size() + 1));
    if (isNew)
        m_agents.push_back({agent, false});
    return m_lastAgentId = position->value;
}

} // namespace zelStream
