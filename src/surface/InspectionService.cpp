#include "Completion.h"
#include "InspectionClocks.h"
#include "InspectionElements.h"
#include "InspectionFrames.h"
#include "InspectionLog.h"
#include "InspectionRequest.h"
#include "InspectionSeries.h"
#include "InspectionStatistics.h"
#include "InspectionTracks.h"
#include "InspectionTree.h"
#include "InspectionWatches.h"
#include "StreamText.h"

#include <zel/Component.h>
#include <zel/Log.h>
#include <zel/Stream.h>
#include <zel/Thread.h>
#include <zel/TreeGate.h>
#include <zelCore/Version.h>
#include <zelData/Buffer.h>
#include <zelData/Format.h>
#include <zelData/FunctionValue.h>
#include <zelData/Type.h>
#include <zelData/Value.h>
#include <zelNet/InspectionService.h>
#include <zelNet/StructuredMessage.h>

#include <json/writer.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <stdexcept>
#include <string>
#include <utility>

namespace zelNet {

using std::chrono::steady_clock;
using zel::uint64;

namespace {

constexpr std::chrono::milliseconds TickSlice(20);
// What is recorded may be long to read: where a clock runs, a fifth of the time is enough for that.
constexpr std::chrono::milliseconds SeriesSlice(20);
constexpr std::chrono::milliseconds SeriesSliceOfRun(4);
constexpr int SeriesRest = 4; // times what was spent
constexpr uint64 MaxEntries = 1000;

double secondsSince(steady_clock::time_point start) {
    return std::chrono::duration<double>(steady_clock::now() - start).count();
}

/// What a model file would have for the value.
zel::String expressionOf(const Json::Value& value) {
    if (value.isString())
        return value.asString();
    if (!value.isNumeric() && !value.isBool())
        throw std::runtime_error("'value' must be a text, a number, true or false");
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    writer["precision"] = 17;
    return Json::writeString(writer, value);
}

/// Whether the expression is a path that leads nowhere.
bool namesNothing(zelData::Value& value, const zel::String& expression) {
    const zel::size_t begin = expression.find_first_not_of(" \t\r\n");
    if (begin == zel::String::npos || expression[begin] != '@')
        return false;
    const zel::size_t end = expression.find_last_not_of(" \t\r\n");
    return value.getAutoScopedResource(zel::verifiedPath(expression.substr(begin, end + 1 - begin))) ==
           nullptr;
}

} // namespace

class InspectionService::Implementation {
public:
    Implementation(WebSocket::ControlChannel* channel, zel::Component* root);
    Implementation(const Implementation&) = delete;
    Implementation& operator=(const Implementation&) = delete;
    ~Implementation();

    bool service();

    const zel::ref_ptr<WebSocket::ControlChannel> channel;
    const zel::ref_ptr<zel::Component> root;
    InspectionTracks tracks;
    bool isWritable = false;
    bool isCallable = false;
    std::function<zel::Vector<Stream>()> streams;

private:
    using Handler = void (Implementation::*)(InspectionRequest&);
    struct Route {
        const char* uri = nullptr;
        Handler handler = nullptr;
        bool changes = false;
        bool answers = true;
    };
    static const std::array<Route, 21> Routes;

    void handle(const Route& route, WebSocket* socket, const StructuredMessage& message);

    /// Reads on for who has asked for series, and sends what was read.
    bool readSeries();

    void info(InspectionRequest& request);
    void heartbeat(InspectionRequest& request);
    void listStatistics(InspectionRequest& request) { request.response = describeStatistics(); }
    void describe(InspectionRequest& request);
    void complete(InspectionRequest& request);
    void setValue(InspectionRequest& request);
    void readBuffer(InspectionRequest& request);
    void addWatch(InspectionRequest& request) { m_watches.add(request); }
    void removeWatch(InspectionRequest& request) { m_watches.remove(request); }
    void acknowledge(InspectionRequest& request) { m_watches.acknowledge(request); }
    void listClocks(InspectionRequest& request) { m_clocks.list(request); }
    void controlClock(InspectionRequest& request) { m_clocks.control(request); }
    void subscribeToLog(InspectionRequest& request) { m_log->subscribe(request); }
    void callFunction(InspectionRequest& request);
    void listTracks(InspectionRequest& request) { tracks.list(request); }
    void controlTrack(InspectionRequest& request) { tracks.control(request); }
    void startSeries(InspectionRequest& request) { m_series.start(request); }
    void stopSeries(InspectionRequest& request) { m_series.stop(request); }
    void subscribe(InspectionRequest& request) { m_frames.subscribe(request); }
    void unsubscribe(InspectionRequest& request) { m_frames.unsubscribe(request); }
    void acknowledgeFrame(InspectionRequest& request) { m_frames.acknowledge(request); }

