#include "InspectionFixture.h"

#include <zel/Log.h>
#include <zel/Statistics.h>
#include <zel/Thread.h>

#include <support/LogCapture.h>

#include <limits>
#include <map>
#include <thread>
#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using zel::ref_ptr;
using zelData::ValueT;

namespace {

using InspectionServiceTest = zelTest::InspectionFixture;

std::vector<std::string> namesOf(const Json::Value& entries, const char* member = "name") {
    std::vector<std::string> names;
    for (const auto& entry : entries)
        names.push_back(entry[member].asString());
    return names;
}

} // namespace

// System

TEST_F(InspectionServiceTest, TellsWhatItIs) {
    auto client = connect();
    const auto info = ask(client, "System.Info").header;
    EXPECT_EQ(info["success"], true);
    EXPECT_EQ(info["protocol"], 1);
    EXPECT_EQ(info["pid"].asInt(), getpid());
    EXPECT_EQ(info["writable"], false);
    EXPECT_EQ(info["callable"], false);
    EXPECT_EQ(info["threads"].asUInt64(), zel::getNumThreads());
    EXPECT_GE(info["uptime"].asDouble(), 0);
    EXPECT_EQ(info["limits"]["watches"], 64);
    EXPECT_EQ(info["uris"].size(), 21U);
    service->setWritable(true);
    service->setCallable(true);
    EXPECT_EQ(ask(client, "System.Info").header["callable"], true);
    EXPECT_GT(ask(client, "System.Heartbeat").header["time"].asDouble(), 1e9);
}

TEST_F(InspectionServiceTest, TellsWhereFramesGo) {
    auto client = connect();
    EXPECT_EQ(text(ask(client, "System.Info").header["streams"]), "[]\n");
    service->setStreams([] {
        return zel::Vector<zelNet::InspectionService::Stream>{{"tcp", 4000, 12, 3, 2, 1000}};
    });
    EXPECT_EQ(text(ask(client, "System.Info").header["streams"]),
              "[{\"name\":\"tcp\",\"numClients\":2,\"numFrames\":12,\"numLeftOut\":3,\"numQueuedBytes\":1000,"
              "\"port\":4000}]\n");
    service->setStreams({});
    EXPECT_EQ(text(ask(client, "System.Info").header["streams"]), "[]\n");
}

TEST_F(InspectionServiceTest, ListsWhatWasMeasured) {
    auto& statistics = *zel::Statistics::instance();
    int first = 0;
    int below = 0;
    const ref_ptr<zel::Statistics::ProviderHandle> engine(
        statistics.registerDataProvider(&first, "engine", nullptr));
    engine->getOrCreateData<double>("load", true)->add(1.5);
    engine->getOrCreateData<double>("load", true)->add(2.5);
    const ref_ptr<zel::Statistics::ProviderHandle> part(
        statistics.registerDataProvider(&below, "part\xff", &first));
    part->getOrCreateData<float>("least")->add(std::numeric_limits<float>::infinity());
    part->getOrCreateData<unsigned long>("count")->set(7);
    auto client = connect();
    auto answer = ask(client, "Statistics.List").header;
    EXPECT_EQ(answer["enabled"], false);
    std::map<std::string, Json::Value> byPath;
    for (const Json::Value& provider : answer["providers"])
        byPath[provider["path"].asString()] = provider;
    EXPECT_EQ(byPath["engine"]["depth"], 0);
    EXPECT_EQ(text(byPath["engine"]["data"]),
              "[{\"accumulated\":4,\"count\":2,\"name\":\"load\",\"timing\":true,\"value\":4}]\n");
    statistics.unregisterDataProvider(&below);
    const std::string name = "part\xEF\xBF\xBD"; // JSON is UTF-8
    ASSERT_TRUE(byPath.contains("engine/" + name));
    const Json::Value& told = byPath["engine/" + name];
    EXPECT_EQ(told["name"], name);
    EXPECT_EQ(told["depth"], 1);
    ASSERT_EQ(told["data"].size(), 2U);
    EXPECT_EQ(
        text(told["data"][0]),
        "{\"accumulated\":\"inf\",\"count\":1,\"name\":\"least\",\"timing\":false,\"value\":\"inf\"}\n");
    EXPECT_EQ(told["data"][1]["name"], "count");
    EXPECT_EQ(told["data"][1]["value"].asUInt(), 7U);
    zel::Statistics::setEnable(true);
    EXPECT_EQ(ask(client, "Statistics.List").header["enabled"], true);
    zel::Statistics::setEnable(false);
    statistics.unregisterDataProvider(&first);
}

