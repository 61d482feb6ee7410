#include "ElementForm.h"
#include "FrameOverlay.h"
#include "FrameWalk.h"

#include <zel/Exception.h>
#include <zel/Verify.h>
#include <zelData/Attribute.h>
#include <zelData/Buffer.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityStorage.h>
#include <zelData/Format.h>
#include <zelData/FrameIoFactory.h>
#include <zelData/FrameNodes.h>
#include <zelData/FrameTranspose.h>
#include <zelData/Track.h>
#include <zelData/Type.h>
#include <zelData/Value.h>
#include <zelData/ValueT.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <limits>
#include <stdexcept>
#include <string>

namespace zelData {

namespace {

using zel::uint64;

/// For each track: those of a thousand tracks stay in the cache.
constexpr uint64 GatheredBytes = 1024;

void append(Buffer* buffer, const void* element) {
    const uint64 size = buffer->size();
    buffer->resize(size + 1, false);
    std::memcpy(buffer->getElement(size), element, buffer->getElementSize());
}

/// Whether an element says something without the rest of its frame.
bool standsAlone(const Format* format) {
    const ElementForm form = elementFormOf(format);
    return format->getSize() != 0 &&
           (form == ElementForm::Plain || form == ElementForm::Text || form == ElementForm::Handle);
}

} // namespace

// A storage as it was last seen

class FrameTranspose::Storage {
public:
    struct Column {
        zel::Name name;
        zel::ref_ptr<Buffer> buffer;
        bool isOwn = false; // a copy, and not the buffer of a frame
        uint64 numElements = 1;
        // Of the buffer, for all tracks of the column
        const Format* format = nullptr;
        const char* elements = nullptr;
        uint64 numInstances = 0;
        uint64 stride = 0; // of an instance, in bytes
    };

    explicit Storage(const zel::Path& path) : m_path(path), m_names(namesOf(path)) {}

    /// @return the place of the column
    uint64 addColumn(const zel::Name& name) {
        for (uint64 i = 0; i < m_columns.size(); ++i)
            if (m_columns[i].name == name)
                return i;
        m_columns.push_back({});
        m_columns.back().name = name;
        return m_columns.size() - 1;
    }
    [[nodiscard]] const Column& column(uint64 i) const { return m_columns[i]; }
    [[nodiscard]] Buffer* idToIndex() const { return m_idToIndex.get(); }
    [[nodiscard]] uint64 numIds() const { return m_numIds; }
    [[nodiscard]] uint64 indexOf(zel::uint32 id) const {
        return m_wideIds != nullptr ? m_wideIds[id] : uint64{m_narrowIds[id]};
    }

    void clear() {
        m_idToIndex = nullptr;
        m_row = zel::InvalidIndex;
        for (Column& column : m_columns)
            column.buffer = nullptr;
    }

    /// Takes what the frame tells, once for each row.
    void update(const Frame* frame, uint64 row) {
        if (m_row == row)
            return;
        const auto* node = dynamic_cast<const Frame::EntityStorage*>(findNode(frame, m_names));
        if (node == nullptr && (frame->isKeyFrame() || !m_idToIndex))
            fail("Unable to locate", frame);
        if (node != nullptr)
            take(frame, node);
        look();
        m_row = row;
    }
    /// The row was taken back: the next one, of another frame, has its number.
    void forgetRow() { m_row = zel::InvalidIndex; }

private:
    [[noreturn]] void fail(const char* fault, const Frame* frame) const {
        ZEL_THROW(std::runtime_error,
                  zel::String::format("FrameTranspose: %s storage %s in frame %llu",
                                      fault,
                                      m_path.c_str(),
                                      static_cast<unsigned long long>(frame->getIndex())));
    }

    void take(const Frame* frame, const Frame::EntityStorage* node) {
        if (Buffer* ids = node->getIdToIndexBuffer()) {
            if (ids->getFormat() != getFormat("UInt") && ids->getFormat() != getFormat("UInt:32bit"))
                fail("No numbers in idToIndex buffer for", frame);
            m_idToIndex = ids;
        } else if (frame->isKeyFrame() || !m_idToIndex) {
            fail("Unable to locate idToIndex buffer for", frame);
        }
        for (Column& column : m_columns)
            take(column, frame, node);
    }

    /// Each row anew: the elements move when whoever has the frames changes them, or a row fails midway.
    void look() {
        m_numIds = m_idToIndex->size();
        const bool isWide = m_idToIndex->getElementSize() == sizeof(uint64);
        m_wideIds = isWide ? m_idToIndex->data<uint64>() : nullptr;
        m_narrowIds = isWide ? nullptr : m_idToIndex->data<zel::uint32>();
        for (Column& column : m_columns) {
            if (!column.buffer)
                continue;
            column.format = column.buffer->getFormat();
            column.elements = column.buffer->data<char>();
            column.numInstances = column.buffer->size() / column.numElements;
            column.stride = column.buffer->getElementSize() * column.numElements;
        }
    }

