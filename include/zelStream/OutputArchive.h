#pragma once

#include <zel/Callback.h>
#include <zel/Event.h>
#include <zel/HashTable.h>
#include <zel/Name.h>
#include <zel/Uuid.h>
#include <zelStream/Archive.h>
#include <zelStream/ArchiveTypes.h>

#include <cstring>
#include <iosfwd>
#include <utility>

namespace zelStream {

class Serializable;
class StorageAgent;

/// Stores objects and values in a stream, in the binary form: see docs/archives.md.
///
///     OutputArchive archive;
///     archive.open(stream, "lander");
///     archive.write(model);
///     archive.close();
///
/// The caller keeps the stream and all stored objects alive, and the objects where they are, until `close`.
/// A throw while storing leaves the archive failed: each further operation throws, `close` too, and what the
/// stream holds is no complete archive.
/// @threads owner thread
class ZEL_CORE_API OutputArchive : public Archive {
public:
    static constexpr zel::size_t DefaultWriteBufferSize = 65536;

    /// Fired behind the body of each object, with the object's id, or 0 for one that was stored by value.
    using ObjectEvent = zel::EventT<zel::Callback2<const Serializable*, zel::uint32>>;

    OutputArchive();
    /// Closes; what fails then is logged as a Warning.
    ~OutputArchive() override;

    /// Begins the archive with its header.
    /// @throws ArchiveException if the archive is open
    virtual void open(std::ostream& stream, const zel::String& appName = zel::String());
    /// Writes what is left, also of references that were put off, and lets go of the stream. Closing a closed
    /// archive does nothing.
    /// @throws ArchiveException if the archive has failed, or the stream did
    virtual void close();
    /// Hands all bytes that were written so far to the stream, and flushes it.
    virtual void flush();

    /// The byte order of numbers; that of the machine by default.
    /// @throws ArchiveException if the archive is open
    void setLittleEndian(bool isLittleEndian);
    [[nodiscard]] bool isLittleEndian() const noexcept { return m_isLittleEndian; }
    /// Small values are gathered in a buffer of this size; 0 hands each to the stream.
    void setWriteBufferSize(zel::size_t numBytes);
    [[nodiscard]] zel::size_t getWriteBufferSize() const noexcept { return m_bufferSize; }
    /// Whether the header tells the time of writing, or that of the library's build, which makes two archives
    /// of the same objects equal byte for byte.
    void setUseCurrentDate(bool use) noexcept { m_useCurrentDate = use; }
    [[nodiscard]] bool getUseCurrentDate() const noexcept { return m_useCurrentDate; }

    /// Adds a change to those that the header names; ahead of `open`.
    /// @throws ArchiveException if the text is not eight lower-case hexadecimal digits
    void addModification(const zel::String& hash);
    /// Adds all that the library knows to the set.
    static void addModifications(zel::HashSet<zel::String>& modifications);

    // Values. `write` adds to the open section, `addAttribute` gives the section a named value, which binary
    // archives write like any other.

    template <ArchiveScalar T>
    void write(T value) {
        addAttribute(nullptr, value);
    }
    template <ArchiveScalar T>
    void addAttribute(const char* name, T value) {
        if (char* const bytes = takeRoom(1 + sizeof(T))) [[likely]] {
            *bytes = static_cast<char>(sizeof(T));
            std::memcpy(bytes + 1, &value, sizeof(T));
            return;
        }
        writeScalar(name, &value, scalarFormOf<T>());
    }
    void write(const std::string& text) { writeString(nullptr, text); }
    void addAttribute(const char* name, const std::string& text) { writeString(name, text); }
    /// Null is the empty text.
    void write(const char* text) { writeString(nullptr, text == nullptr ? "" : text); }
    void addAttribute(const char* name, const char* text) { writeString(name, text == nullptr ? "" : text); }
    void write(const zel::Name& name) { writeString(nullptr, {name.c_str(), name.length()}); }
    void addAttribute(const char* name, const zel::Name& text) {
        writeString(name, {text.c_str(), text.length()});
    }
    void write(const zel::Uuid& uuid) { addAttribute(nullptr, uuid); }
    void addAttribute(const char* name, const zel::Uuid& uuid) {
        if (char* const bytes = takeRoom(zel::Uuid::NumBytes)) [[likely]]
            std::memcpy(bytes, uuid.data(), zel::Uuid::NumBytes);
        else
            writeUuid(name, uuid);
    }
    /// Bytes as they are, in no byte order.
    virtual void write(const void* data, zel::size_t numBytes);

    /// Vectors and quaternions by their components, of which a Vec3 has three; matrices row by row.
    template <ArchiveComponents V>
    void write(const V& value) {
        for (zel::size_t i = 0; i < NumArchiveComponents<V>; ++i)
            writeScalar(nullptr, value.data() + i, componentFormOf<V>());
    }
    template <typename T>
    void write(const zel::AffineMatrix4x4T<T>& matrix) {
        write(matrix.matrix());
    }
    void write(const zel::SPDMatrix3x3& matrix) { write(matrix.matrix()); }

    template <ArchiveVector Container>
    void write(const Container& values) {
        using Element = std::remove_cvref_t<decltype(*values.data())>;
        write_vector(values.data(), values.size(), VectorElementOf<Element>::value);
    }
    /// A vector of plain elements, as a block.
    virtual void write_vector(const void* elements, zel::size_t numElements, VectorElement type);

    /// Other pointers are no values.
    template <typename T>
    requires(!std::derived_from<T, Serializable> && !std::same_as<std::remove_cv_t<T>, char>) //
        void write(const T* pointer) = delete;

    // Objects.