TEST_F(InspectionServiceTest, AnswersNoAnswers) {
    auto client = connect();
    send(client, "System.Info", "{}", 7);
    EXPECT_EQ(ask(client, "System.Heartbeat").uri, "System.Heartbeat");
}

TEST_F(InspectionServiceTest, TakesItsHandlersAway) {
    const zelTest::LogCapture log(zel::Notify::Warning);
    auto client = connect();
    service = new zelNet::InspectionService(
        new zelNet::WebSocket::ControlChannel(zelNet::WebSocketServer::NoListen, ""), zel::root());
    serveAlso([this] { channel->service(0); });
    EXPECT_EQ(refusal(client, "System.Info", "{}"),
              "ControlChannel: No message handler registered for uri: System.Info");
}

TEST_F(InspectionServiceTest, IsSilentUntilTheTokenHasCome) {
    start("secret");
    auto client = connect();
    EXPECT_EQ(ask(client, "System.Info").header, "Error: not authenticated!");
    ask(client, "authenticate", "{'token':'secret'}");
    EXPECT_EQ(ask(client, "System.Info").header["success"], true);
}

// The tree

TEST_F(InspectionServiceTest, DescribesTheRoot) {
    auto client = connect();
    const auto entry = ask(client, "Object.Describe", "{'path':'','depth':1}").header;
    EXPECT_EQ(entry["path"], "");
    EXPECT_EQ(entry["kind"], "component");
    EXPECT_EQ(entry["numChildren"].asUInt64(), zel::root()->getNumObjects());
    EXPECT_THAT(namesOf(entry["children"]), testing::Contains("top"));
    EXPECT_FALSE(entry["children"][0].isMember("children"));
}

TEST_F(InspectionServiceTest, DescribesEachKindOfObject) {
    const auto* pointer = put(new zel::Pointer("pointer", a));
    ASSERT_EQ(pointer->getObject(), a);
    auto client = connect();
    const auto entry = ask(client, "Object.Describe", "{'path':'top'}").header;
    const auto children = entry["children"];
    EXPECT_THAT(namesOf(children), ElementsAre("a", "result", "numbers", "cars", "clock", "pointer"));
    EXPECT_THAT(namesOf(children, "kind"),
                ElementsAre("value", "value", "buffer", "storage", "clock", "pointer"));
    EXPECT_THAT(namesOf(children, "path"),
                ElementsAre("top.a", "top.result", "top.numbers", "top.cars", "top.clock", "top.pointer"));
    EXPECT_EQ(children[0]["type"], "Real:64bit");
    EXPECT_EQ(children[0]["value"], 1.5);
    EXPECT_FALSE(children[0].isMember("binding"));
    EXPECT_EQ(children[2]["numElements"], 2);
    EXPECT_EQ(children[3]["numElements"], 3);
    EXPECT_EQ(children[3]["entity"], "Car");
    EXPECT_EQ(children[4]["enabled"], true);
    EXPECT_EQ(children[5]["target"], "top.a");
    EXPECT_EQ(children[0]["model"], "zelData.Value");
}

TEST_F(InspectionServiceTest, TellsWhatAValueIsBoundTo) {
    result->bind(a);
    auto client = connect();
    const auto entry = ask(client, "Object.Describe", "{'path':'top.result'}").header;
    EXPECT_EQ(entry["binding"], "top.a");
    EXPECT_EQ(entry["value"], 1.5);
    EXPECT_EQ(entry["numChildren"], 0);
}

