#include "JournalFixture.h"

#include <zel/Notify.h>

#include <support/Soak.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <random>

// Journals at random: against a model, killed while they are written, and with anything in them.

using zel::uint64;
using zelData::FileJournal;
using zelTest::frameOf;

namespace {

class FileJournalSoakTest : public zelTest::JournalFixture {
protected:
    void SetUp() override {
        JournalFixture::SetUp();
        zel::Notify::instance()->setNotifyLevel(zel::Notify::Error);
    }

    void goThroughModel(std::mt19937& random);
    void killAWriter(std::mt19937& random);
    void readAnything(std::mt19937& random);

    template <typename Round>
    static void soak(Round round, int atLeast = 1) {
        const auto fromSeed = [&round](unsigned seed) {
            std::mt19937 random(seed);
            round(random);
        };
        zelTest::soak(fromSeed, atLeast);
    }
    template <typename Round>
    void repeat(int times, Round round) {
        std::mt19937 random(zelTest::stressSeed());
        for (; times > 0 && !HasFailure(); --times)
            round(random);
    }
};
using FileJournalModelTest = FileJournalSoakTest;

/// Sessions that are written by several writers, with frames dropped in between.
void FileJournalSoakTest::goThroughModel(std::mt19937& random) {
    clearModel();
    std::filesystem::remove(path());
    make(random() % 2 == 0 ? "" : "a scene");
    startAt(random() % 5);
    for (int part = 0; part < 4; ++part) {
        // Some frames by a writer of their own.
        beginWriting();
        const uint64 numFrames = 1 + random() % 15;
        for (uint64 i = 0; i < numFrames; ++i)
            writer->writeFrame(makeAtRandom(random, i == 0 || random() % 7 == 0).get());
        if (random() % 4 != 0)
            writer->endOfStream();
        // Some of them dropped, by the same session or another.
        if (random() % 2 == 0)
            open(random() % 2 == 0 ? FileJournal::Strict : FileJournal::Tolerant);
        writer = nullptr;
        const zel::size_t place = random() % indices.size();
        if (random() % 3 == 0 && place + 1 < indices.size()) {
            EXPECT_TRUE(session->truncate(indices[place]));
            dropFrom(place);
        }
        if (indices.empty())
            continue;
        if (random() % 2 == 0)
            open();
        beginReading();
        ASSERT_EQ(indicesInTable(), indices);
        for (zel::size_t i = 0; i < indices.size(); ++i) {
            expectState(read().get(), changes[i], "alone");
            reader->advanceToNextFrame();
        }
        EXPECT_FALSE(read());
        for (int k = 0; k < 10; ++k) {
            const zel::size_t target = random() % indices.size();
            EXPECT_TRUE(reader->jumpToFrame(indices[target]));
            expectState(read().get(), between(0, target), "jump");
            reader->advanceToNextFrame();
            if (target + 1 < indices.size())
                expectState(read().get(), changes[target + 1], "behind a jump");
        }
        reader = nullptr;
    }
}

/// Each frame of which the writer has told is in the file, byte for byte, whenever it is killed.
void FileJournalSoakTest::killAWriter(std::mt19937& random) {
    const auto seed = static_cast<unsigned>(random());
    SCOPED_TRACE(seed);
    std::filesystem::remove(path());
    make("scene");
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // Frames of all sizes, until it is killed; the number of each that is in the file goes to the
        // pipe.
        close(ends[0]);
        beginWriting();
        std::mt19937 own(seed);
        for (uint64 i = 0;; ++i) {
            const auto frame = frameOf(i, static_cast<double>(i), i % 4 == 0);
            const auto buffer = reals("elements", {});
            buffer->resize(own() % 20'000);
            for (uint64 k = 0; k < buffer->size(); ++k)
                buffer->data<double>()[k] = static_cast<double>(i + k);
            frame->addBuffer(buffer.get(), "elements");
            writer->writeFrame(frame.get());
            if (::write(ends[1], &i, sizeof(i)) != sizeof(i))
                _exit(1);
        }
    }
    close(ends[1]);
    // Until some frames are there; then at any instant.
    uint64 told = 0;
    const uint64 wanted = random() % 8;
    do
        ASSERT_EQ(::read(ends[0], &told, sizeof(told)), static_cast<ssize_t>(sizeof(told)));
    while (told < wanted);
    for (auto spin = static_cast<unsigned>(random() % 200'000); spin != 0; --spin)
        __asm__ volatile("" ::: "memory");
    ASSERT_EQ(kill(child, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    for (uint64 next = 0; ::read(ends[0], &next, sizeof(next)) == static_cast<ssize_t>(sizeof(next));)
        told = next;
    close(ends[0]);

    const zelTest::LogCapture quiet;
    open(FileJournal::Tolerant);
    ASSERT_NE(session, nullptr);
    const auto found = indicesInTable();
    ASSERT_GT(found.size(), told);
    beginReading();
    std::mt19937 own(seed);
    for (uint64 i = 0; i < found.size(); ++i) {
        ASSERT_EQ(found[i], i);
        const auto frame = read(i);
        ASSERT_EQ(contentOf(frame->findObject("value")), static_cast<double>(i));
        const uint64 size = own() % 20'000;
        const auto* buffer = frame->getBuffer("elements");
        ASSERT_EQ(buffer == nullptr ? 0 : buffer->size(), size);
        for (uint64 k = 0; k < size; ++k)
            ASSERT_EQ(buffer->data<double>()[k], static_cast<double>(i + k));
    }
    std::filesystem::remove(path());
}

/// A journal with anything in it is read, or an exception tells why not; and it is gone on with.
void FileJournalSoakTest::readAnything(std::mt19937& random) {
    std::filesystem::remove(path());
    clearModel();
    make("scene");
    beginWriting();
    for (int i = 0; i < 3; ++i)
        writer->writeFrame(makeAtRandom(random, i == 0).get());
    writer->endOfStream();
    const std::string whole = bytes();
    const std::vector<uint64> numbers{
        0, 1, 96, 0xFFFFFFFF, ~uint64{0}, uint64{1} << 63, FirstFrame, whole.size()};
    for (int variant = 0; variant < 100 && !HasFailure(); ++variant) {
        std::string content = whole;
        // In the frames mostly, for the text of the header is soon none.
        const auto place = [&](zel::size_t size) {
            const zel::size_t begin = random() % 5 == 0 ? 10 : FirstFrame;
            return begin + random() % (content.size() - begin - size);
        };
        for (auto left = 1 + random() % 4; left != 0; --left)
            switch (random() % 4) {
            case 0:
                content[place(1)] = static_cast<char>(random());
                break;
            case 1:
                put<uint64>(content, place(8), numbers[random() % numbers.size()]);
                break;
            case 2:
                put<zel::uint32>(content, place(4), static_cast<zel::uint32>(random() % 64));
                break;
            default: {
                const zel::size_t length = 1 + random() % 64;
                const std::string part = content.substr(place(length), length);
                content.insert(place(1), part);
            }
            }
        putBytes(content);
        try {
            (void)readAll();
            if (!session || session->getFrameHead() == zel::InvalidIndex)
                continue; // there is no place for frames any more
            // And goes on, so that the result is read without a fault.
            beginWriting();
            const uint64 next =
                session->getFrameTable().empty() ? 0 : session->getFrameTable().back().index + 1;
            writer->writeFrame(frameOf(next, 7).get());
            writer->endOfStream();
        } catch (const std::runtime_error&) {
            continue;
        }
        open();
        beginReading();
        ASSERT_NE(session->getFrameTable().size(), 0U);
        EXPECT_EQ(contentOf(read(session->getFrameTable().back().index)->findObject("value")), 7.0);
    }
}

TEST_F(FileJournalModelTest, EachWayToAFrameGivesWhatTheModelHas) {
    repeat(25, [this](std::mt19937& random) { goThroughModel(random); });
}

TEST_F(FileJournalModelTest, AProcessThatIsKilledHasWrittenWhatItHasTold) {
    repeat(50, [this](std::mt19937& random) { killAWriter(random); });
}

TEST_F(FileJournalModelTest, WhateverStandsInTheFileIsReadOrTold) {
    repeat(20 / static_cast<int>(zelTest::StressDivisor),
           [this](std::mt19937& random) { readAnything(random); });
}

// Only script/test --soak runs these.

TEST_F(FileJournalSoakTest, DISABLED_EachWayToAFrameGivesWhatTheModelHas) {
    soak([this](std::mt19937& random) { goThroughModel(random); }, 10'000);
}

TEST_F(FileJournalSoakTest, DISABLED_AProcessThatIsKilledHasWrittenWhatItHasTold) {
    soak([this](std::mt19937& random) { killAWriter(random); }, 1000);
}

TEST_F(FileJournalSoakTest, DISABLED_WhateverStandsInTheFileIsReadOrTold) {
    soak([this](std::mt19937& random) { readAnything(random); });
}

} // namespace
