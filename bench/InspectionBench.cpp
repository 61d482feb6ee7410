// What clients that watch cost a simulation.
#include <zel/Component.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/ValueT.h>
#include <zelNet/ControlChannel.h>
#include <zelNet/InspectionService.h>

#include <benchmark/benchmark.h>
#include <json/value.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

using zel::ref_ptr;
using zelNet::StructuredMessage;
using zelNet::WebSocket;
using ControlChannel = WebSocket::ControlChannel;

namespace {

double threadSeconds() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

/// A client in a thread of its own that watches all values and acknowledges each update.
class Watcher {
public:
    Watcher(zel::uint16 port, int numValues) : m_thread([this, port, numValues] { run(port, numValues); }) {}
    ~Watcher() {
        m_isDone = true;
        m_thread.join();
    }
    [[nodiscard]] long numUpdates() const { return m_numUpdates; }

private:
    void run(zel::uint16 port, int numValues) {
        ControlChannel channel(zelNet::WebSocketServer::NoListen, "");
        channel.registerMessageHandler(
            "Watch.Update", [this](auto*, WebSocket* socket, StructuredMessage* update) {
                Json::Value header;
                header["watch"] = 1;
                header["sequence"] = update->getHeader()["sequence"];
                const StructuredMessage acknowledgement("Watch.Ack", header, nullptr);
                socket->send(&acknowledgement);
                ++m_numUpdates;
            });
        WebSocket* server =
            channel.createConnection("127.0.0.1", port, false, "/", ControlChannel::ProtocolName, false);
        Json::Value header;
        header["watch"] = 1;
        header["interval"] = 16;
        for (int i = 0; i < numValues; ++i)
            header["paths"].append("Rover.sensor" + std::to_string(i));
        const StructuredMessage request("Watch.Add", header, nullptr);
        server->send(&request);
        while (!m_isDone) {
            channel.service(0);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    std::atomic<bool> m_isDone{false};
    std::atomic<long> m_numUpdates{0};
    std::thread m_thread;
};

/// All values change in each of 60 steps a second; the time is that of the service in a step.
void watchesAt60Hz(benchmark::State& state) {
    const int numValues = static_cast<int>(state.range(0));
    const ref_ptr<zel::Component> rover(new zel::Component("Rover"));
    zel::root()->addObject(rover.get());
    std::vector<zelData::ValueT<double>*> values;
    for (int i = 0; i < numValues; ++i) {
        values.push_back(new zelData::ValueT<double>(zel::Name("sensor" + std::to_string(i)), 0.0));
        rover->addObject(values.back());
    }
    {
        const ref_ptr<zelNet::InspectionService> service(
            new zelNet::InspectionService(new ControlChannel(zelNet::AnyPort, ""), zel::root()));
        const Watcher watcher(service->getChannel()->getPort(), numValues);
        while (watcher.numUpdates() == 0)
            service->service();
        const long before = watcher.numUpdates();
        double step = 0;
        auto next = std::chrono::steady_clock::now();
        for ([[maybe_unused]] const auto& iteration : state) {
            next += std::chrono::microseconds(16667);
            std::this_thread::sleep_until(next);
            step += 0.1;
            for (auto* value : values)
                value->set(step);
            const double start = threadSeconds();
            service->service();
            state.SetIterationTime(threadSeconds() - start);
        }
        state.counters["updates"] = static_cast<double>(watcher.numUpdates() - before);
    }
    zel::root()->removeObject(rover.get());
}
BENCHMARK(watchesAt60Hz)->Arg(1)->Arg(1000)->UseManualTime()->Iterations(180)->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char** argv) {
    zelCore::init();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    zelCore::shutdown();
    return 0;
}
