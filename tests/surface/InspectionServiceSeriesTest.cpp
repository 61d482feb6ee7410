#include "InspectionTracksFixture.h"

#include <cmath>
#include <filesystem>
#include <functional>
#include <limits>
#include <map>
#include <utility>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

constexpr double None = -1e99; // stands for NaN, which equals nothing

class InspectionServiceSeriesTest : public zelTest::InspectionTracksFixture {
protected:
    struct Item {
        std::vector<double> numbers;
        zel::uint32 components = 0;
        std::string error;
        Json::Value id;
    };
    struct Rows {
        std::vector<double> times;
        std::map<zel::uint64, Item> items;
        int numPieces = 0;
    };

    static std::vector<double> numbersAt(const Message& message, const Json::Value& json) {
        std::vector<double> numbers(json["numBytes"].asUInt64() / sizeof(double));
        EXPECT_LE(json["byteOffset"].asUInt64() + json["numBytes"].asUInt64(), message.payload.size());
        if (!numbers.empty())
            std::memcpy(numbers.data(),
                        message.payload.data() + json["byteOffset"].asUInt64(),
                        json["numBytes"].asUInt64());
        for (double& number : numbers)
            number = std::isnan(number) ? None : number;
        return numbers;
    }
    static bool add(Rows& rows, const Message& message) {
        const Json::Value& header = message.header;
        EXPECT_EQ(header["first"].asUInt64(), rows.times.size());
        const std::vector<double> times = numbersAt(message, header["times"]);
        EXPECT_EQ(header["count"].asUInt64(), times.size());
        rows.times.insert(rows.times.end(), times.begin(), times.end());
        for (const Json::Value& json : header["items"]) {
            Item& item = rows.items[json["item"].asUInt64()];
            if (json.isMember("error")) {
                item.error = json["error"].asString();
                continue;
            }
            item.components = json["components"].asUInt();
            item.id = json["id"];
            const std::vector<double> numbers = numbersAt(message, json);
            EXPECT_EQ(numbers.size(), times.size() * item.components);
            item.numbers.insert(item.numbers.end(), numbers.begin(), numbers.end());
        }
        ++rows.numPieces;
        return header["done"].asBool();
    }
    /// All rows of a series of which the request was answered.
    Rows takeRows(Client& from, zel::uint64 series) {
        Rows rows;
        for (bool isDone = false; !isDone && !HasFailure();) {
            const Message message = takePush(from, "Track.Points");
            EXPECT_EQ(message.header["series"].asUInt64(), series);
            isDone = add(rows, message);
        }
        return rows;
    }
    Json::Value ask(const std::string& members) {
        Json::Value answer =
            InspectionTracksFixture::ask(client, "Track.Series", "{'id':0,'series':1," + members + "}")
                .header;
        EXPECT_EQ(answer["success"], true) << text(answer);
        return answer;
    }
    Rows series(const std::string& members) {
        ask(members);
        return takeRows(client, 1);
    }
    /// Takes the levels of so many frames, and whatever comes ahead of them.
    void expectAllLevels(zel::size_t numFrames) {
        Rows rows;
        for (bool isDone = false; !isDone && !HasFailure();) {
            const Message message = client.pushes.empty() ? take(client) : client.pushes.front();
            if (!client.pushes.empty())
                client.pushes.pop_front();
            if (message.uri == "Track.Points")
                isDone = add(rows, message);
        }
        EXPECT_EQ(rows.times.size(), numFrames);
        EXPECT_EQ(rows.items[0].numbers.back(), static_cast<double>(numFrames - 1) / 2);
    }
    /// A journal, "own.journal", of the component, which is changed ahead of each frame.
    void
    recordOwn(zel::Component* root, zel::uint64 numFrames, const std::function<void(zel::uint64)>& change) {
        const zelTest::StreamCapture quiet(std::cout);
        const zel::ref_ptr<zelData::FileJournal> journal(new zelData::FileJournal(pathOf("own.journal")));
        zelData::FileJournal::Session* session = journal->createNewFileSession("run");
        std::istringstream scene;
        session->packSceneData(scene);
        const zel::ref_ptr<zelData::FileFrameWriter> writer(new zelData::FileFrameWriter(session));
        const zel::ref_ptr<zelData::FrameCapture> capture(new zelData::FrameCapture(root));
        for (zel::uint64 i = 0; i < numFrames; ++i) {
            change(i);
            writer->writeFrame(capture->capture(i, static_cast<double>(i), 1).get());
        }
        writer->endOfStream();
    }
    std::string seriesRefusal(const std::string& header) { return refusal(client, "Track.Series", header); }
    void expectQuiet(Client& from) { EXPECT_TRUE(isQuiet(from)); }
};

} // namespace

