#include <zel/Log.h>
#include <zelNet/Compress.h>

#include <zlib.h>

#include <algorithm>

namespace zelNet {

using zel::size_t;
using zel::uint8;

namespace {

/// The version of zlib whose stream this source knows.
constexpr const char* StreamVersion = "1.3.1";
/// zlib counts in 32 bits: input is handed over in pieces.
constexpr size_t MaxInput = size_t{1} << 30;
constexpr size_t MaxChunk = size_t{256} << 20;

/// Bytes that come from zlib, with room that grows.
class Output {
public:
    Output(z_stream& stream, zel::VectorPOD<uint8>& bytes, size_t& numBytes, size_t firstChunk)
        : m_stream(stream), m_bytes(bytes), m_numBytes(numBytes), m_chunk(firstChunk) {}

    /// Runs a step of zlib with fresh room.
    template <typename Step>
    int run(const Step& step) {
        m_bytes.resize(m_numBytes + m_chunk);
        m_stream.next_out = m_bytes.data() + m_numBytes;
        m_stream.avail_out = static_cast<uInt>(m_chunk);
        const int result = step();
        m_numBytes += m_chunk - m_stream.avail_out;
        m_chunk = std::min(2 * m_chunk, MaxChunk);
        return result;
    }
    [[nodiscard]] bool wasFilled() const { return m_stream.avail_out == 0; }

private:
    z_stream& m_stream;
    zel::VectorPOD<uint8>& m_bytes;
    size_t& m_numBytes;
    size_t m_chunk;
};

/// Bytes that go to zlib.
class Input {
public:
    Input(z_stream& stream, const char* data, size_t size)
        : m_stream(stream), m_data(reinterpret_cast<const uint8*>(data)), m_left(size) {}

    [[nodiscard]] bool atEnd() const { return m_left == 0; }
    /// Hands over the next piece.
    void next() {
        const size_t size = std::min(m_left, MaxInput);
        m_stream.next_in = const_cast<uint8*>(m_data); // NOLINT: only read
        m_stream.avail_in = static_cast<uInt>(size);
        m_data += size;
        m_left -= size;
    }

private:
    z_stream& m_stream;
    const uint8* m_data;
    size_t m_left;
};

} // namespace

Compress::Data::Data(Mode mode) : m_stream(std::make_unique<z_stream>()), m_mode(mode) {}

Compress::Data::Data(const char* bytes, size_t size) : Data(Compressed) {
    m_output.resize(size);
    std::copy_n(bytes, size, m_output.data());
    m_numBytes = size;
}

Compress::Data::~Data() {
    endStream();
}

bool Compress::Data::init(int level) {
    if (m_initialised)
        finalize();
    endStream(); // of a start that nobody finished
    *m_stream = z_stream{};
    constexpr int StreamSize = sizeof(z_stream);
    const bool compresses = m_mode == ToCompress;
    const int result = compresses ? deflateInit_(m_stream.get(), level, StreamVersion, StreamSize)
                                  : inflateInit_(m_stream.get(), StreamVersion, StreamSize);
    if (result != Z_OK)
        return false;
    m_open = compresses ? Stream::Deflate : Stream::Inflate;
    return true;
}

void Compress::Data::trim() {
    m_output.resize(m_numBytes);
}

void Compress::Data::finalize() {
    trim();
    m_valid = true;
    endStream();
    m_initialised = true;
}

void Compress::Data::endStream() {
    if (m_open == Stream::Deflate)
        static_cast<void>(deflateEnd(m_stream.get()));
    else if (m_open == Stream::Inflate)
        static_cast<void>(inflateEnd(m_stream.get()));
    m_open = Stream::None;
}

zel::ref_ptr<Compress::Data> Compress::compress(const char* data, size_t size, int level) {
    zel::ref_ptr<Data> packed(new Data(Data::ToCompress));
    if (!packed->init(level)) {
        ZEL_LOG_WARNING("Problem initializing data for compression");
        return {};
    }
    z_stream& stream = *packed->m_stream;
    Input input(stream, data, size);
    Output output(stream, packed->m_output, packed->m_numBytes, 16384);
    do {
        input.next();
        do {
            const int result =
                output.run([&] { return deflate(&stream, input.atEnd() ? Z_FINISH : Z_NO_FLUSH); });
            if (result > Z_STREAM_END || (result < Z_OK && result != Z_BUF_ERROR)) {
                ZEL_LOG_WARNING("Error during deflate: " << result);
                return {};
            }
        } while (output.wasFilled());
    } while (!input.atEnd());
    packed->finalize();
    packed->m_ratio = static_cast<float>(size) / static_cast<float>(packed->m_numBytes);
    packed->m_mode = Data::Compressed;
    return packed;
}

zel::ref_ptr<Compress::Data> Compress::decompress(const char* data, size_t size) {
    zel::ref_ptr<Data> plain(new Data(Data::Compressed));
    if (!plain->init(0)) {
        ZEL_LOG_WARNING("Problem initializing data for compression");
        return {};
    }
    z_stream& stream = *plain->m_stream;
    Input input(stream, data, size);
    Output output(stream, plain->m_output, plain->m_numBytes, 16834);
    int result = size == 0 ? Z_STREAM_END : Z_OK;
    while (result != Z_STREAM_END && !input.atEnd()) {
        input.next();
        do {
            result = output.run([&] { return inflate(&stream, Z_NO_FLUSH); });
            // Without progress it waits for more input.
            if (result == Z_NEED_DICT || (result < Z_OK && result != Z_BUF_ERROR)) {
                ZEL_LOG_WARNING("Error during inflate: " << result);
                return {};
            }
        } while (result != Z_STREAM_END && output.wasFilled());
    }
    if (result != Z_STREAM_END) {
        ZEL_LOG_WARNING("Error during inflate: truncated");
        return {};
    }
    plain->m_mode = Data::Decompressed;
    plain->finalize();
    return plain;
}

zel::ref_ptr<Compress::Data> Compress::decompress(Data* data) {
    if (!data->m_valid) {
        ZEL_LOG_WARNING("Cannot decompress non-valid data");
        return {};
    }
    if (data->m_mode != Data::Compressed) {
        ZEL_LOG_WARNING("Cannot decompress already decompressed data");
        return {};
    }
    return decompress(reinterpret_cast<const char*>(data->m_output.data()), data->m_numBytes);
}

} // namespace zelNet
