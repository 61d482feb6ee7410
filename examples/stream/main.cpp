// Two processes: one simulates and sends its frames, the other one has the same model and follows.
//
//     stream send 4000             in one terminal
//     stream receive 4000          in another one, or in several
#include <zel/Clock.h>
#include <zelCore/zelCore.h>
#include <zelData/FrameApply.h>
#include <zelData/FrameCapture.h>
#include <zelData/Track.h>
#include <zelData/ValueT.h>
#include <zelNet/NetError.h>
#include <zelNet/TcpSocketFrameReader.h>
#include <zelNet/TcpSocketFrameWriter.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <thread>

namespace {

using Real = zelData::ValueT<double>;

/// A weight on a spring. The one who receives makes it too, and never moves it.
class Spring : public zel::Component {
public:
    Spring() : Component("spring") {
        addObject(height.get());
        addObject(speed.get());
    }

    void move(double seconds) const {
        speed->set(speed->get() - 40 * height->get() * seconds);
        height->set(height->get() + speed->get() * seconds);
    }

    zel::ref_ptr<Real> height{new Real("height", 1)};
    zel::ref_ptr<Real> speed{new Real("speed", 0)};
};

void send(zel::uint16 port, double duration) {
    const zel::ref_ptr<Spring> spring(new Spring);
    const zel::ref_ptr<zel::Clock> clock(new zel::Clock("clock", 100));
    clock->addEvent(new zel::Clock::Event([&] { spring->move(0.01); }, 0.01, 0));

    const zel::ref_ptr<zelNet::TcpSocketFrameWriter> writer(new zelNet::TcpSocketFrameWriter(port));
    std::cout << "Sending to port " << writer->getPort() << std::endl;
    // A frame holds what has changed; those who connect later need all of it.
    const zel::ref_ptr<zelData::Track> track(new zelData::Track(nullptr, writer.get()));
    track->setExpandFrames(true);
    track->start();
    const zel::ref_ptr<zelData::FrameCapture> capture(new zelData::FrameCapture(spring.get()));

    const auto start = std::chrono::steady_clock::now();
    while (clock->getTime() < duration) {
        clock->tick();
        track->pushFrame(capture->capture(clock.get()).get()); // a thread of the track sends it
        std::this_thread::sleep_until(start + std::chrono::duration<double>(clock->getTime()));
    }
    track->stop();             // tells those who read that this was the end
    if (track->getException()) // a reader that goes ends the stream
        std::rethrow_exception(track->getException());
}

void receive(zel::uint16 port) {
    const zel::ref_ptr<Spring> spring(new Spring);
    const zel::ref_ptr<zelData::FrameApply> apply(new zelData::FrameApply(spring.get()));
    const zel::ref_ptr<zelNet::TcpSocketFrameReader> reader(
        new zelNet::TcpSocketFrameReader(zelNet::IPAddress("127.0.0.1", port)));
    const zel::ref_ptr<zelData::Track> track(new zelData::Track(reader.get(), nullptr));
    track->start();
    int numFrames = 0;
    while (const zel::ref_ptr<zelData::Frame> frame = track->popFrame(true)) {
        apply->writeFrame(frame.get()); // from here on, the model is as it is over there
        if (numFrames++ % 50 == 0)
            std::printf("%5.2f s: %7.4f m\n", frame->getTimeStamp(), spring->height->get());
    }
    track->stop();
    std::printf("%d frames\n", numFrames);
    if (numFrames == 0)
        throw std::runtime_error("nobody sends to port " + std::to_string(port));
}

int run(int argc, char** argv) {
    const bool sends = argc >= 3 && argc <= 4 && std::strcmp(argv[1], "send") == 0;
    const bool receives = argc == 3 && std::strcmp(argv[1], "receive") == 0;
    if (!sends && !receives) {
        std::cerr << "usage: stream send PORT [SECONDS]\n       stream receive PORT\n";
        return 2;
    }
    const auto port = static_cast<zel::uint16>(std::atoi(argv[2]));
    if (sends)
        send(port, argc == 4 ? std::atof(argv[3]) : 60);
    else
        receive(port);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    zelCore::init();
    int result = 1;
    try {
        result = run(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
    }
    zelCore::shutdown();
    return result;
}
