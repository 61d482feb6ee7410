#include "FrameStreams.h"

#include "JournalText.h"
#include "StreamName.h"

#include <zel/Exception.h>
#include <zel/Notify.h>
#include <zelData/Recorder.h>
#include <zelData/Track.h>
#include <zelNet/NetError.h>
#include <zelNet/TcpSocketFrameWriter.h>
#include <zelNet/WebSocketFrameWriter.h>
#include <zelNet/WebSocketServer.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <thread>

// Frames of a run for other programs.

namespace tool {

namespace {

/// So long a reader may take nothing of what waits at the end.
constexpr std::chrono::seconds Patience{2};

/// A WebSocket for which twice as much waits is closed.
constexpr zel::uint64 LargestWebSocketBudget = zelNet::WebSocketServer::DefaultMaxQueuedBytes / 2;

/// Goes on for the others, and for those who come later, when a reader has gone.
class LastingTcpWriter : public zelNet::TcpSocketFrameWriter {
public:
    explicit LastingTcpWriter(zel::uint16 port) : TcpSocketFrameWriter(port) {
        setPatience(static_cast<zel::uint32>(std::chrono::milliseconds(Patience).count()));
    }

    void writeFrame(const zelData::Frame* frame) override {
        try {
            TcpSocketFrameWriter::writeFrame(frame);
        } catch (const zelNet::NetError&) { // all others have got the frame
        }
        m_numReaders = getNumClients();
    }
    /// When the last frame was written.
    /// @threads any thread
    [[nodiscard]] zel::uint64 getNumReaders() const { return m_numReaders; }
    void endOfStream() override {
        try {
            TcpSocketFrameWriter::endOfStream();
        } catch (const zelNet::NetError&) {
        }
    }

private:
    std::atomic<zel::uint64> m_numReaders{0};
};

/// Some have an empty line behind it.
std::string firstLineOf(const std::exception& error) {
    const std::string text = error.what();
    return text.substr(0, text.find('\n'));
}

/// Services a writer on a thread of its own: ticks may take seconds, in which readers want what is queued,
/// and their connections to be answered.
class Service {
public:
    explicit Service(zelNet::WebSocketFrameWriter* writer)
        : m_writer(writer), m_thread([this] { serve(); }) {}
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    ~Service() { end(); }

    /// Nobody writes any more.
    void end() {
        m_isEnding = true;
        if (m_thread.joinable())
            m_thread.join();
    }

private:
    static constexpr std::chrono::milliseconds Pause{1};

    void serveOnce() {
        if (!m_writer->service(0))
            std::this_thread::sleep_for(Pause);
    }

    void serve() {
        while (!m_isEnding)
            serveOnce();
        auto last = std::chrono::steady_clock::now();
        zel::size_t numBytes = m_writer->getNumQueuedBytes();
        while (numBytes != 0 && std::chrono::steady_clock::now() < last + Patience) {
            serveOnce();
            const zel::size_t left = m_writer->getNumQueuedBytes();
            if (left < numBytes)
                last = std::chrono::steady_clock::now();
            numBytes = left;
        }
        while (m_writer->service(0) && std::chrono::steady_clock::now() < last + Patience)
            continue; // what the connections themselves hold
    }

    zelNet::WebSocketFrameWriter* m_writer;
    std::atomic<bool> m_isEnding{false};
    std::thread m_thread;
};

} // namespace

std::string StreamName::text() const {
    return (isWebSocket ? "ws:" : "tcp:") + (host.empty() ? "" : host + ":") + std::to_string(port);
}

StreamName StreamName::parse(const std::string& option, const std::string& text, bool hasHost) {
    const auto colon = text.find(':');
    const auto last = text.rfind(':');
    StreamName name;
    name.isWebSocket = text.starts_with("ws:");
    bool isRight = (name.isWebSocket || text.starts_with("tcp:")) && hasHost == (last != colon);
    if (isRight) {
        const char* const end = text.data() + text.size();
        const auto number = std::from_chars(text.data() + last + 1, end, name.port);
        isRight = number.ec == std::errc() && number.ptr == end;
        if (hasHost)
            name.host = text.substr(colon + 1, last - colon - 1);
        isRight = isRight && (!hasHost || (!name.host.empty() && name.port != 0));
    }
    if (!isRight)
        throw UsageError(option + ": '" + text +
                         (hasHost
                              ? "' is not of the form tcp:HOST:PORT or ws:HOST:PORT, with a port up to 65535"
                              : "' is not of the form tcp:PORT or ws:PORT, with a port up to 65535"));
    return name;
}

class FrameStreams::Stream {
public:
    Stream(const StreamName& name, zel::uint64 budget)
        : m_name(name), m_budget(name.isWebSocket ? std::min(budget, LargestWebSocketBudget) : budget) {
        try {
            if (name.isWebSocket)
                m_webSockets = new zelNet::WebSocketFrameWriter(name.port);
            else
                m_sockets = new LastingTcpWriter(name.port);
        } catch (const zelNet::NetError& error) {
            throw std::runtime_error("can not listen on " + name.text() + ": " + firstLineOf(error));
        }
        m_name.port = m_webSockets ? m_webSockets->getPort() : m_sockets->getPort();
    }

