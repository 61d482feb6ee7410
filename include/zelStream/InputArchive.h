#pragma once

#include <zel/HashTable.h>
#include <zel/Name.h>
#include <zel/Uuid.h>
#include <zel/ref_ptr.h>
#include <zelStream/Archive.h>
#include <zelStream/ArchiveTypes.h>
#include <zelStream/RestoreListener.h>
#include <zelStream/Serializable.h>

#include <concepts>
#include <cstring>
#include <iosfwd>
#include <memory>
#include <typeinfo>
#include <utility>

namespace zelStream {

class ArchiveReader;
class StorageAgent;

/// Restores what an OutputArchive stored, by the same sequence of operations, also what older versions of the
/// library and machines of the other byte order stored.
///
///     InputArchive archive;
///     archive.open(stream);
///     zel::ref_ptr<Model> model;
///     archive.read(model);
///     archive.close();
///
/// The archive keeps each object that it made by reference alive until it is closed, so that nothing is lost
/// when a later read throws. What a file says is checked ahead of use: a damaged one ends in an
/// ArchiveException, and never takes more memory than a small multiple of its length.
///
/// In a stream that can be positioned the archive reads ahead, and `close` leaves the stream behind the last
/// byte that was read; from another one it takes no byte more than it needs. It has to stay until then.
/// @threads owner thread
class ZEL_CORE_API InputArchive : public Archive {
public:
    enum class RestoreMode : zel::uint32 { Default = 0 };

    /// A compile-time choice of the library that wrote the archive.
    struct BuildFlag {
        zel::String name;
        bool isSet = false;
    };

    InputArchive();
    /// Closes.
    ~InputArchive() override;

    /// Reads the header. Warns of an archive that a newer library wrote, or with changes that this one does
    /// not know.
    /// @throws ArchiveException if the archive is open, or the stream holds no archive; it is then closed
    virtual void open(std::istream& stream);
    /// Lets go of the stream and of the restored objects; those that nobody else holds are deleted.
    virtual void close();
    /// What the restored objects know the archive by.
    [[nodiscard]] detail::ArchiveLink* getLink() const noexcept { return m_link.get(); }
    /// Whether nothing is left to read: the stream has ended, or, of XML, the open section.
    [[nodiscard]] virtual bool isAtEnd();

    // The header.

    /// Packed by ZEL_CALC_VERSION.
    [[nodiscard]] zel::uint32 getVersion() const noexcept { return m_version; }
    [[nodiscard]] zel::uint8 getGenerationVersion() const noexcept {
        return static_cast<zel::uint8>(m_version >> 24);
    }
    [[nodiscard]] zel::uint8 getMajorVersion() const noexcept {
        return static_cast<zel::uint8>(m_version >> 16);
    }
    [[nodiscard]] zel::uint8 getMinorVersion() const noexcept {
        return static_cast<zel::uint8>(m_version >> 8);
    }
    [[nodiscard]] zel::uint8 getPatchVersion() const noexcept { return static_cast<zel::uint8>(m_version); }
    /// 0 for an archive that does not tell.
    [[nodiscard]] zel::uint16 getSerializationVersion() const noexcept { return m_serializationVersion; }
    [[nodiscard]] const zel::String& getRevision() const noexcept { return m_revision; }
    [[nodiscard]] const zel::String& getAppName() const noexcept { return m_appName; }
    [[nodiscard]] const zel::String& getBuildDate() const noexcept { return m_buildDate; }
    [[nodiscard]] const zel::String& getBuildTime() const noexcept { return m_buildTime; }
    [[nodiscard]] const zel::String& getArchiveDate() const noexcept { return m_archiveDate; }
    /// In the order of the header; none for an archive that does not tell.
    [[nodiscard]] const zel::Vector<BuildFlag>& getBuildFlags() const noexcept { return m_buildFlags; }
    /// Whether the archive's byte order is that of the machine.
    [[nodiscard]] bool getEndianMatch() const noexcept { return m_endianMatch; }
    /// False for archives below serialization version 86.
    [[nodiscard]] bool hasModification(const zel::String& hash) const override;
    /// Sorted.
    [[nodiscard]] zel::Vector<zel::String> getModifications() const;

    // Values, in the order in which they were written. A read that throws leaves its argument alone, unless
    // it is told otherwise.