TEST_F(InspectionServiceSeriesTest, TellsValuesOverTheRun) {
    addTrack(6);
    const Json::Value answer = ask("'items':[{'path':'pond.level'},{'path':'pond.weather.heat'},"
                                   "{'path':'pond.wind'}]");
    EXPECT_EQ(answer["numFrames"], 6);
    EXPECT_EQ(answer["framesPerPoint"], 1);
    EXPECT_EQ(answer["start"].asDouble(), 0);
    EXPECT_EQ(answer["end"].asDouble(), 0.1 * 5);
    Rows rows = takeRows(client, 1);
    EXPECT_THAT(rows.times, ElementsAre(0, 0.1 * 1, 0.1 * 2, 0.1 * 3, 0.1 * 4, 0.1 * 5));
    EXPECT_THAT(rows.items[0].numbers, ElementsAre(0, 0.5, 1, 1.5, 2, 2.5));
    EXPECT_THAT(rows.items[1].numbers, ElementsAre(0, -1, -2, -3, -4, -5));
    EXPECT_EQ(rows.items[2].components, 3U);
    EXPECT_THAT(rows.items[2].numbers, ElementsAre(0, 0, 0, 1, 2, 3, 2, 4, 6, 3, 6, 9, 4, 8, 12, 5, 10, 15));
    EXPECT_TRUE(rows.items[0].id.isNull());
}

TEST_F(InspectionServiceSeriesTest, TellsElementsOfBuffers) {
    addTrack(6);
    Rows rows = series("'items':[{'path':'pond.depths','index':1},{'path':'pond.depths','index':3}]");
    EXPECT_THAT(rows.items[0].numbers, ElementsAre(10, 11, 12, 13, 14, 15));
    EXPECT_THAT(rows.items[1].numbers, ElementsAre(30, 30, 30, 30, 30, 30)); // told once
}

TEST_F(InspectionServiceSeriesTest, FollowsInstancesByTheirIds) {
    addTrack(9);
    Rows rows = series("'items':[{'path':'pond.fish.mass','index':2},{'path':'pond.fish.mass','index':1}]");
    EXPECT_EQ(rows.items[0].id, 2);
    EXPECT_THAT(rows.items[0].numbers, ElementsAre(200, 201, 202, 203, 204, 205, 206, 207, 208));
    EXPECT_EQ(rows.items[1].id, 1);
    EXPECT_THAT(rows.items[1].numbers, ElementsAre(100, 101, 102, None, None, None, 106, 107, 108));

    control(0, "seek", "'frame':4"); // where the third stands in the place of the second
    rows = series("'items':[{'path':'pond.fish.mass','index':1},{'path':'pond.fish.spots','index':0},"
                  "{'path':'pond.fish.mass','id':1},{'path':'pond.fish.mass','index':0,'id':2},"
                  "{'path':'pond.fish.mass','id':77}]");
    EXPECT_EQ(rows.items[0].id, 2);
    EXPECT_EQ(rows.items[0].numbers.back(), 208);
    EXPECT_EQ(rows.items[1].components, 2U);
    EXPECT_EQ(rows.items[1].numbers, std::vector<double>(18, 0));
    EXPECT_THAT(rows.items[2].numbers, ElementsAre(100, 101, 102, None, None, None, 106, 107, 108));
    EXPECT_EQ(rows.items[3].numbers.back(), 208);
    EXPECT_EQ(rows.items[4].numbers, std::vector<double>(9, None));
}

TEST_F(InspectionServiceSeriesTest, TellsIdsThatJsonLosesAsTexts) {
    addTrack(2);
    ask("'items':[{'path':'pond.fish.mass','id':1152921504606846976}]");
    EXPECT_EQ(takePush(client, "Track.Points").header["items"][0]["id"], "1152921504606846976");
}

