#include "ArchiveHeader.h"
#include "ArchiveLink.h"
#include "ArchiveReader.h"
#include "ArchiveVectors.h"

#include <zelStream/InputArchive.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>

// The stream of an archive, and the values in it.

namespace zelStream {

namespace {

/// Memory for what a stream that can not be positioned says is to come grows by this much at a time at least.
constexpr zel::uint64 Step = zel::uint64{1} << 20;

/// How much more to take of `left` bytes when `taken` are there.
zel::uint64 nextStep(zel::uint64 taken, zel::uint64 left) {
    return std::min(left, std::max(taken, Step));
}

zel::String nameOf(VectorElement type) {
    constexpr std::array<const char*, NumVectorElements> Names{
        "float", "double", "Vec2f", "Vec2d", "Vec3f", "Vec3d", "Vec4f", "Vec4d", "uint16"};
    return Names[static_cast<zel::size_t>(type)];
}

/// Sets the fourth component of each Vec3 to zero.
void clearPadding(void* elements, zel::uint64 numElements, VectorElementForm form) {
    if (form.numComponents == form.numStoredComponents)
        return;
    char* padding = static_cast<char*>(elements) + zel::size_t{form.width} * form.numComponents;
    for (zel::uint64 i = 0; i < numElements; ++i, padding += form.size())
        std::memset(padding, 0, form.width);
}

template <typename To, typename From>
void convert(void* target, const void* source, zel::uint64 numWords) {
    auto* to = static_cast<char*>(target);
    const auto* from = static_cast<const char*>(source);
    for (zel::uint64 i = 0; i < numWords; ++i, to += sizeof(To), from += sizeof(From)) {
        From word;
        std::memcpy(&word, from, sizeof(From));
        const To converted = static_cast<To>(word);
        std::memcpy(to, &converted, sizeof(To));
    }
}

} // namespace

InputArchive::InputArchive() : InputArchive(true) {}

InputArchive::InputArchive(bool isBinary) : Archive(isBinary), m_link(new detail::ArchiveLink(this)) {}

InputArchive::~InputArchive() {
    InputArchive::close();
    m_link->clear();
}

void InputArchive::open(std::istream& stream) {
    if (isOpen())
        throw ArchiveException("The archive is open");
    reset();
    m_isOpen = true;
    try {
        init(stream);
        readHeader();
    } catch (...) {
        close();
        throw;
    }
    warnOfNewerWriter();
}

void InputArchive::init(std::istream& stream) {
    m_reader = std::make_unique<ArchiveReader>(stream, m_ahead);
}

void InputArchive::close() {
    dropSections(0);
    m_reader.reset();
    m_isOpen = false;
    letGo();
}

bool InputArchive::isAtEnd() {
    verifyReadable();
    return m_reader->isAtEnd();
}

zel::uint64 InputArchive::getNumBytesRead() const {
    return m_numBytesRead;
}

void InputArchive::verifyReadable() const {
    verifySound();
    if (!isOpen())
        fail("Archive not opened");
}

void InputArchive::failShort(zel::uint64 numBytes) {
    failForGood(
        "Error occurred while reading " + std::to_string(numBytes) +
        " bytes from the input stream. Total number of bytes read: " + std::to_string(m_numBytesRead));
}

// Values.

void InputArchive::readBytes(void* bytes, zel::size_t numBytes) {
    const zel::size_t n = m_reader->read(bytes, numBytes);
    m_numBytesRead += n;
    if (n == numBytes) [[likely]]
        return;
    std::memset(static_cast<char*>(bytes) + n, 0, numBytes - n);
    failShort(numBytes);
}

/// Of what is read in one go, which makes room for it ahead of reading.
void InputArchive::verifyLeft(zel::uint64 count, zel::uint64 size) {
    if (count <= m_reader->getNumBytesLeft() / size)
        return;
    zel::uint64 numBytes = 0;
    if (__builtin_mul_overflow(count, size, &numBytes))
        numBytes = std::numeric_limits<zel::uint64>::max();
    failShort(numBytes);
}

void InputArchive::readNumber(void* value, zel::size_t size) {
    readBytes(value, size);
    if (!m_endianMatch)
        swapWords(value, value, 1, size);
}

template <typename T>
void InputArchive::readCorrectNumBytes(void* value, bool isInteger) {
    zel::uint8 size = 0;
    readBytes(&size, 1);
    if (size == sizeof(T)) {
        T read;
        readNumber(&read, sizeof(T));
        std::memcpy(value, &read, sizeof(T));
        return;
    }
    if (sizeof(T) != 8 || size != 4 || !isInteger)
        fail(zel::String::format("Invalid size of data read: %d. Max is %d bytes for a scalar value",
                                 static_cast<int>(size),
                                 static_cast<int>(sizeof(T))));
    using Narrow = std::conditional_t<std::is_signed_v<T>, zel::int32, zel::uint32>;
    Narrow read = 0;
    readNumber(&read, sizeof(read));
    const T widened = static_cast<T>(read);
    std::memcpy(value, &widened, sizeof(T));
}

void InputArchive::readScalar(const char*, void* value, ScalarForm form) {
    verifyReadable();
    if (form.isRaw) {
        readNumber(value, form.size);
        return;
    }
    const bool isInteger = form.kind == ScalarForm::Signed || form.kind == ScalarForm::Unsigned;
    switch (form.size) {
    case 1:
        readCorrectNumBytes<zel::uint8>(value, isInteger);
        break;
    case 2:
        readCorrectNumBytes<zel::uint16>(value, isInteger);
        break;
    case 4:
        readCorrectNumBytes<zel::uint32>(value, isInteger);
        break;
    default:
        if (form.kind == ScalarForm::Signed)
            readCorrectNumBytes<zel::int64>(value, true);
        else
            readCorrectNumBytes<zel::uint64>(value, isInteger);
    }
    if (form.kind == ScalarForm::Boolean) {
        const bool isTrue = *static_cast<const zel::uint8*>(value) != 0;
        std::memcpy(value, &isTrue, sizeof(isTrue));
    }
}

void InputArchive::readString(const char*, std::string& text) {
    verifyReadable();
    zel::uint32 length = 0;
    readNumber(&length, sizeof(length));
    verifyLeft(length, 1);
    std::string read;
    while (read.size() < length) {
        const zel::size_t taken = read.size();
        const zel::uint64 left = length - taken;
        read.resize(taken + (m_reader->isSeekable() ? left : nextStep(taken, left)));
        readBytes(read.data() + taken, read.size() - taken);
    }
    text = std::move(read);
}

void InputArchive::readUuid(const char*, zel::Uuid& uuid) {
    verifyReadable();
    zel::Uuid read;
    readBytes(read.data(), zel::Uuid::NumBytes);
    uuid = read;
}

void InputArchive::read(zel::Name& name) {
    std::string text;
    readString(nullptr, text);
    name = zel::Name(text);
}

void InputArchive::getAttribute(const char* name, zel::Name& text) {
    std::string read;
    readString(name, read);
    text = zel::Name(read);
}

void InputArchive::read(zel::SPDMatrix3x3& matrix) {
    zel::Matrix3x3d general;
    read(general);
    matrix = zel::SPDMatrix3x3(general);
}

void InputArchive::read(void* data, zel::size_t numBytes) {
    verifyReadable();
    readBytes(data, numBytes);
}

// Vectors.

void InputArchive::read_vector(const VectorSink& sink, VectorElement type) {
    const auto [numElements, stored] = readVectorHead(type);
    verifyLeft(numElements, formOf(stored).size());
    if (numElements == 0)
        sink.resize(0);
    else if (stored == type)
        readInto(sink, numElements, type);
    else
        convertInto(sink, numElements, stored, type);
}

InputArchive::VectorHead InputArchive::readVectorHead(VectorElement wanted) {
    verifyReadable();
    const VectorElementForm wantedForm = formOf(wanted);
    zel::uint64 numElements = 0;
    read(numElements);
    zel::uint64 elementSize = wantedForm.size();
    zel::uint32 width = wantedForm.width;
    auto stored = static_cast<zel::uint32>(wanted);
    if (m_serializationVersion >= WithElementSize) {
        read(elementSize);
        read(width);
    }
    if (m_serializationVersion >= WithElementType)
        read(stored);
    else if (wanted != VectorElement::UInt16) {
        if (width != 4)
            fail("Error reading binary vector. Probably a mix of 32/64 binary dums. Use ZEL with "
                 "serialization "
                 "version 28 or higher.");
        stored &= ~1U; // of float
        if (m_serializationVersion < WithElementSize)
            elementSize = formOf(static_cast<VectorElement>(stored)).size();
    }
    if (stored >= NumVectorElements)
        fail("A vector has elements of the unknown type " + std::to_string(stored));
    const auto storedType = static_cast<VectorElement>(stored);
    const VectorElementForm form = formOf(storedType);
    if (!isSameShape(storedType, wanted))
        fail("A vector of " + nameOf(storedType) + " can not be read as one of " + nameOf(wanted));
    if (elementSize != form.size() || width != form.width)
        fail("A vector of " + nameOf(storedType) + " has elements of " + std::to_string(elementSize) +
             " bytes with numbers of " + std::to_string(width));
    return {numElements, storedType};
}

void InputArchive::readInto(const VectorSink& sink, zel::uint64 numElements, VectorElement type) {
    const VectorElementForm form = formOf(type);
    for (zel::uint64 taken = 0; taken < numElements;) {
        const zel::uint64 left = numElements - taken;
        const zel::uint64 n =
            m_reader->isSeekable() ? left : nextStep(taken * form.size(), left * form.size()) / form.size();
        char* const target = static_cast<char*>(sink.resize(taken + n)) + taken * form.size();
        readBytes(target, n * form.size());
        if (!m_endianMatch)
            swapWords(target, target, n * form.numStoredComponents, form.width);
        clearPadding(target, n, form);
        taken += n;
    }
}

void InputArchive::convertInto(const VectorSink& sink,
                               zel::uint64 numElements,
                               VectorElement stored,
                               VectorElement wanted) {
    const VectorElementForm from = formOf(stored);
    const VectorElementForm to = formOf(wanted);
    std::array<char, 4096> block{};
    for (zel::uint64 taken = 0; taken < numElements;) {
        const zel::uint64 n = std::min<zel::uint64>(numElements - taken, block.size() / from.size());
        const zel::uint64 numWords = n * from.numStoredComponents;
        readBytes(block.data(), n * from.size());
        if (!m_endianMatch)
            swapWords(block.data(), block.data(), numWords, from.width);
        char* const target = static_cast<char*>(sink.resize(taken + n)) + taken * to.size();
        if (from.width < to.width)
            convert<double, float>(target, block.data(), numWords);
        else
            convert<float, double>(target, block.data(), numWords);
        clearPadding(target, n, to);
        taken += n;
    }
}

} // namespace zelStream