    steady_clock::time_point m_start = steady_clock::now();
    uint64 m_disconnect;
    TreeRevision m_revision;
    InspectionWatches m_watches;
    InspectionClocks m_clocks;
    zel::ref_ptr<InspectionLog> m_log;
    InspectionSeries m_series;
    steady_clock::time_point m_seriesDue;
    InspectionFrames m_frames;
};

const std::array<InspectionService::Implementation::Route, 21> InspectionService::Implementation::Routes = {
    {{"System.Info", &Implementation::info, false},
     {"System.Heartbeat", &Implementation::heartbeat, false},
     {"Statistics.List", &Implementation::listStatistics, false},
     {"Object.Describe", &Implementation::describe, false},
     {"Object.Complete", &Implementation::complete, false},
     {"Value.Set", &Implementation::setValue, true},
     {"Buffer.Read", &Implementation::readBuffer, false},
     {"Watch.Add", &Implementation::addWatch, false},
     {"Watch.Remove", &Implementation::removeWatch, false},
     {"Watch.Ack", &Implementation::acknowledge, false, false},
     {"Clock.List", &Implementation::listClocks, false},
     {"Clock.Control", &Implementation::controlClock, true},
     {"Log.Subscribe", &Implementation::subscribeToLog, false},
     {"Function.Call", &Implementation::callFunction, true},
     {"Track.List", &Implementation::listTracks, false},
     {"Track.Control", &Implementation::controlTrack, false},
     {"Track.Series", &Implementation::startSeries, false},
     {"Track.StopSeries", &Implementation::stopSeries, false},
     {"Track.Subscribe", &Implementation::subscribe, false},
     {"Track.Unsubscribe", &Implementation::unsubscribe, false},
     {"Track.Ack", &Implementation::acknowledgeFrame, false, false}}};

InspectionService::Implementation::Implementation(WebSocket::ControlChannel* c, zel::Component* r)
    : channel(c)
    , root(r)
    , tracks(r)
    , m_revision(r)
    , m_watches(r, m_revision)
    , m_clocks(r, m_revision)
    , m_log(new InspectionLog)
    , m_series(r, tracks)
    , m_frames(tracks) {
    for (const Route& route : Routes)
        channel->registerMessageHandler(route.uri,
                                        [this, &route](auto*, WebSocket* socket, StructuredMessage* message) {
                                            handle(route, socket, *message);
                                        });
    m_disconnect = channel->SocketDisconnect.connect([this](auto*, WebSocket* socket) {
        m_watches.forget(socket);
        m_log->forget(socket);
        tracks.forget(socket);
        m_series.forget(socket);
        m_frames.forget(socket);
    });
    zel::Notify::instance()->addCallback(m_log.get(), zel::Notify::Error);
}

InspectionService::Implementation::~Implementation() {
    zel::Notify::instance()->removeCallback(m_log.get());
    channel->SocketDisconnect.disconnect(m_disconnect);
    for (const Route& route : Routes)
        channel->registerMessageHandler(route.uri, {});
}

void InspectionService::Implementation::handle(const Route& route,
                                               WebSocket* socket,
                                               const StructuredMessage& message) {
    const uint32_t answered = message.getResponseId();
    if (answered != StructuredMessage::NoId && answered != 0)
        return; // two services would go on for ever
    InspectionRequest request(socket, message);
    if (!route.answers) {
        try {
            (this->*route.handler)(request);
        } catch (const std::exception& error) {
            ZEL_LOG_DEBUG(route.uri << ": " << error.what());
        }
        return;
    }
    if (route.changes) {
        if (!isWritable)
            throw std::runtime_error("The simulation takes no changes from here");
        const zel::TreeChange change;
        (this->*route.handler)(request);
    } else
        (this->*route.handler)(request);
    request.response["success"] = true;
    const zel::ref_ptr<StructuredMessage> response(message.createResponse());
    response->setHeader(request.response);
    response->setBinarySegment(request.payload.get());
    socket->send(response.get());
}

bool InspectionService::Implementation::service() {
    bool hasWorked = channel->service(0);
    hasWorked = m_clocks.step(steady_clock::now() + TickSlice) || hasWorked;
    const auto now = steady_clock::now();
    hasWorked = tracks.update(now) || hasWorked;
    if (m_watches.isDue(now)) {
        const std::string clock = m_clocks.first();
        hasWorked = m_watches.update(now, clock == "null" ? tracks.firstPosition() : clock) || hasWorked;
    }
    hasWorked = m_frames.update() || hasWorked;
    hasWorked = readSeries() || hasWorked;
    hasWorked = m_log->send() || hasWorked;
    return hasWorked;
}

bool InspectionService::Implementation::readSeries() {
    const auto start = steady_clock::now();
    if (start < m_seriesDue)
        return false;
    const bool isRunning = m_clocks.isAnyRunning();
    const bool hasWorked = m_series.update(start + (isRunning ? SeriesSliceOfRun : SeriesSlice));
    const auto end = steady_clock::now();
    m_seriesDue = isRunning ? end + SeriesRest * (end - start) : end;
    return hasWorked;
}

void InspectionService::Implementation::info(InspectionRequest& request) {
    Json::Value& response = request.response;
    response["protocol"] = Protocol;
    response["version"] = zelCore::zelGetVersion(true);
    response["pid"] = getpid();
    response["threads"] = static_cast<Json::UInt64>(zel::getNumThreads());
    response["uptime"] = secondsSince(m_start);
    response["writable"] = isWritable;
    response["callable"] = isWritable && isCallable;
    for (const Route& route : Routes)
        response["uris"].append(route.uri);
    response["streams"] = Json::Value(Json::arrayValue);
    for (const Stream& stream : streams ? streams() : zel::Vector<Stream>()) {
        Json::Value& json = response["streams"].append(Json::Value(Json::objectValue));
        json["name"] = stream.name.c_str();
        json["port"] = stream.port;
        json["numFrames"] = static_cast<Json::UInt64>(stream.numFrames);
        json["numLeftOut"] = static_cast<Json::UInt64>(stream.numLeftOut);
        json["numClients"] = static_cast<Json::UInt64>(stream.numClients);
        json["numQueuedBytes"] = static_cast<Json::UInt64>(stream.numQueuedBytes);
    }
    Json::Value& limits = response["limits"];
    limits["watches"] = static_cast<Json::UInt64>(MaxWatches);
    limits["paths"] = static_cast<Json::UInt64>(MaxPaths);
    limits["logLines"] = static_cast<Json::UInt64>(MaxLogLines);
    limits["elementBytes"] = static_cast<Json::UInt64>(MaxElementBytes);
}

void InspectionService::Implementation::heartbeat(InspectionRequest& request) {
    const std::chrono::duration<double> time = std::chrono::system_clock::now().time_since_epoch();
    request.response["time"] = time.count();
}

void InspectionService::Implementation::describe(InspectionRequest& request) {
    const zel::String path = request.text("path");
    InspectedRange range;
    range.depth = request.wholeNumber("depth", 1, 3);
    range.begin = request.wholeNumber("begin", 0, ~uint64{0});
    range.count = request.wholeNumber("count", MaxEntries, MaxEntries);
    request.response = describeInspected(root.get(), requireInspected(root.get(), path), path, range);
}

void InspectionService::Implementation::complete(InspectionRequest& request) {
    const zel::String text = request.text("text");
    const uint64 limit = request.wholeNumber("limit", 50, MaxEntries);
    zelIO::Completion completion = zelIO::completePath(text, root.get());
    if (completion.list.size() > limit)
        completion.list.resize(limit);
    request.response = completion.toJson(text);
}

void InspectionService::Implementation::setValue(InspectionRequest& request) {
    const zel::String path = request.text("path");
    auto* value = dynamic_cast<zelData::Value*>(&requireInspected(root.get(), path));
    if (value == nullptr)
        throw std::runtime_error("'" + path + "' is no value");
    if (InspectionTracks::treeOf(value) != nullptr)
        throw std::runtime_error("'" + path + "' is part of a recording");
    const zel::String expression = expressionOf(request.member("value"));
    const zelData::Type* type = value->getType();
    if (type == nullptr || type->getName().str() != "String")
        zel::verifyExpression(expression, value->getFormat());
    value->verifyLiteral(expression);
    const zel::ref_ptr<zelData::Value> before(value->getFormat() == nullptr ? nullptr : value->clone());
    const zel::ref_ptr<zelData::Value> binding(value->getBinding());
    // A model file may name what comes later; here somebody waits for what he has asked for.
    bool isThere = !namesNothing(*value, expression);
    if (isThere) {
        value->setExpression(expression);
        const auto* function = dynamic_cast<zelData::FunctionValue*>(value->getBinding());
        isThere = function == nullptr || function->getTask() != nullptr;
        if (!isThere && binding)
            value->bind(binding.get());
        else if (!isThere && before)
            value->set(before.get());
    }
    if (!isThere)
        throw std::runtime_error("'" + expression + "' names nothing that is there");
    request.response["value"] = valueToJson(*value, ElementLayout(value->getFormat()));
}

void InspectionService::Implementation::readBuffer(InspectionRequest& request) {
    const zel::String path = request.text("path");
    const auto* buffer = dynamic_cast<zelData::Buffer*>(&requireInspected(root.get(), path));
    if (buffer == nullptr)
        throw std::runtime_error("'" + path + "' is no buffer");
    ElementRange range;
    range.begin = request.wholeNumber("begin", 0, ~uint64{0});
    range.count = request.wholeNumber("count", ~uint64{0}, ~uint64{0});
    range.stride = request.wholeNumber("stride", 1, ~uint64{0});
    if (range.stride == 0)
        throw std::runtime_error("'stride' must be at least 1");
    range = range.clipped(*buffer, MaxElementBytes);
    const uint64 numBytes = describeElements(request.response, *buffer, range, 0);
    if (numBytes == 0)
        return;
    request.payload = new zelData::BinaryData(numBytes);
    copyElements(request.payload->getData(), *buffer, range);
}

void InspectionService::Implementation::callFunction(InspectionRequest& request) {
    if (!isCallable)
        throw std::runtime_error("The simulation takes no calls from here");
    const zel::ref_ptr<zel::Stream::FunctionEvent> event(new zel::Stream::FunctionEvent(&request.message));
    event->evaluate();
    Json::Value& values = request.response["values"] = Json::Value(Json::objectValue);
    for (const auto& entry : event->getParameters())
        if (const auto* value = dynamic_cast<zelData::Value*>(entry.value.get()))
            values[entry.key.c_str()] = valueToJson(*value, ElementLayout(value->getFormat()));
}

InspectionService::InspectionService(WebSocket::ControlChannel* channel, zel::Component* root)
    : m_implementation(std::make_unique<Implementation>(channel, root)) {}

InspectionService::~InspectionService() = default;

void InspectionService::setWritable(bool isWritable) noexcept {
    m_implementation->isWritable = isWritable;
}

bool InspectionService::isWritable() const noexcept {
    return m_implementation->isWritable;
}

void InspectionService::setCallable(bool isCallable) noexcept {
    m_implementation->isCallable = isCallable;
}

bool InspectionService::isCallable() const noexcept {
    return m_implementation->isCallable;
}

void InspectionService::setStreams(std::function<zel::Vector<Stream>()> streams) {
    m_implementation->streams = std::move(streams);
}

uint64 InspectionService::addJournal(const zel::String& file, const zel::Name& name) {
    return m_implementation->tracks.addJournal(file, name);
}

void InspectionService::openJournal(uint64 id) {
    m_implementation->tracks.open(id);
}

uint64 InspectionService::addLiveTrack(const zel::Name& name, zel::Clock* clock, zel::Component* component) {
    return m_implementation->tracks.addLive(name, clock, component);
}

bool InspectionService::service() {
    return m_implementation->service();
}

WebSocket::ControlChannel* InspectionService::getChannel() const noexcept {
    return m_implementation->channel.get();
}

zel::Component* InspectionService::getRoot() const noexcept {
    return m_implementation->root.get();
}

} // namespace zelNet