TEST_F(InspectionServiceSeriesTest, TellsAPartOfTheRun) {
    addTrack(20);
    const std::string items = "'items':[{'path':'pond.level'},{'path':'pond.fish.mass','index':0},"
                              "{'path':'pond.depths','index':2}]";
    const Json::Value answer = ask(items + ",'start':0.55,'end':0.95");
    EXPECT_EQ(answer["numFrames"], 4);
    EXPECT_EQ(answer["start"].asDouble(), 0.1 * 6);
    EXPECT_EQ(answer["end"].asDouble(), 0.1 * 9);
    Rows rows = takeRows(client, 1);
    EXPECT_THAT(rows.items[0].numbers, ElementsAre(3, 3.5, 4, 4.5));
    EXPECT_THAT(rows.items[1].numbers, ElementsAre(6, 7, 8, 9));
    EXPECT_THAT(rows.items[2].numbers, ElementsAre(20, 20, 20, 20)); // as in the key frame ahead
    EXPECT_THAT(series(items + ",'start':1.85").items[0].numbers, ElementsAre(9.5));
    EXPECT_THAT(series(items + ",'end':0.05").items[0].numbers, ElementsAre(0));

    const Json::Value none = ask(items + ",'start':100");
    EXPECT_EQ(none["numFrames"], 0);
    EXPECT_TRUE(none["start"].isNull());
    rows = takeRows(client, 1);
    EXPECT_THAT(rows.times, IsEmpty());
    EXPECT_EQ(rows.numPieces, 1);
}

TEST_F(InspectionServiceSeriesTest, TellsTheLeastAndTheGreatestWhereThereAreMoreFramesThanPoints) {
    Pond pond(pathOf("pond.journal"), fishes, "run");
    pond.write(100);
    pond.close();
    service->addJournal(pathOf("pond.journal"), "pond");
    const Json::Value answer = ask("'items':[{'path':'pond.level'},{'path':'pond.weather.heat'},"
                                   "{'path':'pond.fish.mass','index':1}],'points':16");
    EXPECT_EQ(answer["numFrames"], 100);
    EXPECT_EQ(answer["framesPerPoint"], 7);
    Rows rows = takeRows(client, 1);
    // Groups of 14 frames; the last one is of two.
    ASSERT_EQ(rows.times.size(), 16U);
    for (zel::size_t group = 0; group < 8; ++group) {
        const auto first = static_cast<double>(14 * group);
        const double size = group == 7 ? 2 : 14;
        EXPECT_EQ(rows.times[2 * group], 0.1 * first);
        EXPECT_EQ(rows.times[2 * group + 1], 0.1 * (first + size / 2));
        EXPECT_EQ(rows.items[0].numbers[2 * group], first / 2);
        EXPECT_EQ(rows.items[0].numbers[2 * group + 1], (first + size - 1) / 2);
        EXPECT_EQ(rows.items[1].numbers[2 * group], -first); // the greater one came first
        EXPECT_EQ(rows.items[1].numbers[2 * group + 1], -(first + size - 1));
        EXPECT_EQ(rows.items[2].numbers[2 * group], 100 + first); // passes over where it was not alive
        EXPECT_EQ(rows.items[2].numbers[2 * group + 1], 100 + first + size - 1);
    }
    EXPECT_EQ(ask("'items':[{'path':'pond.level'}],'points':100")["framesPerPoint"], 1);
    EXPECT_EQ(takeRows(client, 1).times.size(), 100U);
    EXPECT_EQ(ask("'items':[{'path':'pond.level'}],'points':99")["framesPerPoint"], 2);
    EXPECT_EQ(takeRows(client, 1).times.size(), 50U);
    EXPECT_EQ(ask("'items':[{'path':'pond.level'}],'points':33,'end':9.65")["framesPerPoint"], 3);
    rows = takeRows(client, 1); // 97 frames in groups of 6, and one of a single frame
    EXPECT_EQ(rows.times.size(), 33U);
    EXPECT_EQ(rows.items[0].numbers.back(), 48);
}