TEST_F(InspectionServiceTest, DescribesPartsOfLongFolders) {
    auto* folder = put(new zel::Component("folder"));
    for (int i = 0; i < 1500; ++i)
        folder->addObject(new zel::Object(zel::Name("o" + std::to_string(i))));
    auto client = connect();
    auto entry = ask(client, "Object.Describe", "{'path':'top.folder'}").header;
    EXPECT_EQ(entry["numChildren"], 1500);
    EXPECT_EQ(entry["children"].size(), 1000U);
    entry = ask(client, "Object.Describe", "{'path':'top.folder','begin':1495,'count':100}").header;
    EXPECT_EQ(entry["begin"], 1495);
    EXPECT_THAT(namesOf(entry["children"]), ElementsAre("o1495", "o1496", "o1497", "o1498", "o1499"));
    entry = ask(client, "Object.Describe", "{'path':'top.folder','begin':18446744073709551615}").header;
    EXPECT_EQ(entry["children"].size(), 0U);
    entry = ask(client, "Object.Describe", "{'path':'top','depth':2}").header;
    EXPECT_EQ(entry["children"][5]["children"].size(), 100U);
    EXPECT_EQ(entry["children"][5]["numChildren"], 1500);
}

TEST_F(InspectionServiceTest, DescribesNoMoreThanAMessageHolds) {
    const std::string longText(100'000, 'x');
    for (int i = 0; i < 900; ++i)
        put(new ValueT<zel::String>(zel::Name("text" + std::to_string(i)), zel::String(longText)));
    auto client = connect();
    const auto entry = ask(client, "Object.Describe", "{'path':'top'}").header;
    EXPECT_LT(text(entry).size(), 1024U * 1024);
    EXPECT_GT(entry["children"].size(), 100U);
    EXPECT_EQ(entry["children"][10]["value"].asString().size(), 4096U);
}

TEST_F(InspectionServiceTest, NamesByPlaceWhatANameDoesNotLeadTo) {
    auto* folder = put(new zel::Component("folder"));
    for (const char* name : {"twin", "twin", "", "with.dot"}) {
        auto* inner = new zel::Component(name);
        folder->addObject(inner);
        inner->addObject(new ValueT<double>("x", static_cast<double>(folder->getNumObjects())));
    }
    auto client = connect();
    const auto entry = ask(client, "Object.Describe", "{'path':'top.folder','depth':2}").header;
    EXPECT_THAT(namesOf(entry["children"], "path"),
                ElementsAre("top.folder.twin", "top.folder.#1", "top.folder.#2", "top.folder.#3"));
    for (int i = 0; i < 4; ++i) {
        const std::string path = entry["children"][i]["children"][0]["path"].asString();
        EXPECT_EQ(ask(client, "Object.Describe", "{'path':'" + path + "'}").header["value"].asDouble(),
                  i + 1.0)
            << path;
    }
}

TEST_F(InspectionServiceTest, NumbersThatJsonLosesAreTexts) {
    put(new ValueT<double>("nan", std::numeric_limits<double>::quiet_NaN()));
    put(new ValueT<double>("inf", -std::numeric_limits<double>::infinity()));
    put(new ValueT<double>("least", std::numeric_limits<double>::denorm_min()));
    put(new ValueT<zel::uint64>("large", ~zel::uint64{0}));
    put(new ValueT<zel::int64>("small", -9));
    put(new ValueT<bool>("flag", true));
    put(new ValueT<zel::String>("name", zel::String("Ann")));
    auto client = connect();
    std::vector<std::string> values;
    for (const char* name : {"nan", "inf", "least", "large", "small", "flag", "name"})
        values.push_back(
            text(ask(client, "Object.Describe", std::string("{'path':'top.") + name + "'}").header["value"]));
    EXPECT_THAT(values,
                ElementsAre("\"nan\"\n",
                            "\"-inf\"\n",
                            "4.9406564584124654e-324\n",
                            "\"18446744073709551615\"\n",
                            "-9\n",
                            "true\n",
                            "\"Ann\"\n"));
}

TEST_F(InspectionServiceTest, RefusesToGoInCirclesForEver) {
    put(new zel::Pointer("circle", static_cast<zel::Object*>(top.get())));
    service->setWritable(true);
    service->setCallable(true);
    std::string path = "top";
    for (int i = 0; i < 70'000; ++i)
        path += ".circle";
    const std::string tooLong = "The path '@top.circle";
    auto client = connect();
    EXPECT_THAT(refusal(client, "Object.Describe", "{'path':'" + path + "'}"), StartsWith("The path '"));
    EXPECT_THAT(refusal(client, "Watch.Add", "{'watch':1,'paths':['" + path + "']}"),
                StartsWith("The path '"));
    EXPECT_THAT(refusal(client, "Value.Set", "{'path':'top.a','value':'@" + path + "'}"),
                StartsWith(tooLong));
    EXPECT_THAT(refusal(client, "Value.Set", "{'path':'top.a','value':'Math.Mul(@" + path + ", 2)'}"),
                StartsWith(tooLong));
    EXPECT_EQ(ask(client, "Object.Describe", "{'path':'top.circle.circle.a'}").header["value"], 1.5);
    auto header = call();
    header["context"] = path;
    const zelTest::StreamCapture quiet(std::cerr);
    EXPECT_THAT(refusal(client, "Function.Call", text(header)), HasSubstr("' is too long"));
    header = call();
    header["parameters"][2]["bind"] = path;
    send(client,
         "Function.Call",
         text(header),
         zelNet::StructuredMessage::NoId,
         std::string(reinterpret_cast<const char*>(bytes->getData()), bytes->getSize()));
    EXPECT_THAT(take(client).header["error"].asString(), HasSubstr("' is too long"));
}

TEST_F(InspectionServiceTest, CompletesPaths) {
    auto client = connect();
    const auto complete = [&](const std::string& text, const std::string& more = {}) {
        return ask(client, "Object.Complete", "{'text':'" + text + "'" + more + "}").header;
    };
    auto answer = complete("top.C");
    EXPECT_EQ(text(answer["list"]), "[\"cars\",\"clock\"]\n");
    EXPECT_EQ(answer["hasMatch"], true);
    EXPECT_EQ(answer["matchedPath"], "top");
    EXPECT_EQ(answer["query"], "top.C");
    EXPECT_EQ(text(complete("top.c", ",'limit':1")["list"]), "[\"cars\"]\n");
    answer = complete("TOP.cl");
    EXPECT_EQ(answer["matchedPath"], "top.clock");
    EXPECT_EQ(answer["uniqueMatchHasChildren"], true);
    EXPECT_EQ(complete("top.nobody")["hasMatch"], false);
    EXPECT_EQ(complete("nobody.nothing.x")["list"].size(), 0U);
    EXPECT_GT(complete("")["list"].size(), 0U);
}

TEST_F(InspectionServiceTest, RefusesWhatIsNoRequest) {
    auto client = connect();
    const auto describe = [&](const char* header) { return refusal(client, "Object.Describe", header); };
    EXPECT_EQ(describe("{'path':'top.nobody'}"), "There is no object 'top.nobody'");
    EXPECT_EQ(describe("{'path':'top.#99'}"), "There is no object 'top.#99'");
    EXPECT_EQ(describe("{'path':'top.#'}"), "There is no object 'top.#'");
    EXPECT_EQ(describe("{'path':7}"), "'path' must be a text");
    EXPECT_EQ(describe("{'path':'','depth':4}"), "'depth' must be a whole number from 0 to 3");
    EXPECT_EQ(describe("{'path':'','depth':-1}"), "'depth' must be a whole number from 0 to 3");
    EXPECT_EQ(describe("{'path':'','count':1.5}"), "'count' must be a whole number from 0 to 1000");
    EXPECT_EQ(describe("{'path':'','begin':true}"),
              "'begin' must be a whole number from 0 to 18446744073709551615");
    EXPECT_EQ(ask(client, "Object.Describe", "null").header["success"], true);
}

// Values

TEST_F(InspectionServiceTest, SetsNothingUnlessItMay) {
    auto client = connect();
    EXPECT_EQ(refusal(client, "Value.Set", "{'path':'top.a','value':2}"),
              "The simulation takes no changes from here");
    EXPECT_EQ(refusal(client, "Clock.Control", "{'path':'top.clock','action':'pause'}"),
              "The simulation takes no changes from here");
    EXPECT_EQ(refusal(client, "Function.Call", "{}"), "The simulation takes no changes from here");
    EXPECT_EQ(a->get(), 1.5);
    EXPECT_TRUE(clock->isEnabled());
}

TEST_F(InspectionServiceTest, SetsValuesByTextAndByNumber) {
    auto* flag = put(new ValueT<bool>("flag", false));
    auto* name = put(new ValueT<zel::String>("name"));
    service->setWritable(true);
    auto client = connect();
    EXPECT_EQ(ask(client, "Value.Set", "{'path':'top.a','value':'-2.25'}").header["value"], -2.25);
    EXPECT_EQ(a->get(), -2.25);
    EXPECT_EQ(ask(client, "Value.Set", "{'path':'top.a','value':0.1}").header["value"], 0.1);
    EXPECT_EQ(a->get(), 0.1);
    ask(client, "Value.Set", "{'path':'top.flag','value':true}");
    EXPECT_TRUE(flag->get());
    ask(client, "Value.Set", "{'path':'top.name','value':'a (b'}");
    EXPECT_EQ(name->get(), "a (b");
    ask(client, "Value.Set", "{'path':'top.result','value':'@top.a'}");
    EXPECT_EQ(result->getBinding(), a);
}

TEST_F(InspectionServiceTest, RefusesValuesThatDoNotFit) {
    const zelTest::LogCapture log(zel::Notify::Warning);
    put(new ValueT<bool>("flag", true));
    service->setWritable(true);
    auto client = connect();
    const auto set = [&](const std::string& path, const std::string& value) {
        return refusal(client, "Value.Set", "{'path':'" + path + "','value':" + value + "}");
    };
    put(new ValueT<zel::int64>("count", 1));
    EXPECT_EQ(set("top.a", "'3,5'"),
              "'3,5' is not wholly a value of type 'Real:64bit': ',5' stands behind the number");
    EXPECT_EQ(set("top.count", "2.5"),
              "'2.5' is not wholly a value of type 'Int:64bit': '2.5' is no whole number");
    EXPECT_THAT(set("top.a", "'fast'"), HasSubstr("fast"));
    EXPECT_THAT(set("top.flag", "'maybe'"), HasSubstr("maybe"));
    EXPECT_EQ(set("top.a", "'No.Such.Function(1)'"), "'No.Such.Function(1)' names nothing that is there");
    EXPECT_EQ(set("top.a", "'@top.nobody'"), "'@top.nobody' names nothing that is there");
    EXPECT_EQ(set("top.a", "null"), "'value' must be a text, a number, true or false");
    EXPECT_EQ(set("top.a", "[1]"), "'value' must be a text, a number, true or false");
    EXPECT_EQ(set("top", "1"), "'top' is no value");
    EXPECT_THAT(set("top.a", "'@top.a'"), testing::Not(""));
    EXPECT_EQ(a->get(), 1.5);
    result->bind(a);
    EXPECT_EQ(set("top.result", "'@top.nobody'"), "'@top.nobody' names nothing that is there");
    EXPECT_EQ(result->getBinding(), a);
}

// Buffers

TEST_F(InspectionServiceTest, ReadsElements) {
    numbers->resize(10);
    for (zel::uint64 i = 0; i < 10; ++i)
        numbers->data<double>()[i] = static_cast<double>(i);
    auto client = connect();
    auto answer = ask(client, "Buffer.Read", "{'path':'top.numbers'}");
    EXPECT_EQ(answer.header["type"], "Real:64bit");
    EXPECT_EQ(answer.header["component"], "f64");
    EXPECT_EQ(answer.header["elementSize"], 8);
    EXPECT_EQ(answer.elements<double>(answer.header).size(), 10U);
    answer = ask(client, "Buffer.Read", "{'path':'top.numbers','begin':1,'count':3,'stride':4}");
    EXPECT_THAT(answer.elements<double>(answer.header), ElementsAre(1, 5, 9));
    EXPECT_EQ(answer.header["numElements"], 10);
    answer = ask(client, "Buffer.Read", "{'path':'top.numbers','begin':9,'stride':18446744073709551615}");
    EXPECT_THAT(answer.elements<double>(answer.header), ElementsAre(9));
    answer = ask(client, "Buffer.Read", "{'path':'top.numbers','begin':10}");
    EXPECT_EQ(answer.header["count"], 0);
    EXPECT_EQ(answer.payload, "");
    EXPECT_EQ(refusal(client, "Buffer.Read", "{'path':'top.a'}"), "'top.a' is no buffer");
    EXPECT_EQ(refusal(client, "Buffer.Read", "{'path':'top.numbers','stride':0}"),
              "'stride' must be at least 1");
}

TEST_F(InspectionServiceTest, ReadsTextsOfElementsThatAreNoNumbers) {
    auto* names = put(new zelData::Buffer("names", zelData::getFormat("String")));
    names->resize(2);
    names->data<zel::String>()[1] = "Ann";
    auto client = connect();
    const auto answer = ask(client, "Buffer.Read", "{'path':'top.names'}").header;
    EXPECT_EQ(answer["component"], "");
    EXPECT_EQ(text(answer["texts"]), "[\"\",\"Ann\"]\n");
}

TEST_F(InspectionServiceTest, ReadsAtMostSixteenMegabytes) {
    auto* large = put(new zelData::Buffer("large", zelData::getFormat("Real")));
    large->resize(3'000'000);
    auto client = connect();
    const auto answer = ask(client, "Buffer.Read", "{'path':'top.large'}");
    EXPECT_EQ(answer.header["count"], (16 << 20) / 8);
    EXPECT_EQ(answer.header["numElements"], 3'000'000);
    EXPECT_EQ(answer.payload.size(), zel::size_t{16} << 20);
}

// Clocks

TEST_F(InspectionServiceTest, ListsClocks) {
    const ref_ptr<zel::Clock> slave(new zel::Clock("slave", 5));
    top->addObject(slave.get());
    clock->addSlave(slave.get());
    clock->tick();
    auto client = connect();
    const auto clocks = ask(client, "Clock.List").header["clocks"];
    EXPECT_THAT(namesOf(clocks, "path"), ElementsAre("top.clock", "top.slave"));
    EXPECT_EQ(clocks[0]["time"], 0.1);
    EXPECT_EQ(clocks[0]["frame"], 1);
    EXPECT_EQ(clocks[0]["frequency"], 10.0);
    EXPECT_EQ(clocks[0]["modulation"], 1.0);
    EXPECT_EQ(clocks[0]["master"], "");
    EXPECT_EQ(clocks[0]["pending"], 0);
    EXPECT_EQ(clocks[1]["master"], "top.clock");
}

TEST_F(InspectionServiceTest, PausesAndRunsAClock) {
    service->setWritable(true);
    auto client = connect();
    auto entry = ask(client, "Clock.Control", "{'path':'top.clock','action':'pause'}").header["clock"];
    EXPECT_EQ(entry["enabled"], false);
    clock->tick();
    EXPECT_EQ(clock->getFrame(), 0U);
    entry = ask(client, "Clock.Control", "{'path':'top.clock','action':'run'}").header["clock"];
    EXPECT_EQ(entry["enabled"], true);
    clock->tick();
    EXPECT_EQ(clock->getFrame(), 1U);
}

TEST_F(InspectionServiceTest, StepsAPausedClock) {
    service->setWritable(true);
    auto client = connect();
    auto entry =
        ask(client, "Clock.Control", "{'path':'top.clock','action':'step','count':3}").header["clock"];
    EXPECT_EQ(entry["enabled"], false);
    EXPECT_EQ(entry["pending"], 3);
    EXPECT_TRUE(serveUntil([&] { return clock->getFrame() == 3; }));
    ask(client, "Clock.Control", "{'path':'top.clock','action':'step'}");
    EXPECT_TRUE(serveUntil([&] { return clock->getFrame() == 4; }));
    EXPECT_EQ(ask(client, "Clock.List").header["clocks"][0]["pending"], 0);
    EXPECT_EQ(clock->getFrame(), 4U);
    EXPECT_FALSE(clock->isEnabled());
}

TEST_F(InspectionServiceTest, StepsToATimeAsTheClockItselfDoes) {
    service->setWritable(true);
    const ref_ptr<zel::Clock> other(new zel::Clock("other", 10));
    other->stepTo(123.4);
    auto client = connect();
    ask(client, "Clock.Control", "{'path':'top.clock','action':'stepTo','time':123.4}");
    EXPECT_TRUE(serveUntil([&] { return ask(client, "Clock.List").header["clocks"][0]["pending"] == 0; }));
    EXPECT_EQ(clock->getFrame(), other->getFrame());
    EXPECT_EQ(clock->getTime(), other->getTime());
}

TEST_F(InspectionServiceTest, LongStepsLeaveRoomForOthersAndCanBeStopped) {
    service->setWritable(true);
    auto client = connect();
    ask(client, "Clock.Control", "{'path':'top.clock','action':'stepTo','time':1e12}");
    EXPECT_EQ(ask(client, "Clock.List").header["clocks"][0]["pending"], -1);
    EXPECT_TRUE(serveUntil([&] { return clock->getFrame() > 0; }));
    ask(client, "Clock.Control", "{'path':'top.clock','action':'pause'}");
    const auto frame = clock->getFrame();
    ask(client, "System.Heartbeat");
    EXPECT_EQ(clock->getFrame(), frame);
}

TEST_F(InspectionServiceTest, TellsOfTimesBeyondAllNumbers) {
    clock->setTime(std::numeric_limits<double>::infinity());
    auto client = connect();
    EXPECT_EQ(ask(client, "Clock.List").header["clocks"][0]["time"], "inf");
    ask(client, "Watch.Add", "{'watch':1,'paths':['top.a']}");
    EXPECT_EQ(takePush(client, "Watch.Update").header["clock"]["time"], "inf");
}

TEST_F(InspectionServiceTest, AClockThatGoesTakesItsStepsAlong) {
    service->setWritable(true);
    auto client = connect();
    ask(client, "Clock.Control", "{'path':'top.clock','action':'stepTo','time':1e12}");
    top->removeObject(clock.get());
    clock = nullptr;
    EXPECT_EQ(ask(client, "Clock.List").header["clocks"].size(), 0U);
}

TEST_F(InspectionServiceTest, AStepThatFailsEndsAndIsTold) {
    const zelTest::LogCapture log(zel::Notify::Warning);
    service->setWritable(true);
    clock->preTick.connect([](zel::Clock*) { throw std::runtime_error("no fuel"); });
    auto client = connect();
    ask(client, "Clock.Control", "{'path':'top.clock','action':'step','count':5}");
    ask(client, "System.Heartbeat");
    EXPECT_EQ(ask(client, "Clock.List").header["clocks"][0]["pending"], 0);
    EXPECT_THAT(log.text(), HasSubstr("A step that was asked for has failed: no fuel"));
}

TEST_F(InspectionServiceTest, StepsWaitUntilTheTickAroundHasEnded) {
    service->setWritable(true);
    auto client = connect();
    clock->postTick.connect(
        [&](zel::Clock*) {
            ask(client, "Clock.Control", "{'path':'top.clock','action':'step'}");
            ask(client, "System.Heartbeat");
            EXPECT_EQ(clock->getFrame(), 1U);
        },
        true);
    clock->tick();
    EXPECT_TRUE(serveUntil([&] { return clock->getFrame() == 2; }));
}

TEST_F(InspectionServiceTest, ChangesTheTimingOfAClock) {
    const zelTest::LogCapture log(zel::Notify::Warning);
    service->setWritable(true);
    auto client = connect();
    const auto control = [&](const std::string& members) {
        return ask(client, "Clock.Control", "{'path':'top.clock'," + members + "}").header;
    };
    EXPECT_EQ(control("'action':'frequency','value':50")["clock"]["timeStep"], 0.02);
    EXPECT_EQ(control("'action':'modulation','value':0.5")["clock"]["timeStep"], 0.01);
    EXPECT_EQ(control("'action':'frequency','value':-1")["error"], "The clock refuses the value");
    EXPECT_EQ(control("'action':'modulation','value':0")["error"], "The clock refuses the value");
    EXPECT_EQ(control("'action':'frequency'")["error"], "'value' must be a number");
    EXPECT_EQ(control("'action':'step','count':1000001")["error"],
              "'count' must be a whole number from 0 to 1000000");
    EXPECT_EQ(control("'action':'dance'")["error"],
              "'action' must be one of pause, run, step, stepTo, frequency and modulation");
    EXPECT_EQ(refusal(client, "Clock.Control", "{'path':'top.a','action':'run'}"), "'top.a' is no clock");
    EXPECT_EQ(clock->getFrequency(), 50);
}

// The log

TEST_F(InspectionServiceTest, PassesLogLinesOn) {
    const zelTest::LogCapture log(zel::Notify::Info);
    auto client = connect();
    ZEL_LOG_WARNING("before");
    ask(client, "Log.Subscribe", "{'level':'warning'}");
    ZEL_LOG_INFO("too quiet");
    ZEL_LOG_WARNING("out of fuel");
    const auto line = takePush(client, "Log.Line").header;
    EXPECT_EQ(line["level"], "warning");
    EXPECT_THAT(line["text"].asString(), HasSubstr("out of fuel"));
    EXPECT_GT(line["time"].asDouble(), 1e9);
    EXPECT_FALSE(line.isMember("dropped"));
    ask(client, "Log.Subscribe", "{'level':'none'}");
    ZEL_LOG_WARNING("after");
    EXPECT_TRUE(isQuiet(client));
    EXPECT_EQ(refusal(client, "Log.Subscribe", "{'level':'loud'}"),
              "'level' must be one of debug, info, warning, error and none");
}

TEST_F(InspectionServiceTest, PassesLinesOfAllThreadsOnWhileOthersSubscribe) {
    const zelTest::LogCapture log(zel::Notify::Info);
    constexpr int NumLines = 200;
    auto client = connect();
    auto other = connect();
    ask(client, "Log.Subscribe", "{'level':'warning'}");
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t)
        threads.emplace_back([] {
            zel::Thread::registerAsZelThread();
            for (int i = 0; i < NumLines; ++i)
                ZEL_LOG_WARNING("line " << i);
            zel::Thread::unregisterAsZelThread();
        });
    for (int i = 0; i < 20; ++i)
        ask(other, "Log.Subscribe", i % 2 == 0 ? "{'level':'debug'}" : "{'level':'none'}");
    for (auto& thread : threads)
        thread.join();
    for (int i = 0; i < 3 * NumLines; ++i)
        EXPECT_FALSE(takePush(client, "Log.Line").header.isMember("dropped"));
    EXPECT_TRUE(isQuiet(client));
}

TEST_F(InspectionServiceTest, PassesTheLastThousandLinesOnAndTellsHowManyLack) {
    const zelTest::LogCapture log(zel::Notify::Info);
    auto client = connect();
    ask(client, "Log.Subscribe", "{'level':'warning'}");
    for (int i = 0; i < 1500; ++i)
        ZEL_LOG_WARNING("line " << i << ".");
    auto line = takePush(client, "Log.Line").header;
    EXPECT_EQ(line["dropped"], 500);
    EXPECT_THAT(line["text"].asString(), HasSubstr("line 500."));
    for (int i = 501; i < 1500; ++i)
        line = takePush(client, "Log.Line").header;
    EXPECT_THAT(line["text"].asString(), HasSubstr("line 1499."));
    EXPECT_FALSE(line.isMember("dropped"));
}

// Calls

TEST_F(InspectionServiceTest, CallsTasksWhereItMay) {
    service->setWritable(true);
    auto client = connect();
    EXPECT_EQ(refusal(client, "Function.Call", text(call())), "The simulation takes no calls from here");
    service->setCallable(true);
    const std::string payload(reinterpret_cast<const char*>(bytes->getData()), bytes->getSize());
    send(client, "Function.Call", text(call()), zelNet::StructuredMessage::NoId, payload);
    const auto answer = take(client).header;
    EXPECT_EQ(answer["success"], true) << text(answer);
    EXPECT_EQ(answer["values"]["x"], 2.5);
    EXPECT_EQ(answer["values"]["result"], result->get());
    EXPECT_EQ(result->get(), 8.5);
}

TEST_F(InspectionServiceTest, RefusesCallsThatDoNotFit) {
    service->setWritable(true);
    service->setCallable(true);
    auto client = connect();
    const zelTest::StreamCapture quiet(std::cerr);
    EXPECT_NE(refusal(client, "Function.Call", "{}"), "");
    EXPECT_NE(refusal(client, "Function.Call", "{'implementation':'No.Such','parameters':[]}"), "");
    EXPECT_EQ(ask(client, "System.Heartbeat").header["success"], true);
}
