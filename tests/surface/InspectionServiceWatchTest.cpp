// What clients of an inspection service watch.
#include "InspectionFixture.h"

#include <zel/Pointer.h>

#include <limits>

using testing::ElementsAre;
using zelData::ValueT;

namespace {

class InspectionServiceWatchTest : public zelTest::InspectionFixture {
protected:
    static constexpr const char* Update = "Watch.Update";

    Json::Value watch(Client& client, const std::string& paths, const std::string& more = {}) {
        const auto answer =
            ask(client, "Watch.Add", "{'watch':1,'interval':16,'paths':[" + paths + "]" + more + "}");
        EXPECT_EQ(answer.header["success"], true) << text(answer.header);
        return answer.header["items"];
    }
    /// The next update, which is acknowledged.
    Message next(Client& client) {
        Message update = takePush(client, Update);
        acknowledge(client, update);
        return update;
    }
};

} // namespace

TEST_F(InspectionServiceWatchTest, TellsWhatThePathsLeadTo) {
    auto client = connect();
    const auto items = watch(client, "'top.a','top.numbers','top.nobody','top.cars'");
    EXPECT_EQ(text(items[0]), "{\"kind\":\"value\",\"path\":\"top.a\",\"type\":\"Real:64bit\"}\n");
    EXPECT_EQ(text(items[1]), "{\"kind\":\"buffer\",\"path\":\"top.numbers\",\"type\":\"Real:64bit\"}\n");
    EXPECT_EQ(text(items[2]), "{\"kind\":\"none\",\"path\":\"top.nobody\",\"type\":\"\"}\n");
    EXPECT_EQ(items[3]["kind"], "none");
}

TEST_F(InspectionServiceWatchTest, SendsAllAtFirstAndThenWhatHasChanged) {
    auto client = connect();
    watch(client, "'top.a','top.result'");
    auto update = next(client).header;
    EXPECT_EQ(update["watch"], 1);
    EXPECT_EQ(update["sequence"], 1);
    EXPECT_EQ(text(update["items"]), "[{\"item\":0,\"value\":1.5},{\"item\":1,\"value\":0}]\n");
    EXPECT_EQ(update["clock"]["path"], "top.clock");
    EXPECT_EQ(update["clock"]["frame"], 0);
    EXPECT_TRUE(isQuiet(client));
    clock->tick();
    result->set(7.0);
    update = next(client).header;
    EXPECT_EQ(update["sequence"], 2);
    EXPECT_EQ(text(update["items"]), "[{\"item\":1,\"value\":7}]\n");
    EXPECT_EQ(update["clock"]["time"], 0.1);
}

TEST_F(InspectionServiceWatchTest, TellsTheLatestToASlowClient) {
    auto client = connect();
    watch(client, "'top.a'");
    a->set(0.0);
    Message first = takePush(client, Update);
    a->set(1.0);
    Message second = takePush(client, Update);
    for (int i = 2; i <= 100; ++i) {
        a->set(static_cast<double>(i));
        service->service();
    }
    EXPECT_TRUE(isQuiet(client)); // two are not acknowledged
    acknowledge(client, first);
    const auto update = takePush(client, Update).header;
    EXPECT_EQ(update["sequence"], 3);
    EXPECT_EQ(text(update["items"]), "[{\"item\":0,\"value\":100}]\n");
}

TEST_F(InspectionServiceWatchTest, AcknowledgementsOfWhatWasNeverSentAreNone) {
    auto client = connect();
    watch(client, "'top.a'");
    takePush(client, Update);
    send(client, "Watch.Ack", "{'watch':1,'sequence':18446744073709551615}");
    send(client, "Watch.Ack", "{'watch':9,'sequence':1}");
    send(client, "Watch.Ack", "{'watch':1}"); // no answer to this either
    for (int i = 0; i < 2; ++i) {
        a->set(10.0 + i);
        takePush(client, Update);
    }
    a->set(20.0);
    EXPECT_TRUE(isQuiet(client));
}

