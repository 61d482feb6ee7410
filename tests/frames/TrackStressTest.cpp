#include "MemoryJournal.h"

#include <zelData/Track.h>

#include <support/Soak.h>
#include <support/Stress.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <vector>

// Tracks that several threads use at once, while their owner stops and starts them.

using zel::ref_ptr;
using zel::uint64;
using zelData::Frame;
using zelData::Track;
using zelTest::CollectingWriter;
using zelTest::frameOf;
using zelTest::MemoryReader;
using zelTest::MemorySession;

namespace {

class TrackSoakTest : public zelTest::FrameFixture {
protected:
    static constexpr uint64 NumFrames = 40;
    static constexpr zel::size_t NumThreads = 4;

    void SetUp() override {
        FrameFixture::SetUp();
        session = new MemorySession;
        for (uint64 i = 0; i < NumFrames; ++i)
            session->append(frameOf(i, static_cast<double>(i), i % 7 == 0).get());
    }
    void TearDown() override {
        session = nullptr;
        FrameFixture::TearDown();
    }

    /// Runs work(generator) on each thread again and again, while the owner does its own.
    template <typename Work, typename Owner>
    static void runBeside(unsigned seed, const Work& work, const Owner& owner) {
        std::atomic<bool> done{false};
        std::thread others([&] {
            zelTest::onThreads(NumThreads, seed, [&](zel::size_t /*thread*/, std::mt19937& random) {
                while (!done)
                    work(random);
            });
        });
        owner();
        done = true;
        others.join();
    }

    /// One thing that any thread may do to a track that replays.
    static void useReplay(Track* track, Track* other, std::mt19937& random, bool isOwner = false);
    void replay(unsigned seed, bool expands);
    void record(unsigned seed);
    void copy(unsigned seed);