    template <ArchiveScalar T>
    void read(T& value) {
        getAttribute(nullptr, value);
    }
    template <ArchiveScalar T>
    void getAttribute(const char* name, T& value) {
        if (isAhead(1 + sizeof(T)) && *m_ahead.head == sizeof(T)) [[likely]] {
            const char* const bytes = takeAhead(1 + sizeof(T)) + 1;
            if constexpr (std::same_as<T, bool>)
                value = *bytes != 0;
            else
                std::memcpy(&value, bytes, sizeof(T));
            return;
        }
        readScalar(name, &value, scalarFormOf<T>());
    }
    void read(std::string& text) { readString(nullptr, text); }
    void getAttribute(const char* name, std::string& text) { readString(name, text); }
    void read(zel::Name& name);
    void getAttribute(const char* name, zel::Name& text);
    void read(zel::Uuid& uuid) { getAttribute(nullptr, uuid); }
    void getAttribute(const char* name, zel::Uuid& uuid) {
        if (isAhead(zel::Uuid::NumBytes)) [[likely]]
            std::memcpy(uuid.data(), takeAhead(zel::Uuid::NumBytes), zel::Uuid::NumBytes);
        else
            readUuid(name, uuid);
    }
    /// Bytes as they are; what is missing at the end of the stream is zero.
    virtual void read(void* data, zel::size_t numBytes);

    template <ArchiveComponents V>
    void read(V& value) {
        V read = value;
        for (zel::size_t i = 0; i < NumArchiveComponents<V>; ++i)
            readScalar(nullptr, read.data() + i, componentFormOf<V>());
        value = read;
    }
    template <typename T>
    void read(zel::AffineMatrix4x4T<T>& matrix) {
        zel::Matrix4x4T<T> general;
        read(general);
        matrix = zel::AffineMatrix4x4T<T>(general);
    }
    void read(zel::SPDMatrix3x3& matrix);

    /// A vector of float may be read as one of double and the other way round, also of their Vec of the same
    /// dimension. Where the stream ends in the elements, the container holds some of them.
    template <ArchiveVector Container>
    void read(Container& values) {
        using Element = std::remove_cvref_t<decltype(*values.data())>;
        read_vector(VectorSink(
                        [](void* container, zel::size_t n) -> void* {
                            static_cast<Container*>(container)->resize(n);
                            return static_cast<Container*>(container)->data();
                        },
                        &values),
                    VectorElementOf<Element>::value);
    }

    // Objects.

    /// Restores an object that was stored by reference; null for null. The archive holds it until it is
    /// closed: the caller adopts it to keep it longer.
    [[nodiscard]] Serializable* readObjectByRef();
    /// Restores an object that was stored by value into one that exists.
    /// @return false, with the object left alone, if serialization was off when it was stored
    bool readObjectByVal(Serializable& object);
    /// @throws ArchiveException naming both classes if the object is no T
    template <typename T>
    requires std::derived_from<T, Serializable>
    void read(T*& object) { object = cast<T>(readObjectByRef()); }
    template <typename T>
    requires std::derived_from<T, Serializable>
    void read(zel::ref_ptr<T>& object) { object = cast<T>(readObjectByRef()); }
    /// Of an object by value.
    bool read(Serializable& object) { return readObjectByVal(object); }
    /// Reads into an existing object, stored by value, or by reference, which the object then stands for.
    /// @param mode  ByReference or ByValue
    void readVal(Serializable& object, StorageMode mode);
    /// Reads what OutputArchive::writeDeferred wrote. The pointer is set at once if the object is known, and
    /// else when the outermost object is complete: until then it has to stay where it is.
    template <typename T>
    requires std::derived_from<T, Serializable>
    void readDeferred(T*& object) {
        object = nullptr;
        readDeferredInto(&object, [](InputArchive& archive, void* place, Serializable* restored) {
            *static_cast<T**>(place) = archive.cast<T>(restored);
        });
    }
    template <typename T>
    requires std::derived_from<T, Serializable>
    void readDeferred(zel::ref_ptr<T>& object) {
        object = nullptr;
        readDeferredInto(&object, [](InputArchive& archive, void* place, Serializable* restored) {
            *static_cast<zel::ref_ptr<T>*>(place) = archive.cast<T>(restored);
        });
    }

    /// @param agent  gets the class; left alone for null, and while an object by value is read
    void readObjectHeader(StorageMode& mode, const StorageAgent*& agent);
    void readTypeHeader(const StorageAgent*& agent);

