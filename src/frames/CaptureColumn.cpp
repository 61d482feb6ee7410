#include "CaptureColumn.h"

#include <zel/Model.h>
#include <zel/String.h>
#include <zelData/Array.h>
#include <zelData/Buffer.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityPtr.h>
#include <zelData/EntityStorage.h>
#include <zelData/Frame.h>
#include <zelData/FrameNodes.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <algorithm>
#include <cstring>
#include <mutex>

namespace zelData {

namespace {

using zel::uint32;
using zel::uint64;

/// A piece of the size of a first-level cache.
constexpr uint64 PieceBytes = 16384;
/// What memcmp is asked for at once; where it differs, element by element.
constexpr uint64 BlockBytes = 1024;
/// Of earlier frames, for each column. With a writer on a thread there are two frames under way.
constexpr zel::size_t NumBuffersKept = 2;

/// A handle without pointer, bit by bit as an EntityPtr.
struct HandleNumbers {
    uint64 storage;
    uint32 id;
    uint32 padding;
};
static_assert(sizeof(HandleNumbers) == sizeof(EntityPtr));

/// An array without pointer, bit by bit as an AbstractArray.
struct ArrayNumbers {
    void* pointer;
    uint64 buffer;
    uint32 begin;
    uint32 end;
};
static_assert(sizeof(ArrayNumbers) == sizeof(AbstractArray));

template <typename T>
T load(const char* bytes) {
    T value;
    std::memcpy(&value, bytes, sizeof value);
    return value;
}

void gather(zel::HashTable<const EntityStorage*, uint32>& ids, const EntityModel* model) {
    for (const EntityStorage* storage : model->getStorages())
        ids.insert(storage, static_cast<const zel::Object*>(storage)->getId());
    for (const EntityModel* child : model->getChildren())
        gather(ids, child);
}

} // namespace

// Pieces

void CapturePiece::provide(uint64 n) {
    if (changed.size() < numChanged + n)
        changed.resize(std::max(numChanged + n, 2 * changed.size()));
}

CapturePiece& CapturePieces::add(CaptureColumn* column, uint64 begin, uint64 end) {
    if (m_size == m_pieces.size())
        m_pieces.push_back(std::make_unique<CapturePiece>());
    CapturePiece& piece = *m_pieces[m_size++];
    piece.column = column;
    piece.begin = begin;
    piece.end = end;
    piece.offset = piece.numChanged = 0;
    return piece;
}

uint64 CapturePieces::getMemory() const {
    uint64 sum = m_pieces.size() * sizeof(CapturePiece);
    for (const auto& piece : m_pieces)
        sum += piece->changed.capacity() * sizeof(uint32);
    return sum;
}

uint32 StorageIds::find(const EntityStorage* storage) {
    if (storage == nullptr)
        return Frame::NoId;
    if (!m_isKnown) {
        const std::lock_guard lock(zel::getTypeSystemMutex());
        m_ids.clear();
        gather(m_ids, EntityModel::getRootModel());
        m_isKnown = true;
    }
    const auto found = m_ids.find(storage);
    return found == m_ids.end() ? Frame::NoId : found->value;
}

// What there is

CaptureColumn::CaptureColumn(const Format* format, bool follows)
    : m_format(format)
    , m_form(elementFormOf(format))
    , m_elementSize(format->getSize())
    , m_isName(m_form == ElementForm::Text && format->getType()->getName() == "Name")
    , m_follows(follows) {}

CaptureColumn::~CaptureColumn() = default;

void CaptureColumn::look(
    void* data, uint64 size, Buffer* elements, StorageIds& storages, const Complaint& complaint) {
    m_live = static_cast<const char*>(data);
    m_size = data == nullptr ? 0 : size;
    m_numChanged.store(0, std::memory_order_relaxed); // no thread compares yet
    m_numPieces = 0;
    m_mode = Mode::Nothing;
    m_target = nullptr;
    m_places = nullptr;
    if (m_form == ElementForm::Handle)
        takeHandles(data, storages);
    else if (m_form == ElementForm::Array)
        takeArrays(data, elements, storages, complaint);
}

void CaptureColumn::takeHandles(const void* data, StorageIds& storages) {
    m_numbers.resize(m_size * sizeof(HandleNumbers));
    const auto* handles = static_cast<const EntityPtr*>(data);
    const EntityStorage* last = nullptr;
    HandleNumbers numbers{Frame::NoId, 0, 0};
    for (uint64 i = 0; i < m_size; ++i) {
        if (handles[i].getStorage() != last) {
            last = handles[i].getStorage();
            numbers.storage = storages.find(last);
        }
        numbers.id = numbers.storage == Frame::NoId ? EntityPtr().getId() : handles[i].getId();
        std::memcpy(m_numbers.data() + i * sizeof numbers, &numbers, sizeof numbers);
    }
    m_live = m_numbers.data();
}

void CaptureColumn::takeArrays(const void* data,
                               Buffer* elements,
                               StorageIds& storages,
                               const Complaint& complaint) {
    if (elements != nullptr && !m_elements) {
        const ElementForm form = elementFormOf(elements->getFormat());
        if (form == ElementForm::None || form == ElementForm::Vector || form == ElementForm::Array)
            complaint("the elements of its arrays can not be written to a file");
        else
            m_elements = std::make_unique<CaptureColumn>(elements->getFormat(), false);
    }
    m_numbers.resize(m_size * sizeof(ArrayNumbers));
    const auto* arrays = static_cast<const AbstractArray*>(data);
    for (uint64 i = 0; i < m_size; ++i) {
        const bool isOwn =
            m_elements && arrays[i].buffer() == elements && arrays[i].range().end() <= elements->size();
        if (!isOwn && !arrays[i].empty())
            complaint("there are arrays that show something else than the elements of the column");
        const ArrayNumbers numbers{nullptr,
                                   isOwn ? uint64{elements->getId()} : uint64{Frame::NoId},
                                   isOwn ? arrays[i].range().begin() : 0,
                                   isOwn ? arrays[i].range().end() : 0};
        std::memcpy(m_numbers.data() + i * sizeof numbers, &numbers, sizeof numbers);
    }
    m_live = m_numbers.data();
    if (m_elements)
        m_elements->look(elements == nullptr ? nullptr : elements->getPtr(),
                         elements == nullptr ? 0 : elements->size(),
                         nullptr,
                         storages,
                         complaint);
}

std::string_view CaptureColumn::textAt(uint64 i) const {
    return m_isName ? reinterpret_cast<const zel::Name*>(m_live)[i].c_str()    // NOLINT: as the format says
                    : reinterpret_cast<const zel::String*>(m_live)[i].c_str(); // NOLINT: as above
}

// What has changed

void CaptureColumn::addPieces(CapturePieces& pieces, uint64 begin, uint64 end) {
    pieces.addBytes((end - begin) * m_elementSize);
    // Texts have memory of their own, which one thread goes through.
    const uint64 step = m_form == ElementForm::Text
                            ? std::max<uint64>(end - begin, 1)
                            : std::max<uint64>(PieceBytes / std::max<uint64>(m_elementSize, 1), 1);
    for (; begin < end; begin += step)
        pieces.add(this, begin, std::min(end, begin + step));
}

void CaptureColumn::startCompare(CapturePieces& pieces) {
    m_firstPiece = pieces.size();
    addPieces(pieces, 0, numKept());
    addPieces(pieces, numKept(), m_size);
    m_numPieces = pieces.size() - m_firstPiece;
    if (m_elements)
        m_elements->startCompare(pieces);
}

void CaptureColumn::compareTexts(CapturePiece& piece) {
    for (uint64 i = piece.begin; i < piece.end; ++i) {
        if (textAt(i) == m_texts[i])
            continue;
        piece.provide(1);
        piece.changed[piece.numChanged++] = static_cast<uint32>(i - piece.begin);
    }
}

void CaptureColumn::compare(CapturePiece& piece) {
    const uint64 numChanged = m_numChanged.load(std::memory_order_relaxed); // any older one will do
    if (numChanged != 0 && numChanged * 2 >= m_size)
        return; // the whole is told, whatever comes
    if (piece.begin >= m_shadowSize) {
        piece.numChanged = piece.end - piece.begin; // all of them, without a list
    } else {
        if (m_form == ElementForm::Text)
            compareTexts(piece);
        else
            comparePlain(piece);
    }
    if (piece.numChanged != 0)
        m_numChanged.fetch_add(piece.numChanged, std::memory_order_relaxed); // a sum
}

void CaptureColumn::comparePlain(CapturePiece& piece) {
    const uint64 step = std::max<uint64>(BlockBytes / std::max<uint64>(m_elementSize, 1), 1);
    for (uint64 begin = piece.begin; begin < piece.end; begin += step) {
        const uint64 end = std::min(piece.end, begin + step);
        if (std::memcmp(live(begin), shadow(begin), (end - begin) * m_elementSize) == 0)
            continue;
        piece.provide(end - begin);
        compareBlock(piece, begin, end);
    }
}

namespace {

/// Lists those that differ without branching: few or many, in no order.
template <typename Differs>
uint64 listDiffering(uint32* list, uint64 count, uint64 first, uint64 n, const Differs& differs) {
    for (uint64 i = 0; i < n; ++i) {
        list[count] = static_cast<uint32>(first + i);
        count += uint64{differs(i)};
    }
    return count;
}

/// Of elements that are N words long.
template <typename Word, uint64 N>
uint64 listWords(uint32* list, uint64 count, uint64 first, uint64 n, const char* a, const char* b) {
    return listDiffering(list, count, first, n, [a, b](uint64 i) {
        Word difference = 0;
        for (uint64 k = i * N; k < (i + 1) * N; ++k)
            difference |=
                static_cast<Word>(load<Word>(a + k * sizeof(Word)) ^ load<Word>(b + k * sizeof(Word)));
        return difference != 0;
    });
}

} // namespace

void CaptureColumn::compareBlock(CapturePiece& piece, uint64 begin, uint64 end) {
    const char* a = live(begin);
    const char* b = shadow(begin);
    const uint64 first = begin - piece.begin;
    const uint64 n = end - begin;
    uint32* list = piece.changed.data();
    uint64& count = piece.numChanged;
    switch (m_elementSize) {
    case 1:
        count = listWords<zel::uint8, 1>(list, count, first, n, a, b);
        break;
    case 4:
        count = listWords<uint32, 1>(list, count, first, n, a, b);
        break;
    case 8:
        count = listWords<uint64, 1>(list, count, first, n, a, b);
        break;
    case 12:
        count = listWords<uint32, 3>(list, count, first, n, a, b);
        break;
    case 16:
        count = listWords<uint64, 2>(list, count, first, n, a, b);
        break;
    case 24:
        count = listWords<uint64, 3>(list, count, first, n, a, b);
        break;
    case 32:
        count = listWords<uint64, 4>(list, count, first, n, a, b);
        break;
    default:
        count = listDiffering(list, count, first, n, [&](uint64 i) {
            return std::memcmp(a + i * m_elementSize, b + i * m_elementSize, m_elementSize) != 0;
        });
    }
}

void CaptureColumn::decide(bool isKeyFrame, bool followedChanged, const CapturePieces& compared) {
    const uint64 numChanged = m_numChanged.load(std::memory_order_relaxed); // the comparison is over
    const bool isArray = m_form == ElementForm::Array;
    if (isKeyFrame)
        m_wasTold = false;
    const bool mustBeWhole = isKeyFrame || !m_wasTold || (!m_follows && followedChanged);
    const bool isSame =
        numChanged == 0 && (m_follows || m_size == m_shadowSize) &&
        !(m_elements && (m_elements->hasChanged() || m_elements->m_size != m_elements->m_shadowSize));
    if (m_size == 0 || (isSame && !mustBeWhole))
        m_mode = Mode::Nothing;
    else if (mustBeWhole || numChanged == 0 || numChanged * 2 >= m_size || isArray)
        m_mode = Mode::Whole;
    else
        m_mode = Mode::Part;
    if (m_elements)
        m_elements->m_mode = m_mode == Mode::Nothing || m_elements->m_size == 0 ? Mode::Nothing : Mode::Whole;
    uint64 offset = 0;
    for (uint64 i = m_firstPiece; m_mode == Mode::Part && i < m_firstPiece + m_numPieces; ++i) {
        compared[i].offset = offset;
        offset += compared[i].numChanged;
    }
}

// What is told

uint64 CaptureColumn::getWholeBytes() const {
    return m_size * m_elementSize + (m_elements ? m_elements->getWholeBytes() : 0);
}

uint64 CaptureColumn::getToldBytes() const {
    switch (m_mode) {
    case Mode::Nothing:
        return 0;
    case Mode::Part:
        return m_numChanged.load(std::memory_order_relaxed) * (sizeof(uint64) + m_elementSize); // as above
    default:
        return getWholeBytes();
    }
}

/// Memory for elements: that of an earlier frame, if nobody holds it any more.
zel::ref_ptr<Buffer> CaptureColumn::takeBuffer(const zel::Name& name, uint64 size) {
    const bool isPlain = m_form == ElementForm::Plain && m_format->hasPlainElements();
    zel::ref_ptr<Buffer> buffer;
    for (const zel::ref_ptr<Buffer>& kept : m_buffers)
        if (!buffer && kept->referenceCount() == 1)
            buffer = kept;
    if (!buffer) {
        buffer = new Buffer(name, m_format.get());
        if (isPlain && m_buffers.size() < NumBuffersKept)
            m_buffers.push_back(buffer);
    }
    buffer->reserve(size); // exactly, where resize would take half as much again
    buffer->resize(size, !isPlain);
    return buffer;
}

zel::ref_ptr<zel::Object> CaptureColumn::makePart(const zel::Name& name) {
    const uint64 n = m_numChanged.load(std::memory_order_relaxed); // as above
    const bool isPlain = m_form == ElementForm::Plain && m_format->hasPlainElements();
    const zel::ref_ptr<Buffer> places(new Buffer("index", getFormat("UInt")));
    const zel::ref_ptr<Buffer> data(new Buffer("data", m_format.get()));
    for (const zel::ref_ptr<Buffer>& buffer : {places, data}) {
        buffer->setId(Frame::NoId);
        buffer->reserve(n);
        buffer->resize(n, buffer == data && !isPlain);
    }
    m_places = places->data<uint64>();
    m_target = data->data<char>();
    return zel::ref_ptr<zel::Object>(new Frame::PartialBuffer(name, places.get(), data.get(), m_size));
}

zel::ref_ptr<zel::Object> CaptureColumn::make(const zel::Name& name, uint32 id, bool isValue) {
    zel::ref_ptr<zel::Object> node;
    if (m_mode == Mode::Nothing)
        return node;
    if (m_mode == Mode::Part) {
        node = makePart(name);
    } else if (isValue && m_form == ElementForm::Plain) {
        const zel::ref_ptr<Value> value(new Value(name, m_format.get()));
        m_target = static_cast<char*>(value->getData());
        node = value;
    } else {
        const zel::ref_ptr<Buffer> buffer = takeBuffer(name, m_size);
        m_target = buffer->data<char>();
        if (m_elements && m_elements->m_mode != Mode::Nothing) {
            const zel::ref_ptr<zel::Object> elements = m_elements->make("elements", Frame::NoId, false);
            buffer->setElementBuffer(dynamic_cast<Buffer*>(elements.get()));
        }
        node = buffer;
    }
    node->setId(id);
    return node;
}

void CaptureColumn::startCopy(CapturePieces& pieces) {
    if (m_mode == Mode::Whole) {
        addPieces(pieces, 0, m_size);
        m_wasTold = true;
    }
    if (m_mode != Mode::Nothing) {
        if (m_form == ElementForm::Text)
            m_texts.resize(m_size);
        else
            m_shadow.resize(m_size * m_elementSize);
    }
    m_shadowSize = m_size;
    if (m_elements)
        m_elements->startCopy(pieces);
}

/// Copies some elements in a row to their place in the node, if there is one, and to the shadow.
void CaptureColumn::copyElements(uint64 target, uint64 begin, uint64 n) {
    if (m_form == ElementForm::Text) {
        for (uint64 i = 0; i < n; ++i) {
            if (m_target != nullptr)
                m_format->copyElement(m_target + (target + i) * m_elementSize, live(begin + i));
            m_texts[begin + i] = textAt(begin + i);
        }
        return;
    }
    if (m_target != nullptr)
        std::memcpy(m_target + target * m_elementSize, live(begin), n * m_elementSize);
    std::memcpy(shadow(begin), live(begin), n * m_elementSize);
}

void CaptureColumn::copy(const CapturePiece& piece) {
    if (m_mode == Mode::Whole) {
        copyElements(piece.begin, piece.begin, piece.end - piece.begin);
        return;
    }
    const bool isNew = piece.numChanged == piece.end - piece.begin; // all of them, with or without a list
    if (isNew)
        copyElements(piece.offset, piece.begin, piece.numChanged);
    for (uint64 i = 0; i < piece.numChanged; ++i) {
        const uint64 place = piece.begin + (isNew ? i : uint64{piece.changed[i]});
        if (m_places != nullptr)
            m_places[piece.offset + i] = place;
        if (!isNew)
            copyElements(piece.offset + i, place, 1);
    }
}

uint64 CaptureColumn::getMemory() const {
    uint64 sum = m_shadow.capacity() + m_numbers.capacity() + (m_elements ? m_elements->getMemory() : 0);
    for (const std::string& text : m_texts)
        sum += sizeof(std::string) + text.capacity();
    for (const zel::ref_ptr<Buffer>& buffer : m_buffers)
        sum += buffer->capacity() * m_elementSize;
    return sum;
}

} // namespace zelData
