#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Referenced.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>

#include <memory>

struct z_stream_s;

namespace zelNet {

/// Packs bytes with zlib.
/// @threads any thread, but one at a time for each Data
class ZEL_CORE_API Compress {
public:
    class Data;

    /// @param level  from 0, which only stores, over 1, the fastest, to 9, the smallest; -1 is a compromise
    /// @return null, with a warning in the log, for another level
    [[nodiscard]] static zel::ref_ptr<Data> compress(const char* data, zel::size_t size, int level);
    /// Bytes behind the end of what was compressed are ignored.
    /// @return null, with a warning in the log, for bytes that are damaged or end too early
    [[nodiscard]] static zel::ref_ptr<Data> decompress(const char* data, zel::size_t size);
    /// Decompresses what compress has made.
    /// @return null, with a warning in the log, for anything else
    [[nodiscard]] static zel::ref_ptr<Data> decompress(Data* data);
};

/// The outcome of one operation. Owned through ref_ptr.
/// @threads external lock
class ZEL_CORE_API Compress::Data : public zel::Referenced {
public:
    enum Mode : zel::uint32 {
        ToCompress = 0,  ///< about to be compressed
        Compressed = 1,  ///< holds compressed bytes
        Decompressed = 2 ///< holds bytes as they were
    };

    /// Holds a copy of bytes that are compressed already. They do not count as valid.
    Data(const char* bytes, zel::size_t size);
    explicit Data(Mode mode);
    Data(const Data&) = delete;
    Data& operator=(const Data&) = delete;
    ~Data() override;

    [[nodiscard]] const zel::uint8* getData() const noexcept { return m_output.data(); }
    /// How many bytes were produced.
    [[nodiscard]] zel::size_t getSize() const noexcept { return m_numBytes; }
    [[nodiscard]] Mode getMode() const noexcept { return m_mode; }
    /// Whether an operation has ended well.
    [[nodiscard]] bool isValid() const noexcept { return m_valid; }
    /// What was compressed, over what became of it, in bytes; 1 where nothing was.
    [[nodiscard]] float getCompressionRatio() const noexcept { return m_ratio; }

    /// Opens the stream that the mode asks for: to compress, or to decompress.
    /// @param level  of compression
    /// @return whether it worked
    bool init(int level);
    /// Cuts the room to what was produced.
    void trim();
    /// The end of an operation: trims, closes the stream, and marks the bytes as valid.
    void finalize();

private:
    friend class Compress;
    enum class Stream : zel::uint8 { None, Deflate, Inflate };

    void endStream();

    std::unique_ptr<z_stream_s> m_stream;
    Mode m_mode;
    zel::VectorPOD<zel::uint8> m_output;
    bool m_initialised = false;
    zel::size_t m_numBytes = 0;
    bool m_valid = false;
    float m_ratio = 1;
    Stream m_open = Stream::None; // which stream is to be ended
};

} // namespace zelNet