    /// Lets go of an object that was restored by reference: it is forgotten, and a later reference to it is
    /// an error.
    void removeObject(Serializable* object);
    /// Sets the finished flag of an object, and tells the listeners of it.
    void setFinished(Serializable* object);

    /// Stored, and without effect.
    void setRestoreMode(RestoreMode mode) noexcept { m_restoreMode = mode; }
    [[nodiscard]] RestoreMode getRestoreMode() const noexcept { return m_restoreMode; }
    /// Listeners are told in the order in which they were added; the archive holds them.
    void addRestoreListener(RestoreListener* listener);
    void removeRestoreListener(RestoreListener* listener);

    [[nodiscard]] virtual zel::uint64 getNumBytesRead() const;
    /// Bodies, by reference and by value.
    [[nodiscard]] zel::uint64 getNumObjectsRead() const noexcept { return m_numObjects; }

protected:
    explicit InputArchive(bool isBinary);

    friend class ArchiveReader;
    /// What was read ahead of the stream.
    struct Ahead {
        const char* head = nullptr;
        const char* end = nullptr;
    };

    /// Where the elements of a vector go.
    class VectorSink {
    public:
        /// @param makeRoom  makes room for that many elements in all, and gives their address
        VectorSink(void* (*makeRoom)(void* container, zel::size_t numElements), void* container) noexcept
            : m_makeRoom(makeRoom), m_container(container) {}
        void* resize(zel::size_t numElements) const { return m_makeRoom(m_container, numElements); }

    private:
        void* (*m_makeRoom)(void* container, zel::size_t numElements);
        void* m_container;
    };

    /// Begins with the stream: `open` has checked that the archive is closed, and reads the header next.
    virtual void init(std::istream& stream);

    // What the XML form reads in other ways. A null name means a plain value.
    virtual void readScalar(const char* name, void* value, ScalarForm form);
    virtual void readString(const char* name, std::string& text);
    virtual void readUuid(const char* name, zel::Uuid& uuid);
    virtual void read_vector(const VectorSink& sink, VectorElement type);
    /// What stands ahead of the elements of a vector: how many there are, of a type that can be read as the
    /// wanted one.
    struct VectorHead {
        zel::uint64 numElements;
        VectorElement stored;
    };
    [[nodiscard]] VectorHead readVectorHead(VectorElement wanted);
    /// For a vector or block that is longer than what is left: the archive has failed.
    [[noreturn]] void failShort(zel::uint64 numBytes);
    /// What stands ahead of the section "Version".
    virtual void readByteOrder();
    /// Compares the sizes of types with those of this machine; a difference is told once the file has turned
    /// out to be an archive.
    void readCompareBitSize();
    /// Enters a number of bytes that were read in another way.
    void countBytes(zel::uint64 numBytes) noexcept { m_numBytesRead += numBytes; }

    /// What every operation that reads begins with.
    /// @throws ArchiveException if the archive has failed or is closed
    void verifyReadable() const;

private:
    struct Entry {
        zel::ref_ptr<Serializable> held; ///< null for an object that readVal restored, and once removed
        Serializable* object;            ///< null once removed
        const StorageAgent* agent;
    };
    using Setter = void (*)(InputArchive& archive, void* place, Serializable* restored);
    /// A pointer that waits for its object.
    struct PutOff {
        void* place; ///< null where an exception came between
        Setter set;
        zel::uint32 next; ///< that waits for the same object; its index, or all ones
    };
    class Nesting;

    /// Whether that many bytes lie in the buffer, in the byte order of the machine.
    [[nodiscard]] bool isAhead(zel::size_t numBytes) const noexcept {
        return static_cast<zel::size_t>(m_ahead.end - m_ahead.head) >= numBytes && m_endianMatch &&
               !hasFailed();
    }
    const char* takeAhead(zel::size_t numBytes) noexcept {
        m_numBytesRead += numBytes;
        return std::exchange(m_ahead.head, m_ahead.head + numBytes);
    }
    void reset();
    void readHeader();
    void readBuildInfo();
    void readModifications();
    void warnOfForeignSizes() const;
    void warnOfNewerWriter() const;
    [[nodiscard]] zel::String getVersionStringMessage() const;
    template <ArchiveScalar T>
    [[nodiscard]] T getRawAttribute(const char* name);