    ref_ptr<MemorySession> session;
};
class TrackStressTest : public TrackSoakTest {};

void TrackSoakTest::useReplay(Track* track, Track* other, std::mt19937& random, bool isOwner) {
    const auto draw = [&random](uint64 n) { return static_cast<uint64>(random() % n); };
    switch (draw(24)) {
    case 0:
        (void)track->jumpToFrame(draw(NumFrames + 2));
        break;
    case 1:
        (void)track->jumpToTime(static_cast<double>(draw(NumFrames)) / 2 - 1);
        break;
    case 2:
        track->setFrameStride(1 + draw(7));
        break;
    case 3:
        (void)track->setFrameFrequency(static_cast<double>(draw(4)));
        break;
    case 4:
        track->setActiveTimeRangeStart(static_cast<double>(draw(10)) - 1);
        track->setActiveTimeRangeEnd(static_cast<double>(draw(25)) - 5);
        break;
    case 5:
        track->setEnableLooping(draw(2) == 0);
        break;
    case 6:
        track->setMaxNumBytes(draw(3) == 0 ? 0 : 1 + draw(200));
        break;
    case 7:
        track->clearQueue();
        break;
    case 8:
        track->flush(true, draw(2) == 0);
        break;
    case 9:
        track->loadCache(other);
        break;
    case 10:
        if (!isOwner) // who is the one to end the wait, where nobody pops
            (void)track->waitForFreeSlot();
        break;
    case 11:
        (void)track->getNumCachedFrames();
        (void)track->getCacheHitRate();
        (void)track->isEOF();
        (void)track->isJumpPending();
        (void)track->getDataRate();
        (void)track->getException();
        break;
    default:
        try {
            const auto frame = track->popFrame(draw(2) == 0);
            // An expanded one is the next one's as soon as that is popped.
            if (!frame || track->getExpandFrames())
                break;
            ASSERT_LT(frame->getIndex(), NumFrames);
            ASSERT_EQ(contentOf(frame->findObject("value")), static_cast<double>(frame->getIndex()));
            ASSERT_TRUE(frame->isSerialized());
        } catch (const std::runtime_error& error) { // of a reader that has no thread of its own
            ASSERT_STREQ(error.what(), "the disk is gone");
        }
    }
}

/// Two tracks that replay one session, and take over each other's caches.
void TrackSoakTest::replay(unsigned seed, bool expands) {
    std::vector<ref_ptr<MemoryReader>> readers;
    std::vector<ref_ptr<Track>> tracks;
    for (int i = 0; i < 2; ++i) {
        readers.emplace_back(new MemoryReader(session.get(), i == 0 || seed % 2 == 0));
        tracks.emplace_back(new Track(readers.back().get(), nullptr));
        tracks.back()->setExpandFrames(expands);
        tracks.back()->start();
        ASSERT_TRUE(tracks.back()->popFrame(true));
    }
    std::mt19937 own(seed);
    const auto work = [&](std::mt19937& random, bool isOwner = false) {
        const zel::size_t i = random() % 2;
        useReplay(tracks[i].get(), tracks[1 - i].get(), random, isOwner);
    };
    runBeside(seed, work, [&] {
        for (int round = 0; round < 20; ++round) {
            const zel::size_t i = own() % 2;
            if (own() % 4 == 0)
                readers[i]->failsAt = own() % NumFrames;
            for (uint64 left = own() % 50; left != 0; --left)
                work(own, true);
            tracks[i]->stop();
            readers[i]->failsAt = zel::InvalidIndex;
            tracks[i]->start();
        }
        for (const ref_ptr<Track>& track : tracks)
            track->stop();
    });
    // And then each goes through the whole session as if nothing had been.
    for (const ref_ptr<Track>& track : tracks) {
        track->setEnableLooping(false);
        track->setActiveTimeRangeEnd(-1);
        track->setMaxNumBytes(own() % 2 == 0 ? 1 : 104857600);
        track->start();
        track->setFrameStride(1);
        EXPECT_TRUE(track->jumpToFrame(0));
        for (uint64 i = 0; i < NumFrames; ++i) {
            const auto frame = track->popFrame(true);
            ASSERT_TRUE(frame);
            ASSERT_EQ(frame->getIndex(), i);
            ASSERT_EQ(contentOf(frame->findObject("value")), static_cast<double>(i));
        }
        EXPECT_FALSE(track->popFrame(true));
        track->stop();
    }
}

/// All that was pushed is written, once, in the order in which each thread has pushed it.
void TrackSoakTest::record(unsigned seed) {
    const ref_ptr<CollectingWriter> writer(new CollectingWriter);
    const ref_ptr<Track> track(new Track(nullptr, writer.get()));
    std::atomic<uint64> numThreads{0};
    track->start();
    std::mt19937 own(seed);
    int numStops = 0;
    const auto work = [&](std::mt19937& random) {
        // Each call pushes a row of its own.
        const uint64 row = numThreads++ << 32;
        for (uint64 i = 0; i < 20; ++i) {
            switch (random() % 8) {
            case 0:
                track->flush(false);
                break;
            case 1:
                track->setMaxNumBytes(random() % 3 == 0 ? 0 : 1 + random() % 200);
                break;
            case 2:
                (void)track->jumpToFrame(0);
                break;
            default:
                break;
            }
            (void)track->waitForFreeSlot();
            track->pushFrame(frameOf(row + i, 0).get());
        }
    };
    runBeside(seed, work, [&] {
        for (; numStops < 30; ++numStops) {
            work(own);
            track->stop();
            EXPECT_TRUE(track->isQueueEmpty());
            track->start();
        }
        track->stop();
        ++numStops;
    });
    const std::vector<uint64> written = writer->indices();
    EXPECT_EQ(written.size(), track->getNumFrames());
    EXPECT_GT(written.size(), 0U);
    EXPECT_EQ(writer->numEnds, numStops);
    EXPECT_EQ(track->getException(), nullptr);
    std::map<uint64, uint64> next; // of each row
    for (const uint64 index : written) {
        ASSERT_GE(index & 0xFFFFFFFFU, next[index >> 32U]);
        next[index >> 32U] = (index & 0xFFFFFFFFU) + 1;
    }
}

/// A reader and a writer at the ends of one track, either of which fails now and then.
void TrackSoakTest::copy(unsigned seed) {
    const ref_ptr<MemoryReader> reader(new MemoryReader(session.get()));
    const ref_ptr<CollectingWriter> writer(new CollectingWriter);
    const ref_ptr<Track> track(new Track(reader.get(), writer.get()));
    track->start();
    std::mt19937 own(seed);
    const auto work = [&](std::mt19937& random) {
        if (random() % 10 == 0)
            track->flush(false);
        else
            useReplay(track.get(), track.get(), random);
    };
    runBeside(seed, work, [&] {
        for (int round = 0; round < 20; ++round) {
            reader->failsAt = own() % 4 == 0 ? own() % NumFrames : uint64{zel::InvalidIndex};
            writer->failsAt = own() % 4 == 0 ? own() % NumFrames : uint64{zel::InvalidIndex};
            for (uint64 left = own() % 50; left != 0; --left)
                useReplay(track.get(), track.get(), own, true);
            track->stop();
            track->start();
        }
        track->stop();
    });
    reader->failsAt = zel::InvalidIndex;
    writer->failsAt = zel::InvalidIndex;
    track->setEnableLooping(false);
    track->setActiveTimeRangeEnd(-1);
    track->start();
    track->setFrameStride(1);
    track->flush(false);
    const zel::size_t numBefore = writer->indices().size();
    EXPECT_TRUE(track->jumpToFrame(0));
    track->flush(false);
    track->stop();
    EXPECT_EQ(writer->indices().size(), numBefore + NumFrames);
}

} // namespace