    /// @param mode  ByReference or ByValue; null can only be stored by reference
    void write(const Serializable* object, StorageMode mode = ByReference);
    void write(const Serializable& object, StorageMode mode = ByValue);
    /// An object that was stored before is a reference to it. Null, and an object whose serialization is off,
    /// is stored as null.
    void writeObjectByRef(const Serializable* object);
    /// The object within its owner; to store it by reference later stores it anew. An object whose
    /// serialization is off leaves a mark by which it is passed over.
    void writeObjectByVal(const Serializable& object);
    /// As writeObjectByRef, but a new object's body follows only when the outermost object is complete, so
    /// that a chain of a million objects takes no stack. Is read by InputArchive::readDeferred.
    void writeDeferred(const Serializable* object);

    /// How an object begins: its mode and, unless it is null or stored by value, its class.
    void writeObjectHeader(StorageMode mode, const StorageAgent* agent);
    void writeTypeHeader(const StorageAgent* agent);

    [[nodiscard]] ObjectEvent& getObjectEvent() noexcept { return m_objectEvent; }
    /// Bodies, by reference and by value.
    [[nodiscard]] zel::uint64 getNumObjectsWritten() const noexcept { return m_numObjects; }
    [[nodiscard]] zel::uint64 getNumObjectsWrittenByReference() const noexcept { return m_numReferences; }

protected:
    explicit OutputArchive(bool isBinary);

    // What the XML form writes in other ways. A null name means a plain value.
    virtual void writeScalar(const char* name, const void* value, ScalarForm form);
    virtual void writeString(const char* name, std::string_view text);
    virtual void writeUuid(const char* name, const zel::Uuid& uuid);
    /// What stands ahead of the elements of a vector.
    void writeVectorHead(zel::size_t numElements, VectorElement type);
    /// Hands a complete archive to the stream.
    virtual void finish();
    /// What stands ahead of the section "Version": byte order and sizes of types, which XML does not have.
    virtual void writeByteOrder();

    /// What every operation that writes begins with.
    /// @throws ArchiveException if the archive has failed or is closed
    void verifyWritable() const;
    /// Hands bytes to the stream.
    /// @throws ArchiveException if it does not take them
    void send(const void* bytes, zel::size_t numBytes);

private:
    struct IdEntry {
        zel::uint32 id;
        zel::uint32 isByReference : 1; ///< its body is in the archive, or under way; 0 while it is put off
        zel::uint32 agentId : 31;
    };
    /// Objects that lie side by side, as those that were made one after the other do, come to lie side by
    /// side in the table too, page by page; the pages are spread.
    struct AddressHash : zel::HashFn<const Serializable*> {
        [[nodiscard]] zel::uint32 operator()(const Serializable* object) const noexcept {
            const auto address = reinterpret_cast<zel::uint64>(object);
            return zel::detail::hash64(address >> 12) + static_cast<zel::uint32>((address >> 5) & 127U);
        }
    };
    class Nesting;

    void writeHeader();
    void writeBuildInfo();
    void writeModifications();
    void writeNull();
    void writeBody(const Serializable& object, zel::uint32 id);
    [[nodiscard]] zel::String getDateText() const;
    bool writeHeaderAtOnce(StorageMode mode, const IdEntry& entry);
    void writeHeader(StorageMode mode, const IdEntry& entry);
    void writeNewObject(const Serializable& object, const IdEntry& entry);
    void writeKnownObject(const IdEntry& entry);
    /// The number of the class of an object that is stored by reference, which has to have an agent.
    std::pair<IdEntry&, bool> enter(const Serializable* object, bool isByReference);
    [[nodiscard]] zel::uint32 agentIdOf(const Serializable& object);
    [[nodiscard]] zel::uint32 idOf(const StorageAgent* agent);
    template <ArchiveScalar T>
    void addRawAttribute(const char* name, T value);
    void writePutOff();
    /// @return where that many bytes go, or null where they can not go into the buffer as they are
    char* takeRoom(zel::size_t numBytes) noexcept {
        if (!m_isDirect || hasFailed() || m_buffer.size() - m_numBuffered < numBytes)
            return nullptr;
        char* const room = m_buffer.data() + m_numBuffered;
        m_numBuffered += numBytes;
        return room;
    }
    void put(const void* bytes, zel::size_t numBytes);
    void flushBuffer();
    void flushStream();
    template <typename Use>
    void useStream(const Use& use);
    void letGo();

    std::ostream* m_stream = nullptr;
    zel::Vector<char> m_buffer; ///< of the whole size while the archive is open
    zel::size_t m_bufferSize = DefaultWriteBufferSize;
    zel::size_t m_numBuffered = 0; ///< bytes that await the stream
    bool m_isLittleEndian;
    bool m_isDirect = false;  ///< scalars go into the buffer as they are
    bool m_isSwapped = false; ///< the archive's byte order is not that of the machine
    bool m_useCurrentDate = true;
    bool m_isValueHeader = false; ///< while that of an object by value is written, which has no type header
    zel::String m_appName;
    zel::uint32 m_depth = 0;      ///< of the object that is being written
    zel::uint64 m_stackFloor = 0; ///< of the thread that does so
    zel::uint32 m_lastObjectId = 0;
    zel::uint64 m_numObjects = 0;
    zel::uint64 m_numReferences = 0;
    zel::HashTable<const Serializable*, IdEntry, AddressHash> m_objects;
    struct Agent {
        const StorageAgent* agent;
        bool isWritten; ///< its name is in the archive
    };
    zel::Vector<Agent> m_agents; ///< of the ids from 1 on
    zel::HashTable<const StorageAgent*, zel::uint32> m_agentIds;
    zel::uint32 m_lastAgentId = 0;             ///< asked for; 0 for none
    zel::Vector<const Serializable*> m_putOff; ///< the newest first
    ObjectEvent m_objectEvent;
};

} // namespace zelStream