    void take(Column& column, const Frame* frame, const Frame::EntityStorage* node) {
        Object* const child = node->findObject(column.name);
        const Attribute* attribute =
            node->getModel() == nullptr ? nullptr : node->getModel()->getAttribute(column.name);
        if (attribute != nullptr)
            column.numElements = std::max<uint64>(attribute->getNumElements(), 1);
        if (auto* whole = dynamic_cast<Buffer*>(child)) {
            column.buffer = whole;
            column.isOwn = false;
            if (attribute == nullptr)
                column.numElements =
                    std::max<uint64>(node->size() == 0 ? 1 : whole->size() / node->size(), 1);
            return;
        }
        if (!column.buffer)
            return;
        const auto* part = dynamic_cast<const Frame::PartialBuffer*>(child);
        const uint64 size = node->size() * column.numElements;
        if (part == nullptr && column.buffer->size() == size)
            return;
        if (part != nullptr && !fits(part, column.buffer.get()))
            fail(zel::String::format("The part of '%s' does not fit to the column of", column.name.c_str())
                     .c_str(),
                 frame);
        if (!column.isOwn) {
            column.buffer = zel::ref_ptr<Buffer>(column.buffer->clone());
            // The frame may be another thread's as well, and go at any time.
            column.buffer->setOriginalBuffer(column.buffer.get());
            column.isOwn = true;
        }
        if (part == nullptr)
            column.buffer->resize(size);
        else
            scatter(part, column.buffer.get());
    }

    static bool fits(const Frame::PartialBuffer* part, const Buffer* column) {
        const Buffer* data = part->getDataBuffer();
        return data != nullptr && data->getFormat() == column->getFormat() && data->size() == part->size();
    }