TEST_F(InspectionServiceSeriesTest, TellsWhyThereAreNoNumbers) {
    addTrack(6);
    const std::string items = "'items':[{'path':'pond.level'},{'path':'pond.none'},{'path':'top.a'},"
                              "{'path':'pond.label','index':0},{'path':'pond'},{'path':'pond.depths'},"
                              "{'path':'pond.depths','index':4},{'path':'pond.fish.mass','index':3},"
                              "{'path':'pond.fish'},{'path':'pond.fish.leader','index':0},{'path':''},"
                              "{'path':'pond.depths.numElements'}]";
    Rows rows = series(items);
    EXPECT_EQ(rows.items[0].numbers.size(), 6U);
    EXPECT_EQ(rows.items[1].error, "There is no object 'pond.none'");
    EXPECT_EQ(rows.items[2].error, "'top.a' is not part of the track");
    EXPECT_EQ(rows.items[3].error, "'pond.label' is not made of numbers");
    EXPECT_EQ(rows.items[4].error, "'pond' is not in the present frame");
    EXPECT_EQ(rows.items[5].error, "'pond.depths' is a buffer: 'index' must tell the element");
    EXPECT_EQ(rows.items[6].error, "'pond.depths' has no element 4");
    EXPECT_EQ(rows.items[7].error, "'pond.fish.mass' has no instance 3");
    EXPECT_EQ(rows.items[8].error, "'pond.fish' is not made of numbers");
    EXPECT_EQ(rows.items[9].error, "'pond.fish.leader' is not made of numbers");
    EXPECT_EQ(rows.items[10].error, "'' is not part of the track");
    EXPECT_EQ(rows.items[11].error, "'pond.depths.numElements' is not in the present frame");
    rows = series("'items':[{'path':'pond.none'}]");
    EXPECT_THAT(rows.times, IsEmpty());
    EXPECT_EQ(rows.items[0].error, "There is no object 'pond.none'");
}

TEST_F(InspectionServiceSeriesTest, IsNaNWhereAKeyFrameLacksTheDatum) {
    const zel::ref_ptr<zel::Component> root(new zel::Component("root"));
    const zel::ref_ptr<zelData::ValueT<double>> value(new zelData::ValueT<double>("value", 1));
    const zel::ref_ptr<zelData::Buffer> list(new zelData::Buffer("list", zelData::getFormat("Real")));
    root->addObject(value.get());
    root->addObject(list.get());
    recordOwn(root.get(), 6, [&](zel::uint64 i) {
        list->resize(i == 3 ? 0 : i); // empty ones are left out of frames
        for (zel::uint64 k = 0; k < list->size(); ++k)
            list->data<double>()[k] = static_cast<double>(i);
        list->commit();
        if (i == 4)
            root->removeObject(value.get());
    });
    service->addJournal(pathOf("own.journal"), "pond");
    control(0, "seek", "'frame':2");
    Rows rows = series("'items':[{'path':'pond.value'},{'path':'pond.list','index':1}]");
    EXPECT_THAT(rows.items[0].numbers, ElementsAre(1, 1, 1, 1, None, None));
    EXPECT_THAT(rows.items[1].numbers, ElementsAre(None, None, 2, None, 4, 5));
}

TEST_F(InspectionServiceSeriesTest, IsNaNWhereTheDatumHasAnotherNumberOfComponents) {
    const zel::ref_ptr<zel::Component> root(new zel::Component("root"));
    recordOwn(root.get(), 6, [&](zel::uint64 i) {
        if (i != 0 && i != 3)
            return;
        root->removeAllObjects();
        if (i == 0)
            root->addObject(new zelData::ValueT<double>("value", 7));
        else
            root->addObject(new zelData::ValueT<zel::Vec3d>("value", zel::Vec3d(1, 2, 3)));
    });
    service->addJournal(pathOf("own.journal"), "pond");
    Rows rows = series("'items':[{'path':'pond.value'}]");
    EXPECT_EQ(rows.items[0].components, 1U);
    EXPECT_THAT(rows.items[0].numbers, ElementsAre(7, 7, 7, None, None, None));
    control(0, "seek", "'frame':3");
    rows = series("'items':[{'path':'pond.value'}]");
    EXPECT_EQ(rows.items[0].components, 3U);
    EXPECT_THAT(rows.items[0].numbers,
                ElementsAre(None, None, None, None, None, None, None, None, None, 1, 2, 3, 1, 2, 3, 1, 2, 3));
}