TEST_F(TrackStressTest, ReplaysGoOnWhateverThreadsDoToThem) {
    const unsigned seed = zelTest::stressSeed();
    for (unsigned i = 0; i < 10 / zelTest::StressDivisor && !HasFailure(); ++i)
        replay(seed + i, i % 3 == 2);
}

TEST_F(TrackStressTest, RecordingsHoldAllThatWasPushed) {
    const unsigned seed = zelTest::stressSeed();
    for (unsigned i = 0; i < 10 / zelTest::StressDivisor && !HasFailure(); ++i)
        record(seed + i);
}

TEST_F(TrackStressTest, CopiesGoOnWhateverThreadsDoToThem) {
    const unsigned seed = zelTest::stressSeed();
    for (unsigned i = 0; i < 10 / zelTest::StressDivisor && !HasFailure(); ++i)
        copy(seed + i);
}

TEST_F(TrackStressTest, FramesThatTwoTracksExpandEndOnAnyThread) {
    const ref_ptr<CollectingWriter> writers[]{ref_ptr<CollectingWriter>(new CollectingWriter),
                                              ref_ptr<CollectingWriter>(new CollectingWriter)};
    std::vector<ref_ptr<Track>> tracks;
    for (const auto& writer : writers) {
        tracks.emplace_back(new Track(nullptr, writer.get()));
        tracks.back()->setExpandFrames(true);
        tracks.back()->start();
    }
    constexpr uint64 NumPushed = 1000 / zelTest::StressDivisor;
    for (uint64 i = 0; i < NumPushed; ++i) {
        const ref_ptr<Frame> frame(frameOf(i, static_cast<double>(i), i % 50 == 0));
        const ref_ptr<zelData::Buffer> buffer(new zelData::Buffer("buffer", zelData::getFormat("Real")));
        buffer->resize(3);
        frame->addBuffer(buffer.get(), "buffer");
        for (const auto& track : tracks)
            track->pushFrame(frame.get());
    }
    for (const auto& track : tracks)
        track->stop();
    for (const auto& writer : writers)
        EXPECT_EQ(writer->indices().size(), NumPushed);
}

// Only script/test --soak runs these.

TEST_F(TrackSoakTest, DISABLED_ReplaysGoOnWhateverThreadsDoToThem) {
    zelTest::soak([this](unsigned seed) { replay(seed, seed % 3 == 0); });
}

TEST_F(TrackSoakTest, DISABLED_RecordingsHoldAllThatWasPushed) {
    zelTest::soak([this](unsigned seed) { record(seed); });
}

TEST_F(TrackSoakTest, DISABLED_CopiesGoOnWhateverThreadsDoToThem) {
    zelTest::soak([this](unsigned seed) { copy(seed); });
}
