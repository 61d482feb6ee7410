// A journal: a run is recorded in one line, and then read in order, by jumps, and as a series over time.
#include <zel/Clock.h>
#include <zelCore/zelCore.h>
#include <zelData/Buffer.h>
#include <zelData/FileFrameReader.h>
#include <zelData/FileJournal.h>
#include <zelData/FrameTranspose.h>
#include <zelData/Recorder.h>
#include <zelData/Replay.h>
#include <zelData/ValueT.h>

#include <cstdio>
#include <exception>
#include <iostream>

namespace {

using Real = zelData::ValueT<double>;

/// A weight on a spring, which a clock moves a hundred times a second.
class Spring : public zel::Component {
public:
    Spring() : Component("spring") {
        addObject(height.get());
        addObject(speed.get());
        addObject(clock.get());
        clock->addEvent(new zel::Clock::Event([this] { step(); }, 0.01, 0));
    }

    zel::ref_ptr<Real> height{new Real("height", 1)};
    zel::ref_ptr<Real> speed{new Real("speed", 0)};
    zel::ref_ptr<zel::Clock> clock{new zel::Clock("clock", 100)};

private:
    void step() const {
        speed->set(speed->get() - 40 * height->get() * 0.01);
        height->set(height->get() + speed->get() * 0.01);
    }
};

void record(const char* file) {
    const zel::ref_ptr<Spring> spring(new Spring);
    const auto recorder = zelData::Recorder::record(spring->clock.get(), file, spring.get());
    spring->clock->stepTo(2);
    std::printf("%.4f m at 2 s\n", spring->height->get());
} // the recorder ends, and closes the journal

/// Frames as they are, without the model that has made them.
void read(zelData::FileJournal::Session* session) {
    const zel::ref_ptr<zelData::FileFrameReader> reader(new zelData::FileFrameReader(session));
    reader->jumpToTime(0.5); // merges all that has changed up to there
    const zel::ref_ptr<zelData::Frame> frame(static_cast<zelData::DiskFrameReader&>(*reader).readFrame());
    const auto& height = dynamic_cast<zelData::Value&>(*frame->findObject("height"));
    std::cout << "Frame " << frame->getIndex() << ", at " << frame->getTimeStamp() << " s: " << height
              << " m\n";
}

/// One datum at all times.
void transpose(zelData::FileJournal::Session* session) {
    const zel::ref_ptr<zelData::FrameTranspose> transpose(new zelData::FrameTranspose(session));
    auto* height = transpose->registerTrack("height");
    transpose->extractFrames();
    const double* times = transpose->getTimeBuffer()->data<double>();
    const double* heights = height->getBuffer()->data<double>();
    for (zel::uint64 i = 1; i < height->getBuffer()->size(); ++i)
        if (heights[i - 1] < 0 && heights[i] >= 0)
            std::printf("Upwards through 0 at %.2f s\n", times[i]);
}

/// Back into a tree, and on from there.
void goOn(const char* file) {
    const zel::ref_ptr<Spring> spring(new Spring);
    const zel::ref_ptr<zelData::Replay> replay(new zelData::Replay(file, spring.get()));
    if (replay->applyFrame(150))
        spring->clock->stepTo(2);
    std::printf("%.4f m at 2 s, from frame 150 on\n", spring->height->get());
}

} // namespace

int main(int argc, char** argv) {
    const char* const file = argc > 1 ? argv[1] : "spring.journal";
    std::remove(file); // a recorder overwrites nothing unless it is told to
    zelCore::init();
    int result = 0;
    try {
        record(file);
        const zel::ref_ptr<zelData::FileJournal> journal(new zelData::FileJournal(file));
        auto* session = zelData::FileJournal::downcastSession(journal->getSessions().front());
        read(session);
        transpose(session);
        goOn(file);
    } catch (const std::exception& error) {
        std::cerr << "journal: " << error.what() << '\n';
        result = 1;
    }
    zelCore::shutdown();
    return result;
}