TEST_F(InspectionServiceWatchTest, SendsElementsThatWereCommitted) {
    numbers->data<double>()[1] = 4.5;
    auto client = connect();
    watch(client, "'top.a','top.numbers'", ",'begin':1,'count':5");
    auto update = next(client);
    ASSERT_EQ(update.header["items"].size(), 2U);
    const auto& item = update.header["items"][1];
    EXPECT_THAT(update.elements<double>(item), ElementsAre(4.5));
    EXPECT_EQ(item["numElements"], 2);
    EXPECT_EQ(item["revision"].asUInt64(), numbers->getRevision());
    EXPECT_TRUE(isQuiet(client));
    numbers->resize(4);
    numbers->data<double>()[3] = 9;
    numbers->commit();
    update = next(client);
    EXPECT_THAT(update.elements<double>(update.header["items"][0]), ElementsAre(4.5, 0, 9));
}

TEST_F(InspectionServiceWatchTest, ElementsOfSeveralBuffersLieApart) {
    auto* small = put(new zelData::Buffer("small", zelData::getFormat("UInt:8bit")));
    small->resize(3);
    auto client = connect();
    watch(client, "'top.small','top.numbers','top.small'");
    const auto update = next(client);
    const auto& items = update.header["items"];
    EXPECT_EQ(items[0]["byteOffset"], 0);
    EXPECT_EQ(items[1]["byteOffset"], 16);
    EXPECT_EQ(items[2]["byteOffset"], 32);
    EXPECT_EQ(update.payload.size(), 35U);
    EXPECT_EQ(update.payload.substr(3, 13), std::string(13, '\0'));
    EXPECT_EQ(items[0]["component"], "u8");
}