TEST_F(InspectionServiceSeriesTest, RoundsWholeNumbersThatAreTooLarge) {
    const zel::ref_ptr<zel::Component> root(new zel::Component("root"));
    const zel::ref_ptr<zelData::ValueT<zel::uint64>> value(new zelData::ValueT<zel::uint64>("value", 0));
    root->addObject(value.get());
    recordOwn(root.get(), 3, [&](zel::uint64 i) { value->set((zel::uint64{1} << 53) + i); });
    service->addJournal(pathOf("own.journal"), "pond");
    Rows rows = series("'items':[{'path':'pond.value'}]");
    EXPECT_THAT(rows.items[0].numbers, ElementsAre(0x1p53, 0x1p53, 0x1p53 + 2));
}

TEST_F(InspectionServiceSeriesTest, OpensTheJournal) {
    service->addJournal(record("pond.journal", 4), "pond");
    EXPECT_THAT(series("'items':[{'path':'pond.level'}]").items[0].error, IsEmpty());
    EXPECT_EQ(trackOf(0)["open"], true);
}

TEST_F(InspectionServiceSeriesTest, GoesOnWhenTheJournalIsClosedAndOpenedAnew) {
    addTrack(2000);
    ask("'items':[{'path':'pond.level'}]");
    send(client, "Track.Control", controls(0, "close"));
    expectAllLevels(2000);

    ask("'items':[{'path':'pond.level'}]");
    send(client, "Track.Control", controls(0, "close"));
    send(client, "Track.Control", controls(0, "seek", "'frame':7"));
    expectAllLevels(2000);
    EXPECT_EQ(trackOf(0)["numFrames"], 2000);
    EXPECT_EQ(valueOf("pond.level").asDouble(), 3.5);
}

TEST_F(InspectionServiceSeriesTest, GoesOnWhenAnotherJournalIsOpenedInItsPlace) {
    const std::string file = record("pond.journal", 2000);
    service->addJournal(file, "pond");
    control(0, "open");
    ask("'items':[{'path':'pond.level'}]");
    send(client, "Track.Control", controls(0, "close"));
    std::filesystem::rename(record("other.journal", 4), file);
    send(client, "Track.Control", controls(0, "open"));
    expectAllLevels(2000);
    EXPECT_EQ(trackOf(0)["numFrames"], 4);
}

TEST_F(InspectionServiceSeriesTest, EndsAtAFrameThatCanNotBeRead) {
    const std::string file = record("pond.journal", 9);
    service->addJournal(file, "pond");
    control(0, "open");
    // What is behind the header of the last frame is gone.
    std::filesystem::resize_file(file, std::filesystem::file_size(file) - 40);
    ask("'items':[{'path':'pond.level'},{'path':'pond.none'},"
        "{'path':'pond.weather.heat'},{'path':'pond.fish.mass','index':0}]");
    Rows rows = takeRows(client, 1);
    EXPECT_EQ(rows.times.size(), 8U);
    EXPECT_EQ(rows.items[0].numbers.size(), 8U);
    EXPECT_THAT(rows.items[0].error, StartsWith("frame 8 at offset "));
    EXPECT_EQ(rows.items[2].error, rows.items[0].error);
    EXPECT_EQ(rows.items[1].error, "There is no object 'pond.none'");

    std::filesystem::resize_file(file, 5000);
    EXPECT_THAT(controlRefusal(0, "seek", "'frame':8"), StartsWith("frame "));
    EXPECT_THAT(seriesRefusal("{'id':0,'series':1,'items':[{'path':'pond.level'}]}"), StartsWith("frame 0"));
}

