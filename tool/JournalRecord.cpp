#include "Command.h"
#include "JournalText.h"
#include "Model.h"
#include "QuietScope.h"
#include "Signals.h"
#include "StreamName.h"

#include <zel/Exception.h>
#include <zel/Notify.h>
#include <zel/ref_ptr.h>
#include <zelData/FileFrameWriter.h>
#include <zelData/FileJournal.h>
#include <zelData/Track.h>
#include <zelIO/FileSystem.h>
#include <zelNet/NetError.h>
#include <zelNet/SocketSet.h>
#include <zelNet/TcpSocketFrameReader.h>
#include <zelNet/WebSocketFrameReader.h>
#include <zelNet/WebSocketServer.h>

#include <chrono>
#include <exception>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>

// zel journal record.

namespace tool {

namespace {

using zelNet::TcpSocketFrameReader;
using zelNet::WebSocket;
using zelNet::WebSocketFrameReader;
using OnFault = zelData::SerializedFrame::OnFault;

/// Of the elements of frames that wait for the disk; small frames take ten times as much.
constexpr zel::uint64 MaxWaitingBytes = zel::uint64{64} << 20;

/// Frames come whole, and packets do not tell so.
template <typename Reader>
class WholeFrames : public Reader {
public:
    using Reader::Reader;

    [[nodiscard]] zelData::Frame* readFrame() override {
        zelData::Frame* const frame = Reader::readFrame();
        if (frame != nullptr)
            frame->setKeyFrame(true);
        return frame;
    }
};

/// Where frames come from.
class Source {
public:
    Source() = default;
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;
    virtual ~Source() = default;

    /// Null if a signal came ahead of the first frame.
    [[nodiscard]] virtual zelData::FrameReader* getReader() = 0;
    /// Does what there is to do, and waits a little.
    virtual void service() = 0;
    /// Whether the stream has ended without its end.
    [[nodiscard]] virtual bool isBroken() const = 0;
};

class TcpSource : public Source {
public:
    explicit TcpSource(const StreamName& name) : m_socket(new zelNet::TCPSocket) {
        m_socket->open(zelNet::IPAddress(name.host, name.port), false);
        // The reader waits for the first frame, and hears of no signal meanwhile.
        const zel::ref_ptr<zelNet::SocketSet> sockets(new zelNet::SocketSet);
        (void)sockets->addSocket(m_socket.get());
        while (endSignal() == 0 && !sockets->checkSockets(100))
            continue;
        if (endSignal() == 0)
            m_reader = new WholeFrames<TcpSocketFrameReader>(m_socket.get(), OnFault::Throw);
    }

    [[nodiscard]] zelData::FrameReader* getReader() override { return m_reader.get(); }
    void service() override { std::this_thread::sleep_for(std::chrono::milliseconds(10)); }
    [[nodiscard]] bool isBroken() const override { return !m_reader->isOpen(); }

private:
    zel::ref_ptr<zelNet::TCPSocket> m_socket;
    zel::ref_ptr<WholeFrames<TcpSocketFrameReader>> m_reader;
};

/// The end of a connection is that of the stream.
class WebSocketSource : public Source {
public:
    explicit WebSocketSource(const StreamName& name)
        : m_client(
              zelNet::WebSocketServer::NoListen,
              {},
              [this](WebSocket* socket) { end(socket); },
              "zel_stream") {
        m_client.setMaxMessageSize(MaxFrameSize);
        WebSocket* const socket =
            m_client.createConnection(name.host, name.port, false, "", "zel_stream", false);
        m_reader = new WholeFrames<WebSocketFrameReader>(socket, true, OnFault::Throw);
        if (!socket->isOpen())
            m_reader->releaseBlock(socket);
    }

    [[nodiscard]] zelData::FrameReader* getReader() override { return m_reader.get(); }
    void service() override {
        if (!m_client.service(0))
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    [[nodiscard]] bool isBroken() const override { return false; }

private:
    static constexpr zel::size_t MaxFrameSize = (zel::size_t{1} << 32) - 1; // as packets can tell

    void end(WebSocket* socket) {
        if (m_reader)
            m_reader->releaseBlock(socket);
    }

    zelNet::WebSocketServer m_client;
    zel::ref_ptr<WholeFrames<WebSocketFrameReader>> m_reader;
};

std::unique_ptr<Source> connect(const StreamName& name) {
    try {
        if (name.isWebSocket)
            return std::make_unique<WebSocketSource>(name);
        return std::make_unique<TcpSource>(name);
    } catch (const zelNet::NetError& error) {
        throw std::runtime_error("no frames come from " + name.text() + ": " + error.what());
    }
}

zelData::FileJournal::Session* makeSession(zelData::FileJournal& journal, const std::string& file) {
    const QuietScope scope;
    auto* session = journal.createNewFileSession(zel::Name(zelIO::FileSystem::getFileWithoutExtension(file)));
    std::istringstream noScene;
    session->packSceneData(noScene);
    return session;
}

} // namespace

int recordStream(const Arguments& arguments) {
    const std::string& file = arguments.positional()[0];
    if (!arguments.has("--from"))
        throw UsageError("--from lacks");
    const StreamName name = StreamName::parse("--from", arguments.get("--from"), true);
    if (zelIO::FileSystem::exists(file))
        throw std::runtime_error("There is a file '" + file + "' already.");
    addFolders(arguments);
    zel::setExceptionNotifyLevel(zel::Notify::Debug); // what matters is told below
    endOnSignals();
    const std::unique_ptr<Source> source = connect(name);
    if (source->getReader() == nullptr)
        return BySignal + endSignal();

    const zel::ref_ptr<zelData::FileJournal> journal(new zelData::FileJournal(file));
    const zel::ref_ptr<zelData::FileFrameWriter> writer(
        new zelData::FileFrameWriter(makeSession(*journal, file)));
    const zel::ref_ptr<zelData::Track> track(new zelData::Track(source->getReader(), writer.get()));
    track->setMaxNumBytes(MaxWaitingBytes);
    track->start();
    while (endSignal() == 0 && !track->isEOF())
        source->service();
    const bool isBroken = endSignal() == 0 && !track->getException() && source->isBroken();
    track->stop(); // all is written, and the journal is closed

    if (endSignal() != 0)
        std::cout << "Ended by a signal.\n";
    if (isBroken)
        std::cout << "The connection was lost.\n";
    std::cout << "Recorded " << counted(writer->getNumFrames(), "frame") << " in " << file << '\n';
    if (const std::exception_ptr failure = track->getException())
        std::rethrow_exception(failure);
    if (endSignal() != 0)
        return BySignal + endSignal();
    return isBroken ? Differs : Done;
}

} // namespace tool