    void start() {
        std::cout << "Streaming to " << m_name.text()
                  << std::endl; // at once, for those who wait for the port
        m_track = m_webSockets ? new zelData::Track(nullptr, m_webSockets.get())
                               : new zelData::Track(nullptr, m_sockets.get());
        m_track->setExpandFrames(true);
        m_track->start();
        if (m_webSockets)
            m_service = std::make_unique<Service>(m_webSockets.get());
    }
    /// @return whether the frame was not left out
    bool push(zelData::Frame* frame) {
        const bool hasRoom = numWaitingBytes() < m_budget;
        // Behind one that is left out, an increment would not tell all.
        if (!hasRoom || (m_mustBeWhole && !frame->isKeyFrame())) {
            m_mustBeWhole = true;
            ++m_numLeftOut;
            return false;
        }
        m_mustBeWhole = false;
        ++m_numFrames;
        m_track->pushFrame(frame);
        return true;
    }
    void stop() {
        if (m_track)
            m_track->stop();
        if (m_service)
            m_service->end();
    }
    void print() const {
        std::cout << "Streamed " << counted(m_numFrames, "frame") << " to " << m_name.text();
        if (m_numLeftOut != 0)
            std::cout << "; " << m_numLeftOut << " were left out, since readers were too slow";
        std::cout << '\n';
    }
    [[nodiscard]] zelNet::InspectionService::Stream state() const {
        return {m_webSockets ? "ws" : "tcp",
                m_name.port,
                m_numFrames,
                m_numLeftOut,
                m_webSockets ? m_webSockets->getNumClients() : m_sockets->getNumReaders(),
                numWaitingBytes()};
    }
    void rethrow() const {
        if (m_track && m_track->getException())
            std::rethrow_exception(m_track->getException());
    }

private:
    [[nodiscard]] zel::uint64 numWaitingBytes() const {
        return m_track->getNumQueuedBytes() + (m_webSockets ? m_webSockets->getNumQueuedBytes() : 0);
    }

    StreamName m_name;
    zel::uint64 m_budget;
    zel::ref_ptr<LastingTcpWriter> m_sockets; // one of the two
    zel::ref_ptr<zelNet::WebSocketFrameWriter> m_webSockets;
    zel::ref_ptr<zelData::Track> m_track;
    std::unique_ptr<Service> m_service;
    zel::uint64 m_numFrames = 0;
    zel::uint64 m_numLeftOut = 0;
    bool m_mustBeWhole = false;
};

FrameStreams::FrameStreams(const Arguments& arguments) {
    const zel::uint64 budget = arguments.number("--budget", zelData::Recorder::DefaultBudget);
    std::vector<StreamName> names;
    for (const std::string& text : arguments.getAll("--stream"))
        names.push_back(StreamName::parse("--stream", text, false));
    if (!names.empty())
        zel::setExceptionNotifyLevel(zel::Notify::Debug); // readers that go are no news
    for (const StreamName& name : names)
        m_streams.push_back(std::make_unique<Stream>(name, budget));
}

FrameStreams::~FrameStreams() {
    stop();
}

void FrameStreams::start(zel::Clock& clock, zel::Component* model) {
    if (m_streams.empty())
        return;
    for (const auto& stream : m_streams)
        stream->start();
    m_clock = &clock;
    m_capture = new zelData::FrameCapture(model);
    m_capture->captureClocks(&clock);
    push();
}

void FrameStreams::push() {
    if (!m_capture)
        return;
    const zel::ref_ptr<zelData::Frame> frame = m_capture->capture(m_clock);
    bool isWhole = true;
    for (const auto& stream : m_streams)
        isWhole = stream->push(frame.get()) && isWhole;
    if (!isWhole)
        m_capture->requestKeyFrame();
}

void FrameStreams::stop() {
    for (const auto& stream : m_streams)
        stream->stop();
    m_capture = nullptr;
}

void FrameStreams::print() const {
    for (const auto& stream : m_streams)
        stream->print();
}

zel::Vector<zelNet::InspectionService::Stream> FrameStreams::states() const {
    zel::Vector<zelNet::InspectionService::Stream> all;
    for (const auto& stream : m_streams)
        all.push_back(stream->state());
    return all;
}

void FrameStreams::rethrow() const {
    for (const auto& stream : m_streams)
        stream->rethrow();
}

} // namespace tool