TEST_F(InspectionServiceSeriesTest, ComesInPiecesAndSideBySide) {
    addTrack(3000);
    addTrack(1000, "other");
    Client second = connect();
    const std::string points = ",'points':100000}";
    InspectionTracksFixture::ask(
        second, "Track.Series", "{'id':1,'series':9,'items':[{'path':'other.level'}]" + points);
    for (const char* number : {"2", "3"})
        InspectionTracksFixture::ask(
            client,
            "Track.Series",
            std::string("{'id':0,'series':") + number +
                ",'items':[{'path':'pond.level'},{'path':'pond.fish.mass','index':1}]" + points);
    std::map<zel::uint64, Rows> all;
    for (int numDone = 0; numDone < 2 && !HasFailure();) {
        const Message message = takePush(client, "Track.Points");
        numDone += add(all[message.header["series"].asUInt64()], message) ? 1 : 0;
    }
    for (const zel::uint64 number : {2U, 3U}) {
        EXPECT_EQ(all[number].times.size(), 3000U);
        EXPECT_EQ(all[number].items[0].numbers.back(), 2999 / 2.0);
        EXPECT_EQ(all[number].items[1].numbers[4], None);
    }
    EXPECT_EQ(takeRows(second, 9).times.size(), 1000U);
}

TEST_F(InspectionServiceSeriesTest, IsStoppedOrReplaced) {
    addTrack(20000);
    const std::string items = ",'items':[{'path':'pond.level'}],'points':100000}";
    // Both requests lie in the channel ahead of the first slice.
    send(client, "Track.Series", "{'id':0,'series':1" + items);
    send(client, "Track.Series", "{'id':0,'series':1,'end':0.35,'items':[{'path':'pond.wind'}]}");
    Rows rows;
    for (bool isDone = false; !isDone && !HasFailure();) {
        const Message message = take(client);
        if (message.uri != "Track.Points" || message.responseId != zelNet::StructuredMessage::NoId)
            continue;
        if (message.header["items"][0]["components"] == 1)
            continue; // of the first one, which had begun
        isDone = add(rows, message);
    }
    EXPECT_EQ(rows.times.size(), 4U);
    EXPECT_EQ(rows.items[0].components, 3U);

    EXPECT_EQ(refusal(client, "Track.StopSeries", "{'id':0,'series':1}"), "There is no series 1 under way");
    send(client, "Track.Series", "{'id':0,'series':5" + items);
    EXPECT_EQ(
        InspectionTracksFixture::ask(client, "Track.StopSeries", "{'id':0,'series':5}").header["success"],
        true);
    client.pushes.clear();
    expectQuiet(client);
    EXPECT_EQ(refusal(client, "Track.StopSeries", "{'series':'x'}"),
              "'series' must be a whole number from 0 to 4294967295");
}

TEST_F(InspectionServiceSeriesTest, WaitsForAClientThatTakesNothing) {
    addTrack(4000);
    Client slow = connect();
    std::string items;
    for (int i = 0; i < 64; ++i)
        items += std::string(i == 0 ? "" : ",") + "{'path':'pond.wind'}";
    const std::string request = "'items':[" + items + "],'points':100000}";
    for (int i = 0; i < 4; ++i) // of 6 MB each
        send(slow, "Track.Series", "{'id':0,'series':" + std::to_string(i) + "," + request);
    // Another one is served meanwhile, and what waits for the slow one stays bounded.
    EXPECT_EQ(series("'items':[{'path':'pond.level'}]").times.size(), 4000U);
    std::map<zel::uint64, Rows> all;
    zel::size_t mostQueued = 0;
    serveAlso([&] {
        for (const auto& socket : channel->getClients())
            mostQueued = std::max(mostQueued, socket->getNumQueuedBytes());
    });
    for (int numDone = 0; numDone < 4 && !HasFailure();) {
        const Message message = take(slow);
        if (message.uri == "Track.Points")
            numDone += add(all[message.header["series"].asUInt64()], message) ? 1 : 0;
    }
    EXPECT_EQ(all[3].times.size(), 4000U);
    EXPECT_EQ(all[3].items[63].numbers.size(), 12000U);
    EXPECT_GT(mostQueued, 0U);
    EXPECT_LT(mostQueued, zel::size_t{10} << 20);
}