    void readBytes(void* bytes, zel::size_t numBytes);
    void readNumber(void* value, zel::size_t size);
    template <typename T>
    void readCorrectNumBytes(void* value, bool isInteger);
    void readInto(const VectorSink& sink, zel::uint64 numElements, VectorElement type);
    void
    convertInto(const VectorSink& sink, zel::uint64 numElements, VectorElement stored, VectorElement wanted);
    void verifyLeft(zel::uint64 count, zel::uint64 size);

    template <typename Read>
    auto nested(const Read& read);
    template <typename Text, typename Read>
    auto orEnd(const Text& text, const Read& read);
    struct Record {
        StorageMode mode;
        const StorageAgent* agent;
        zel::uint32 id;
    };
    [[nodiscard]] bool readRecordAtOnce(Record& record);
    [[nodiscard]] Serializable* readRecord();
    [[nodiscard]] Serializable* readNull();
    [[nodiscard]] Serializable* readKnown(zel::uint32 id);
    [[nodiscard]] Serializable* readNew(zel::uint32 id, const StorageAgent* agent);
    [[nodiscard]] zel::uint32 readId();
    void restoreReferenced(Serializable& object, const StorageAgent* agent);
    void restoreBody(Serializable& object);
    [[nodiscard]] Entry* findEntry(zel::uint32 id);
    void enter(zel::uint32 id, Entry entry);
    void readDeferredInto(void* place, Setter set);
    void waitFor(zel::uint32 id, void* place, Setter set);
    void readPutOff();
    /// 1 if the object was removed and is kept for the pointers in it that may wait; else 0.
    [[nodiscard]] int numAwaited(const Serializable* object) const;
    void closeGaps();
    void letGo();
    template <typename T>
    T* cast(Serializable* object) const {
        // Exactly a T in most cases, which is quick to see.
        if constexpr (requires { static_cast<T*>(object); })
            if (object != nullptr && typeid(*object) == typeid(T))
                return static_cast<T*>(object);
        T* const wanted = dynamic_cast<T*>(object);
        if (wanted == nullptr && object != nullptr)
            failCast(*object, typeid(T));
        return wanted;
    }
    [[noreturn]] void failCast(const Serializable& object, const std::type_info& wanted) const;
    [[noreturn]] void failClass(const zel::String& stored, const zel::String& wanted) const;

    Ahead m_ahead;
    std::unique_ptr<ArchiveReader> m_reader; ///< the stream
    bool m_endianMatch = true;
    bool m_isValueHeader = false; ///< while that of an object by value is read, which has no type header
    bool m_isEndTold = false;     ///< an exception that names the object at the end of the file is on its way
    RestoreMode m_restoreMode = RestoreMode::Default;
    zel::uint16 m_serializationVersion = 0;
    zel::uint32 m_version = 0;
    zel::String m_revision;
    zel::String m_appName;
    zel::String m_buildDate;
    zel::String m_buildTime;
    zel::String m_archiveDate;
    zel::String m_foreignSizes; ///< of types, as the archive tells them; empty if they are ours
    zel::Vector<BuildFlag> m_buildFlags;
    zel::uint64 m_numBytesRead = 0;
    zel::uint64 m_numObjects = 0;
    zel::uint32 m_depth = 0;                                ///< of the object that is being read
    zel::uint64 m_stackFloor = 0;                           ///< of the thread that does so
    zel::Vector<Entry> m_objects;                           ///< of the ids from 1 on, as they come
    zel::HashTable<zel::uint32, Entry> m_strayObjects;      ///< of ids that leave some out
    zel::HashTable<const Serializable*, zel::uint32> m_ids; ///< once an object was removed
    bool m_hasIds = false;
    zel::HashTable<zel::uint32, const StorageAgent*> m_agents;
    const StorageAgent* m_lastAgent = nullptr;          ///< of a type header, and
    zel::uint32 m_lastAgentId = 0;                      ///< its id
    zel::HashTable<zel::uint32, zel::uint32> m_waiting; ///< the first pointer that waits for an id
    zel::Vector<PutOff> m_putOff;
    zel::Vector<zel::ref_ptr<Serializable>> m_removed; ///< while pointers in them may wait
    zel::Vector<zel::ref_ptr<RestoreListener>>
        m_listeners;                          ///< null where one was removed while they are told
    bool m_isTelling = false;                 ///< the listeners
    bool m_hasGaps = false;                   ///< in the list of them
    zel::ref_ptr<detail::ArchiveLink> m_link; ///< that the restored objects hold
};

} // namespace zelStream
