#include "ArchiveFixture.h"

#include <stdexcept>
#include <streambuf>

using fleet::Scripted;
using fleet::Wheel;
using testing::HasSubstr;
using zel::ref_ptr;
using zel::uint32;
using zelStream::OutputArchive;
using zelStream::Serializable;
using zelTest::archiveErrorOf;

// How an archive hands its bytes to the stream, and what becomes of it where something fails meanwhile.

namespace {

/// Notes how it is written to; takes so many bytes and no more.
class NotingBuffer : public std::streambuf {
public:
    explicit NotingBuffer(std::size_t limit = ~std::size_t{0}) : m_limit(limit) {}
    std::string bytes;
    std::vector<std::size_t> writes;
    int numFlushes = 0;

protected:
    std::streamsize xsputn(const char* data, std::streamsize n) override {
        const std::size_t taken = std::min(static_cast<std::size_t>(n), m_limit - bytes.size());
        bytes.append(data, taken);
        writes.push_back(taken);
        return static_cast<std::streamsize>(taken);
    }
    int_type overflow(int_type c) override {
        if (traits_type::eq_int_type(c, traits_type::eof()) || bytes.size() == m_limit)
            return traits_type::eof();
        bytes += traits_type::to_char_type(c);
        writes.push_back(1);
        return c;
    }
    int sync() override {
        ++numFlushes;
        return 0;
    }

private:
    std::size_t m_limit;
};

class OutputArchiveStreamTest : public zelTest::ArchiveFixture {
protected:
    NotingBuffer m_buffer;
    std::ostream m_stream{&m_buffer};
    OutputArchive m_archive;
};

TEST_F(OutputArchiveStreamTest, AStreamThatThrowsFailsTheArchiveForGood) {
    for (const std::size_t bufferSize : {0U, 16U, 65536U}) {
        NotingBuffer buffer(400);
        std::ostream stream(&buffer);
        stream.exceptions(std::ios::badbit | std::ios::failbit);
        OutputArchive archive;
        archive.setWriteBufferSize(bufferSize);
        const std::string error = archiveErrorOf([&] {
            archive.open(stream);
            for (int i = 0; i < 100; ++i)
                archive.write(i);
            archive.flush();
        });
        EXPECT_THAT(error, HasSubstr("The output stream does not take the archive"));
        stream.clear();
        if (archive.isOpen()) {
            EXPECT_NE(archiveErrorOf([&] { archive.close(); }), "no exception");
        }
        EXPECT_EQ(buffer.bytes.size(), 400U);
    }
}

TEST_F(OutputArchiveStreamTest, AnArchiveThatCouldNotBeOpenedIsOpenedElsewhere) {
    NotingBuffer full(0);
    std::ostream stream(&full);
    m_archive.setWriteBufferSize(0);
    EXPECT_NE(archiveErrorOf([&] { m_archive.open(stream); }), "no exception");
    EXPECT_FALSE(m_archive.isOpen());
    m_archive.open(m_stream);
    m_archive.write(7);
    m_archive.close();
    EXPECT_FALSE(m_buffer.bytes.empty());
}

TEST_F(OutputArchiveStreamTest, SmallValuesAreGathered) {
    EXPECT_EQ(m_archive.getWriteBufferSize(), 65536U);
    m_archive.open(m_stream);
    for (int i = 0; i < 1000; ++i)
        m_archive.write(i);
    EXPECT_EQ(m_buffer.writes.size(), 0U);
    m_archive.close();
    EXPECT_EQ(m_buffer.writes.size(), 1U);
}

TEST_F(OutputArchiveStreamTest, WithoutABufferEachValueGoesToTheStream) {
    m_archive.setWriteBufferSize(0);
    EXPECT_EQ(m_archive.getWriteBufferSize(), 0U);
    m_archive.open(m_stream);
    const std::size_t before = m_buffer.bytes.size();
    EXPECT_GT(before, 0U);
    m_archive.write(zel::int32{7});
    EXPECT_EQ(m_buffer.bytes.substr(before), std::string("\4\7\0\0\0", 5));
    m_archive.close();
}

TEST_F(OutputArchiveStreamTest, AValueLargerThanTheBufferGoesStraightToTheStreamBehindWhatWaits) {
    m_archive.setWriteBufferSize(1000);
    m_archive.open(m_stream);
    m_archive.flush();
    m_buffer.writes.clear();
    const std::size_t before = m_buffer.bytes.size();
    m_archive.write('a');
    const std::string block(5000, 'b');
    m_archive.write(block.data(), block.size());
    EXPECT_EQ(m_buffer.writes, (std::vector<std::size_t>{2, 5000}));
    EXPECT_EQ(m_buffer.bytes.substr(before), "\1a" + block);
}

TEST_F(OutputArchiveStreamTest, TheBytesAreTheSameWithEachSizeOfTheBuffer) {
    const auto write = [](std::size_t size) {
        std::ostringstream stream;
        OutputArchive archive;
        archive.setUseCurrentDate(false);
        archive.setWriteBufferSize(size);
        archive.open(stream, "sizes");
        for (int i = 0; i < 100; ++i) {
            archive.write(i);
            archive.write(std::string(static_cast<std::size_t>(i), 'x'));
        }
        archive.close();
        return stream.str();
    };
    const std::string expected = write(OutputArchive::DefaultWriteBufferSize);
    for (const std::size_t size : {0U, 1U, 7U, 8U, 9U, 64U, 1000U})
        EXPECT_EQ(write(size), expected) << size;
}

TEST_F(OutputArchiveStreamTest, TheSizeOfTheBufferMayChangeMeanwhile) {
    m_archive.open(m_stream);
    m_archive.flush();
    const std::size_t before = m_buffer.bytes.size();
    m_archive.write('a');
    m_archive.setWriteBufferSize(1);
    EXPECT_EQ(m_buffer.bytes.substr(before), "\1a");
    m_archive.write('b');
    m_archive.setWriteBufferSize(100);
    m_archive.write('c');
    m_archive.close();
    EXPECT_EQ(m_buffer.bytes.substr(before), "\1a\1b\1c");
}

TEST_F(OutputArchiveStreamTest, FlushHandsOverAllAndFlushesTheStream) {
    m_archive.open(m_stream);
    m_archive.write('a');
    m_archive.flush();
    EXPECT_EQ(m_buffer.numFlushes, 1);
    EXPECT_EQ(m_buffer.bytes.substr(m_buffer.bytes.size() - 2), "\1a");
}

TEST_F(OutputArchiveStreamTest, AStreamThatTakesNoMoreIsToldByClose) {
    NotingBuffer full(100);
    std::ostream stream(&full);
    m_archive.open(stream);
    m_archive.write(1);
    EXPECT_NE(archiveErrorOf([&] { m_archive.close(); }), "no exception");
    EXPECT_FALSE(m_archive.isOpen());
    EXPECT_EQ(archiveErrorOf([&] { m_archive.close(); }), "no exception"); // it is closed
}

TEST_F(OutputArchiveStreamTest, AStreamThatFailsEndsTheUseOfTheArchive) {
    NotingBuffer full(500);
    std::ostream stream(&full);
    m_archive.setWriteBufferSize(0);
    m_archive.open(stream);
    std::string error = "no exception";
    for (int i = 0; i < 1000 && error == "no exception"; ++i)
        error = archiveErrorOf([&] { m_archive.write(i); });
    EXPECT_NE(error, "no exception");
    EXPECT_TRUE(m_archive.hasFailed());
    EXPECT_EQ(archiveErrorOf([&] { m_archive.write('x'); }), error);
    EXPECT_EQ(archiveErrorOf([&] { m_archive.close(); }), error);
    EXPECT_EQ(full.bytes.size(), 500U);
}

TEST_F(OutputArchiveStreamTest, EveryPlaceWhereAStreamMayFillUpIsTold) {
    const ref_ptr<Wheel> wheel(new Wheel(1));
    const auto write = [&](std::ostream& stream) {
        OutputArchive archive;
        archive.setWriteBufferSize(16);
        archive.setUseCurrentDate(false);
        archive.open(stream, "full");
        archive.write(wheel.get());
        archive.write(zel::Vector<double>(10));
        archive.close();
    };
    std::ostringstream whole;
    write(whole);
    for (std::size_t limit = 0; limit < whole.str().size(); ++limit) {
        NotingBuffer full(limit);
        std::ostream stream(&full);
        EXPECT_NE(archiveErrorOf([&] { write(stream); }), "no exception") << limit;
        EXPECT_EQ(full.bytes, whole.str().substr(0, limit));
    }
}

TEST_F(OutputArchiveStreamTest, TheDestructorClosesAndTellsWhatFails) {
    const zelTest::LogCapture log(zel::Notify::Warning);
    {
        OutputArchive archive;
        archive.open(m_stream);
        archive.write('z');
    }
    EXPECT_EQ(m_buffer.bytes.substr(m_buffer.bytes.size() - 2), "\1z");
    EXPECT_EQ(log.texts().size(), 0U);

    NotingBuffer full(10);
    std::ostream stream(&full);
    {
        OutputArchive archive;
        archive.open(stream);
    }
    ASSERT_EQ(log.texts().size(), 1U);
    EXPECT_EQ(log.levels().front(), zel::Notify::Warning);
}

TEST_F(OutputArchiveStreamTest, AThrowWhileStoringLeavesTheArchiveFailed) {
    Scripted::s_store = [](const Scripted&, OutputArchive& archive) {
        archive.write(1);
        throw std::runtime_error("out of fuel");
    };
    const ref_ptr<Scripted> object(new Scripted);
    const ref_ptr<Wheel> wheel(new Wheel);
    for (const bool byValue : {false, true}) {
        OutputArchive archive;
        archive.open(m_stream);
        EXPECT_EQ(zelTest::whatOf([&] { byValue ? archive.write(*object) : archive.write(object.get()); }),
                  "out of fuel");
        EXPECT_TRUE(archive.hasFailed());
        EXPECT_EQ(archive.getSectionStackString(), "Archive");
        EXPECT_THAT(archiveErrorOf([&] { archive.write(wheel.get()); }), HasSubstr("out of fuel"));
        EXPECT_THAT(archiveErrorOf([&] { archive.close(); }), HasSubstr("out of fuel"));
        EXPECT_FALSE(archive.isOpen());
    }
}

TEST_F(OutputArchiveStreamTest, AThrowOfAnotherKindLeavesTheArchiveFailedToo) {
    Scripted::s_store = [](const Scripted&, OutputArchive&) { throw 7; };
    const ref_ptr<Scripted> object(new Scripted);
    m_archive.open(m_stream);
    EXPECT_THROW(m_archive.write(object.get()), int);
    EXPECT_TRUE(m_archive.hasFailed());
    EXPECT_NE(archiveErrorOf([&] { m_archive.close(); }), "no exception");
}

TEST_F(OutputArchiveStreamTest, AThrowOfTheEventLeavesTheArchiveFailed) {
    const ref_ptr<Wheel> wheel(new Wheel);
    m_archive.open(m_stream);
    m_archive.getObjectEvent().connect(
        {[](const Serializable*, uint32) { throw std::runtime_error("no room"); }});
    EXPECT_EQ(zelTest::whatOf([&] { m_archive.write(wheel.get()); }), "no room");
    EXPECT_THAT(archiveErrorOf([&] { m_archive.close(); }), HasSubstr("no room"));
}

TEST_F(OutputArchiveStreamTest, AFailedArchiveMayBeOpenedAnew) {
    Scripted::s_store = [](const Scripted&, OutputArchive&) { throw std::runtime_error("once"); };
    const ref_ptr<Scripted> object(new Scripted);
    m_archive.open(m_stream);
    EXPECT_EQ(zelTest::whatOf([&] { m_archive.write(object.get()); }), "once");
    EXPECT_THAT(archiveErrorOf([&] { m_archive.close(); }), HasSubstr("once"));
    Scripted::s_store = nullptr;
    std::ostringstream stream;
    m_archive.open(stream);
    EXPECT_FALSE(m_archive.hasFailed());
    m_archive.write(object.get());
    m_archive.close();
    zelTest::Opened archive(stream.str());
    EXPECT_NE(archive->readObjectByRef(), nullptr);
}

TEST_F(OutputArchiveStreamTest, AnEventMayDisconnectItselfAndOthers) {
    const ref_ptr<Wheel> wheels[] = {ref_ptr<Wheel>(new Wheel), ref_ptr<Wheel>(new Wheel)};
    int numFirst = 0;
    int numSecond = 0;
    zel::uint64 second = 0;
    auto& event = m_archive.getObjectEvent();
    const zel::uint64 first = event.connect({[&](const Serializable*, uint32) {
        ++numFirst;
        event.disconnect(first);
        event.disconnect(second);
    }});
    second = event.connect({[&](const Serializable*, uint32) { ++numSecond; }});
    m_archive.open(m_stream);
    for (const auto& wheel : wheels)
        m_archive.write(wheel.get());
    m_archive.close();
    EXPECT_EQ(numFirst, 1);
    EXPECT_EQ(numSecond, 0);
}

TEST_F(OutputArchiveStreamTest, AnObjectMayBeStoredByAnotherArchiveMeanwhile) {
    std::string within;
    const ref_ptr<Wheel> wheel(new Wheel(2));
    Scripted::s_store = [&](const Scripted&, OutputArchive& archive) {
        within = archiveOf([&](OutputArchive& other) { other.write(wheel.get()); });
        archive.write(wheel.get());
    };
    const ref_ptr<Scripted> object(new Scripted);
    const std::string bytes = archiveOf([&](OutputArchive& archive) { archive.write(object.get()); });
    ref_ptr<Wheel> restored;
    zelTest::Opened(within)->read(restored);
    EXPECT_EQ(restored->radius, 2);
    Scripted::s_restore = [&](Scripted&, zelStream::InputArchive& archive) { archive.read(restored); };
    zelTest::Opened archive(bytes);
    EXPECT_NE(archive->readObjectByRef(), nullptr);
    EXPECT_EQ(restored->radius, 2);
    EXPECT_EQ(restored->getUuid(), wheel->getUuid());
}

} // namespace
