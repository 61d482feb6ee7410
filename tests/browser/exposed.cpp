// All servers that a page of another site may try to reach: exposed PAGES. It prints where they listen, for
// each line of input what has been done to them so far, both as JSON, and ends when its input does.
//
// The command server serves PAGES/Web, the server of the web debugger PAGES/WebDebugger. The channel "open"
// asks for no token, the channel "closed" for "secret"; both may set values.
#include <zel/Component.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/ValueT.h>
#include <zelIO/Environment.h>
#include <zelIO/FilePathContainer.h>
#include <zelIO/RemoteCommandServer.h>
#include <zelNet/ControlChannel.h>
#include <zelNet/InspectionService.h>
#include <zelNet/WebDebuggerServer.h>

#include <json/value.h>
#include <json/writer.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <iostream>
#include <string>
#include <thread>

namespace {

using zel::ref_ptr;
using zelIO::RemoteCommandServer;
using zelNet::WebSocket;

/// What has happened, as seen from within.
struct Counts {
    std::atomic<int> numTouched{0};   // calls of a handler of the command server
    std::atomic<int> numScripts{0};   // that it has run
    std::atomic<int> numConnected{0}; // to the channels
    std::atomic<int> numMessages{0};  // that a handler of a channel got
};

class Scripts : public zelIO::ScriptListener {
public:
    explicit Scripts(Counts& counts) : m_counts(counts) {}
    bool run(const zel::String&, zel::String& printed, zel::String&) override {
        ++m_counts.numScripts;
        printed = "what a script prints";
        return true;
    }

private:
    Counts& m_counts;
};

/// A channel with a service that may change all.
class Channel {
public:
    Channel(const std::string& token, Counts& counts)
        : m_channel(new WebSocket::ControlChannel(zelNet::AnyPort, token))
        , m_service(new zelNet::InspectionService(m_channel.get(), zel::root())) {
        m_service->setWritable(true);
        m_channel->SocketConnect.connect([&counts](auto*, auto*) { ++counts.numConnected; });
        m_channel->registerMessageHandler(
            "Touch", [&counts](auto*, WebSocket* socket, zelNet::StructuredMessage* message) {
                ++counts.numMessages;
                const ref_ptr<zelNet::StructuredMessage> response(message->createResponse());
                socket->send(response.get());
            });
    }
    void service() const { m_service->service(); }
    [[nodiscard]] int getPort() const { return m_channel->getPort(); }

private:
    ref_ptr<WebSocket::ControlChannel> m_channel;
    ref_ptr<zelNet::InspectionService> m_service;
};

void print(const Json::Value& json) {
    std::cout << "=" << Json::FastWriter().write(json) << std::flush;
}

void run(const std::string& pages) {
    Counts counts;
    const ref_ptr<zelData::ValueT<double>> speed(new zelData::ValueT<double>("speed", 2.5));
    zel::root()->addObject(speed.get());

    zelIO::Environment::instance()->getFilePath(zelIO::Environment::PluginPath).pushfrontPath(pages);
    RemoteCommandServer* const commands = RemoteCommandServer::instance();
    commands->registerHandler("/touch", [&counts](auto*, mg_connection* connection, const auto&) {
        ++counts.numTouched;
        RemoteCommandServer::writeResponse(Json::Value("what a handler answers"), connection);
        return true;
    });
    zelNet::zelWebServer::WebDebuggerServer page(0, pages + "/WebDebugger");
    if (!commands->start(0, false) || !page.start())
        throw std::runtime_error("The servers do not start");
    commands->add(new Scripts(counts));
    const Channel open("", counts), closed("secret", counts);

    Json::Value ports;
    ports["commands"] = commands->getPort();
    ports["debugger"] = page.getPort();
    ports["open"] = open.getPort();
    ports["closed"] = closed.getPort();
    print(ports);

    std::atomic<int> numAsked{0};
    std::atomic<bool> isDone{false};
    std::thread input([&] {
        std::string line;
        while (std::getline(std::cin, line))
            ++numAsked;
        isDone = true;
    });
    for (int numAnswered = 0; !isDone;) {
        open.service();
        closed.service();
        for (; numAnswered < numAsked; ++numAnswered) {
            Json::Value state;
            state["touched"] = counts.numTouched.load();
            state["scripts"] = counts.numScripts.load();
            state["connected"] = counts.numConnected.load();
            state["messages"] = counts.numMessages.load();
            state["speed"] = speed->get();
            state["objects"] = static_cast<Json::UInt64>(zel::root()->getNumObjects());
            print(state);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    input.join();
    commands->stop();
    zel::root()->removeObject(speed.get());
}

} // namespace

int main(int argc, char** argv) {
    zelCore::init();
    int result = 0;
    try {
        if (argc != 2)
            throw std::runtime_error("exposed PAGES");
        run(argv[1]);
    } catch (const std::exception& error) {
        std::cerr << error.what() << std::endl;
        result = 1;
    }
    zelCore::shutdown();
    return result;
}
