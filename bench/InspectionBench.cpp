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
#include <optional>
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

/// What a simulation does besides: some milliseconds of oscillators.
class Oscillators {
public:
    void step() {
        for (int pass = 0; pass < 20; ++pass)
            for (std::size_t i = 0; i < m_positions.size(); ++i) {
                m_velocities[i] -= 0.001 * m_positions[i];
                m_positions[i] += 0.001 * m_velocities[i];
            }
        benchmark::DoNotOptimize(m_positions.data());
        benchmark::ClobberMemory();
    }

private:
    std::vector<double> m_positions = std::vector<double>(200'000, 1.0);
    std::vector<double> m_velocities = std::vector<double>(200'000, 0.0);
};

/// All values change in each of 60 steps a second; the time is that of the service in a step. The counter
/// "step" is the time of the step itself, in microseconds.
void watchesAt60Hz(benchmark::State& state) {
    const int numValues = static_cast<int>(state.range(0));
    const bool isWatched = state.range(1) != 0;
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
        std::optional<Watcher> watcher;
        if (isWatched)
            watcher.emplace(service->getChannel()->getPort(), numValues);
        while (isWatched && watcher->numUpdates() == 0)
            service->service();
        const long before = isWatched ? watcher->numUpdates() : 0;
        Oscillators oscillators;
        double step = 0, stepSeconds = 0;
        auto next = std::chrono::steady_clock::now();
        for ([[maybe_unused]] const auto& iteration : state) {
            next += std::chrono::microseconds(16667);
            std::this_thread::sleep_until(next);
            step += 0.1;
            const double begin = threadSeconds();
            for (auto* value : values)
                value->set(step);
            oscillators.step();
            const double end = threadSeconds();
            service->service();
            state.SetIterationTime(threadSeconds() - end);
            stepSeconds += end - begin;
        }
        state.counters["updates"] = isWatched ? static_cast<double>(watcher->numUpdates() - before) : 0.0;
        state.counters["step"] = 1e6 * stepSeconds / static_cast<double>(state.iterations());
    }
    zel::root()->removeObject(rover.get());
}
BENCHMARK(watchesAt60Hz)
    ->ArgNames({"values", "watched"})
    ->ArgsProduct({{1, 1000}, {0, 1}})
    ->UseManualTime()
    ->Iterations(180)
    ->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char** argv) {
    zelCore::init();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    zelCore::shutdown();
    return 0;
}