TEST_F(InspectionServiceWatchTest, WhatDoesNotFitComesWithTheNextUpdates) {
    std::string paths;
    for (int i = 0; i < 5; ++i) {
        auto* large =
            put(new zelData::Buffer(zel::Name("large" + std::to_string(i)), zelData::getFormat("Real")));
        large->resize(800'000); // 6.4 MB
        paths += std::string(i == 0 ? "" : ",") + "'top.large" + std::to_string(i) + "'";
    }
    auto client = connect();
    watch(client, paths);
    std::vector<int> items;
    for (int i = 0; i < 3; ++i) {
        const auto update = next(client);
        EXPECT_LE(update.payload.size(), zel::size_t{16} << 20);
        for (const auto& item : update.header["items"])
            items.push_back(item["item"].asInt());
    }
    EXPECT_THAT(items, ElementsAre(0, 1, 2, 3, 4));
    EXPECT_TRUE(isQuiet(client));
}

TEST_F(InspectionServiceWatchTest, LongTextsComeInSeveralUpdates) {
    std::string paths;
    for (int i = 0; i < 500; ++i) {
        put(new ValueT<zel::String>(zel::Name("t" + std::to_string(i)),
                                    zel::String(std::string(10'000, 'x'))));
        paths += std::string(i == 0 ? "" : ",") + "'top.t" + std::to_string(i) + "'";
    }
    auto client = connect();
    watch(client, paths);
    zel::size_t numItems = 0;
    while (numItems < 500) {
        const auto update = next(client).header;
        EXPECT_LT(text(update).size(), 1024U * 1024);
        numItems += update["items"].size();
    }
    EXPECT_EQ(numItems, 500U);
}

TEST_F(InspectionServiceWatchTest, ObjectsMayGoAndComeBack) {
    auto client = connect();
    watch(client, "'top.a','top.later'");
    EXPECT_EQ(text(next(client).header["items"]),
              "[{\"item\":0,\"value\":1.5},{\"item\":1,\"removed\":true}]\n");
    const zel::ref_ptr<zel::Object> kept(a);
    top->removeObject(a);
    EXPECT_EQ(text(next(client).header["items"]), "[{\"item\":0,\"removed\":true}]\n");
    EXPECT_TRUE(isQuiet(client));
    put(new ValueT<double>("a", 1.5));
    EXPECT_EQ(text(next(client).header["items"]), "[{\"item\":0,\"value\":1.5}]\n");
    put(new ValueT<double>("later", 3.0));
    EXPECT_EQ(text(next(client).header["items"]), "[{\"item\":1,\"value\":3}]\n");
}

TEST_F(InspectionServiceWatchTest, FollowsPointersThatTurn) {
    auto* one = put(new zel::Component("one"));
    auto* two = put(new zel::Component("two"));
    one->addObject(new ValueT<double>("x", 1.0));
    two->addObject(new ValueT<double>("x", 2.0));
    auto* pointer = put(new zel::Pointer("pointer", one));
    auto client = connect();
    watch(client, "'top.pointer.x'");
    EXPECT_EQ(text(next(client).header["items"]), "[{\"item\":0,\"value\":1}]\n");
    pointer->bind(static_cast<zel::Object*>(two));
    EXPECT_EQ(text(next(client).header["items"]), "[{\"item\":0,\"value\":2}]\n");
}

TEST_F(InspectionServiceWatchTest, TellsOfNumbersThatAreNone) {
    auto client = connect();
    watch(client, "'top.a'");
    next(client);
    a->set(std::numeric_limits<double>::quiet_NaN());
    EXPECT_EQ(text(next(client).header["items"]), "[{\"item\":0,\"value\":\"nan\"}]\n");
    a->set(std::numeric_limits<double>::quiet_NaN());
    EXPECT_TRUE(isQuiet(client)); // bit by bit the same
}

TEST_F(InspectionServiceWatchTest, IsReplacedByOneOfItsNumberAndRemoved) {
    auto client = connect();
    watch(client, "'top.a'");
    next(client);
    watch(client, "'top.result'");
    EXPECT_EQ(text(next(client).header["items"]), "[{\"item\":0,\"value\":0}]\n");
    ask(client, "Watch.Remove", "{'watch':1}");
    result->set(5.0);
    EXPECT_TRUE(isQuiet(client));
    EXPECT_EQ(refusal(client, "Watch.Remove", "{'watch':1}"), "There is no watch 1");
}

TEST_F(InspectionServiceWatchTest, RefusesMoreThanItServes) {
    auto client = connect();
    const auto add = [&](const std::string& members) {
        return refusal(client, "Watch.Add", "{" + members + "}");
    };
    EXPECT_EQ(add("'watch':1,'interval':15,'paths':[]"),
              "'interval' must be at least 16, and 'stride' at least 1");
    EXPECT_EQ(add("'watch':1,'stride':0,'paths':[]"),
              "'interval' must be at least 16, and 'stride' at least 1");
    EXPECT_EQ(add("'watch':-1,'paths':[]"), "'watch' must be a whole number from 0 to 4294967295");
    EXPECT_EQ(add("'watch':1"), "'paths' must be a list of at most 1024 texts");
    EXPECT_EQ(add("'watch':1,'paths':[1]"), "'paths' must be a list of at most 1024 texts");
    std::string many = "'p'";
    for (int i = 1; i < 600; ++i)
        many += ",'p'";
    ask(client, "Watch.Add", "{'watch':1,'paths':[" + many + "]}");
    EXPECT_EQ(add("'watch':2,'paths':[" + many + "]"), "There may be 64 watches of 1024 paths in all");
    ask(client, "Watch.Add", "{'watch':1,'paths':[]}");
    for (int i = 2; i <= 64; ++i)
        EXPECT_EQ(
            ask(client, "Watch.Add", "{'watch':" + std::to_string(i) + ",'paths':[]}").header["success"],
            true);
    EXPECT_EQ(add("'watch':65,'paths':[]"), "There may be 64 watches of 1024 paths in all");
}

TEST_F(InspectionServiceWatchTest, EndsWithItsClient) {
    auto other = connect();
    {
        auto client = connect();
        watch(client, "'top.a','top.numbers'");
        next(client);
    }
    EXPECT_TRUE(serveUntil([&] { return channel->getClients().size() == 1; }));
    a->set(9.0);
    EXPECT_TRUE(isQuiet(other));
}

TEST_F(InspectionServiceWatchTest, PausesWhileTheClientIsNotTrusted) {
    start("secret");
    auto client = connect();
    ask(client, "authenticate", "{'token':'secret'}");
    watch(client, "'top.a'");
    next(client);
    EXPECT_EQ(ask(client, "authenticate", "{'token':'wrong'}").header["success"], false);
    a->set(2.0);
    for (int i = 0; i < 3; ++i) { // another client sees three updates
        auto other = connect();
        ask(other, "authenticate", "{'token':'secret'}");
        watch(other, "'top.a'");
        next(other);
    }
    EXPECT_EQ(ask(client, "authenticate", "{'token':'secret'}").header["success"], true);
    EXPECT_EQ(text(next(client).header["items"]), "[{\"item\":0,\"value\":2}]\n");
}