TEST_F(InspectionServiceSeriesTest, EndsWithItsClient) {
    addTrack(20000);
    Client other = connect();
    for (int i = 0; i < 16; ++i)
        send(other,
             "Track.Series",
             "{'id':0,'series':" + std::to_string(i) + ",'items':[{'path':'pond.level'}],'points':100000}");
    other = {};
    ASSERT_TRUE(serveUntil([&] { return channel->getClients().size() == 1; }));
    EXPECT_EQ(series("'items':[{'path':'pond.level'}],'end':0.15").times.size(), 2U);
}

TEST_F(InspectionServiceSeriesTest, RefusesWhatMeansNothing) {
    addTrack(4);
    service->addLiveTrack("run", clock.get(), top.get());
    const std::string good = "'items':[{'path':'pond.level'}]";
    EXPECT_EQ(seriesRefusal("{'id':1,'series':1," + good + "}"),
              "The track 'run' is live: its frames are not kept");
    EXPECT_EQ(seriesRefusal("{'id':7,'series':1," + good + "}"), "There is no track 7");
    EXPECT_EQ(seriesRefusal("{'id':0," + good + "}"), "'series' must be a whole number from 0 to 4294967295");
    const std::string items = "'items' must be a list of 1 to 64 objects, each with a text 'path'";
    std::string many = "[";
    for (int i = 0; i < 65; ++i)
        many += std::string(i == 0 ? "" : ",") + "{'path':'pond.level'}";
    for (const std::string& list :
         std::vector<std::string>{"null", "[]", "7", "{}", "[7]", "[{}]", "[{'path':7}]", many + "]"})
        EXPECT_EQ(seriesRefusal("{'id':0,'series':1,'items':" + list + "}"), items);
    for (const char* index : {"-1", "1e300", "0.5", "'0'", "[]", "true"}) {
        EXPECT_EQ(seriesRefusal(std::string("{'id':0,'series':1,'items':[{'path':'pond.depths','index':") +
                                index + "}]}"),
                  "'index' must be a whole number from 0 on");
        EXPECT_EQ(seriesRefusal(std::string("{'id':0,'series':1,'items':[{'path':'pond.fish.mass','id':") +
                                index + "}]}"),
                  "'id' must be a whole number from 0 on");
    }
    EXPECT_EQ(seriesRefusal("{'id':0,'series':1," + good + ",'points':15}"),
              "'points' must be a whole number from 16 to 100000");
    EXPECT_EQ(seriesRefusal("{'id':0,'series':1," + good + ",'points':100001}"),
              "'points' must be a whole number from 0 to 100000");
    EXPECT_EQ(seriesRefusal("{'id':0,'series':1," + good + ",'start':'x'}"), "'start' must be a number");
    EXPECT_EQ(seriesRefusal("{'id':0,'series':1," + good + ",'start':2,'end':1}"),
              "'start' must not be above 'end'");
    // The largest numbers lead nowhere.
    Rows rows = series("'items':[{'path':'pond.depths','index':18446744073709551615},"
                       "{'path':'pond.fish.mass','id':18446744073709551615},"
                       "{'path':'pond.fish.mass','index':18446744073709551615}],'start':-1e300,'end':1e300");
    EXPECT_EQ(rows.items[0].error, "'pond.depths' has no element 18446744073709551615");
    EXPECT_EQ(rows.items[1].numbers, std::vector<double>(4, None));
    EXPECT_EQ(rows.items[2].error, "'pond.fish.mass' has no instance 18446744073709551615");
}

TEST_F(InspectionServiceSeriesTest, AreNoMoreThanSixteen) {
    addTrack(20000);
    const std::string items = ",'items':[{'path':'pond.level'}],'points':100000}";
    for (int i = 0; i < 17; ++i) // all of them ahead of the first slice
        send(client, "Track.Series", "{'id':0,'series':" + std::to_string(i) + items);
    int numStarted = 0;
    std::string fault;
    for (int numAnswers = 0; numAnswers < 17 && !HasFailure();) {
        const Message message = take(client);
        if (message.uri != "Track.Series")
            continue;
        ++numAnswers;
        numStarted += message.header["success"].asBool() ? 1 : 0;
        if (!message.header["success"].asBool())
            fault = message.header["error"].asString();
    }
    EXPECT_EQ(numStarted, 16);
    EXPECT_EQ(fault, "There may be 16 series under way");
}