    zel::Path m_path;
    zel::Vector<zel::Name> m_names;
    zel::ref_ptr<Buffer> m_idToIndex;
    uint64 m_numIds = 0;
    const uint64* m_wideIds = nullptr; // its elements, of one of the two sizes
    const zel::uint32* m_narrowIds = nullptr;
    zel::Vector<Column> m_columns;
    uint64 m_row = zel::InvalidIndex;
};

// Tracks

FrameTranspose::Track::Track(const zel::Path& path) : m_path(path) {}

FrameTranspose::Track::~Track() = default;

FrameTranspose::ValueTrack::ValueTrack(const zel::Path& path) : Track(path), m_names(namesOf(path)) {}

FrameTranspose::ValueTrack::~ValueTrack() = default;

FrameTranspose::AttributeTrack::AttributeTrack(const zel::Path& path,
                                               const zel::Name& name,
                                               zel::uint32 instanceId)
    : Track(path), m_name(name), m_instanceId(instanceId) {}

FrameTranspose::AttributeTrack::~AttributeTrack() = default;

Buffer* FrameTranspose::Track::getBuffer() {
    flush();
    return m_buffer.get();
}

void FrameTranspose::Track::appendSlowly(const Format* format,
                                         const void* elements,
                                         uint64 numElements,
                                         uint64 row) {
    if (!m_buffer) {
        if (!standsAlone(format))
            ZEL_THROW(std::runtime_error,
                      zel::String::format("FrameTranspose: Elements of format %s can not stand alone: '%s'",
                                          format->fullName().c_str(),
                                          m_path.c_str()));
        m_buffer = new Buffer(m_path.back(), format);
        m_format = format;
        m_elementSize = format->getSize();
        m_firstRow = row;
        m_numElements = numElements;
        m_gathered.resize(m_buffer->hasPlainElements() ? GatheredBytes : 0);
        if (numElements != 1) {
            const zel::ref_ptr<Value> count(new ValueT<uint64>("elementArraySize", numElements));
            m_buffer->setElementArraySize(count.get());
        }
    }
    if (m_format != format || m_numElements != numElements)
        ZEL_THROW(std::runtime_error,
                  zel::String::format("FrameTranspose: The format of '%s' changes from %s to %s",
                                      m_path.c_str(),
                                      m_format->fullName().c_str(),
                                      format->fullName().c_str()));
    const uint64 numBytes = numElements * m_elementSize;
    flush();
    if (numBytes <= m_gathered.size()) {
        append(format, elements, numElements, row);
        return;
    }
    const uint64 size = m_buffer->size();
    m_buffer->resize(size / numElements + 1);
    format->copyElements(m_buffer->getElement(size), elements, numElements);
}

void FrameTranspose::Track::flush() {
    if (m_numGathered == 0)
        return;
    const uint64 size = m_buffer->size();
    const uint64 numRows = (size + m_numGathered / m_elementSize) / m_numElements;
    if (numRows * m_numElements > m_buffer->capacity() && size != 0)
        m_buffer->reserve(2 * numRows);
    m_buffer->resize(numRows, false);
    std::memcpy(m_buffer->getElement(size), m_gathered.data(), m_numGathered);
    m_numGathered = 0;
}

/// Takes back what was appended beyond that many rows.
void FrameTranspose::Track::rewind(uint64 numRows) {
    if (!m_buffer)
        return;
    if (m_firstRow >= numRows) {
        clear();
        return;
    }
    flush();
    if (m_buffer->size() > (numRows - m_firstRow) * m_numElements)
        m_buffer->resize(numRows - m_firstRow);
}

void FrameTranspose::Track::clear() {
    m_buffer = nullptr;
    m_format = nullptr;
    m_numGathered = 0;
    m_firstRow = zel::InvalidIndex;
}

Buffer* FrameTranspose::AttributeTrack::getIdToIndexBuffer() const noexcept {
    return m_storage ? m_storage->idToIndex() : nullptr;
}

Buffer* FrameTranspose::AttributeTrack::getCurrentFrameAttributeBuffer() const noexcept {
    return m_storage ? m_storage->column(m_column).buffer.get() : nullptr;
}

// The transpose

FrameTranspose::FrameTranspose(JournalArchive::Session* session) : FrameWriter(false), m_session(session) {
    zelVerify(session);
    zelVerifyN(session->getJournal() != nullptr,
               "the session '%s' belongs to no journal",
               session->getName().c_str());
}

FrameTranspose::FrameTranspose(bool threaded) : FrameWriter(threaded) {}

FrameTranspose::~FrameTranspose() = default;

FrameTranspose::ValueTrack* FrameTranspose::registerTrack(const zel::Path& path) {
    const zel::ref_ptr<ValueTrack> track(new ValueTrack(path));
    registerTrack(track.get());
    return track.get();
}

FrameTranspose::AttributeTrack*
FrameTranspose::registerTrack(const zel::Path& path, const zel::Name& attributeName, zel::uint32 instanceId) {
    const zel::ref_ptr<AttributeTrack> track(new AttributeTrack(path, attributeName, instanceId));
    registerTrack(track.get());
    return track.get();
}

void FrameTranspose::registerTrack(Track* track) {
    zelVerify(track);
    zelVerifyN(!track->getPath().empty(), "a track needs a path");
    zelVerifyN(!m_time, "'%s': tracks are registered ahead of the first frame", track->getPath().c_str());
    if (auto* ofAttribute = dynamic_cast<AttributeTrack*>(track)) {
        zelVerifyN(!ofAttribute->m_storage, "'%s': the track is registered", track->getPath().c_str());
        auto found = m_storages.find(track->getPath());
        if (found == m_storages.end())
            found = m_storages.insert(track->getPath(), std::make_shared<Storage>(track->getPath()));
        ofAttribute->m_storage = found->value;
        ofAttribute->m_column = ofAttribute->m_storage->addColumn(ofAttribute->getName());
        m_attributeTracks.push_back(ofAttribute);
    } else {
        auto* ofValue = dynamic_cast<ValueTrack*>(track);
        zelVerifyN(ofValue, "'%s': a track is of a value or of an attribute", track->getPath().c_str());
        const bool isNew =
            std::find(m_valueTracks.begin(), m_valueTracks.end(), ofValue) == m_valueTracks.end();
        zelVerifyN(isNew, "'%s': the track is registered", track->getPath().c_str());
        m_valueTracks.push_back(ofValue);
    }
    m_tracks.push_back(track);
}

void FrameTranspose::setFrameStride(uint64 stride) {
    zelVerify(stride > 0);
    m_frameStride = stride;
}

uint64 FrameTranspose::getNumRows() const {
    return m_time ? m_time->size() : 0;
}

void FrameTranspose::clear() {
    m_time = nullptr;
    m_index = nullptr;
    for (const zel::ref_ptr<Track>& track : m_tracks)
        track->clear();
    for (const auto& [path, storage] : m_storages)
        storage->clear();
}

void FrameTranspose::writeFrame(const Frame* frame) {
    const uint64 row = getNumRows();
    try {
        for (ValueTrack* track : m_valueTracks)
            updateValueTrack(track, frame, row);
        for (AttributeTrack* track : m_attributeTracks)
            updateAttributeTrack(track, frame, row);
    } catch (...) {
        for (const zel::ref_ptr<Track>& track : m_tracks)
            track->rewind(row);
        for (const auto& [path, storage] : m_storages)
            storage->forgetRow();
        throw;
    }
    if (!m_time) {
        m_time = new Buffer("time", getFormat("Real"));
        m_index = new Buffer("index", getFormat("UInt"));
    }
    const double stamp = frame->getTimeStamp();
    const uint64 index = frame->getIndex();
    zelData::append(m_time.get(), &stamp);
    zelData::append(m_index.get(), &index);
}

void FrameTranspose::updateValueTrack(ValueTrack* track, const Frame* frame, uint64 row) {
    Object* node = findNode(frame, track->m_names);
    if (auto* value = dynamic_cast<Value*>(node)) {
        track->append(value->getFormat(), value->getData(), 1, row);
    } else if (const auto* text = dynamic_cast<const Buffer*>(node); text != nullptr && text->size() == 1) {
        track->append(text->getFormat(), text->getPtr(), 1, row);
    } else if (track->m_buffer) {
        track->flush();
        // Its elements may move while it grows.
        const zel::ref_ptr<Value> last(new Value("last", track->m_buffer->getFormat()));
        last->set(track->m_buffer->getElement(track->m_buffer->size() - 1));
        track->append(track->m_buffer->getFormat(), last->getData(), 1, row);
    }
}

void FrameTranspose::updateAttributeTrack(AttributeTrack* track, const Frame* frame, uint64 row) {
    track->m_storage->update(frame, row);
    const Storage& storage = *track->m_storage;
    const Storage::Column& column = storage.column(track->m_column);
    zelVerifyAs(storage.idToIndex() != nullptr, "track->m_idToIndexBuffer");
    zelVerifyAs(track->getInstanceId() < storage.numIds(), "track->getInstanceId() < idToIndex.size()");
    zelVerifyAs(column.buffer != nullptr, "track->m_currentFrameAttributeBuffer");
    const uint64 index = storage.indexOf(track->getInstanceId());
    zelVerifyAs(index < column.numInstances, "index < currentAttributeBuffer->size()");
    track->append(column.format, column.elements + index * column.stride, column.numElements, row);
}

// Reading a session

void FrameTranspose::extractFrames() {
    extractFrames(zel::Range<double>(-1, std::numeric_limits<double>::infinity()));
}

/// Lets the reader read nothing but what is registered.
void FrameTranspose::bind(FrameReader* reader) const {
    for (const zel::ref_ptr<Track>& track : m_tracks) {
        const zel::Path& path = track->getPath();
        if (const auto* ofAttribute = dynamic_cast<const AttributeTrack*>(track.get())) {
            reader->addDataBinding(path + EntityStorage::IdToIndexName, false);
            reader->addDataBinding(path + ofAttribute->getName(), false);
        } else {
            reader->addDataBinding(path, false);
        }
    }
}

void FrameTranspose::extractFrames(const zel::Range<double>& range) {
    zelVerifyN(m_session, "a transpose without a session extracts nothing");
    clear();
    const zel::ref_ptr<FrameReader> reader(FrameIoFactory::createFrameReader(m_session.get()));
    zelVerifyN(reader, "'%s': the journal has no reader", m_session->getName().c_str());
    bind(reader.get());
    /// The track holds this object, so that it must not stay.
    struct Feed {
        Feed(FrameTranspose* transpose, FrameReader* input) : owner(transpose) {
            owner->m_track = new zelData::Track(input, owner);
        }
        Feed(const Feed&) = delete;
        Feed& operator=(const Feed&) = delete;
        ~Feed() {
            owner->m_track->stop();
            owner->m_track = nullptr;
            owner->setTrack(nullptr);
        }
        FrameTranspose* owner;
    };
    const zel::ref_ptr<FrameTranspose> keep(this);
    {
        const Feed feed(this, reader.get());
        m_track->setFrameStride(m_frameStride);
        (void)m_track->jumpToTime(range.lower()); // ahead of the start: nothing else is read
        m_track->start();
        while (const zel::ref_ptr<Frame> frame = m_track->popFrame(true)) {
            if (frame->getTimeStamp() > range.upper())
                break;
            writeFrame(frame.get());
        }
        if (const std::exception_ptr failure = m_track->getException())
            std::rethrow_exception(failure);
    }
    verifyData();
}

void FrameTranspose::verifyData() const {
    std::string lacking;
    for (const zel::ref_ptr<Track>& track : m_tracks)
        if (!track->m_buffer)
            lacking += (lacking.empty() ? "'" : ", '") + track->getPath().str() + "'";
    if (!lacking.empty())
        ZEL_THROW(std::runtime_error,
                  zel::String::format("FrameTranspose: The session '%s' holds no data for %s",
                                      m_session->getName().c_str(),
                                      lacking.c_str()));
}

} // namespace zelData
