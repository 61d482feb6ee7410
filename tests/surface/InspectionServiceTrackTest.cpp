#include "InspectionTracksFixture.h"

#include <zelNet/FramePacket.h>

#include <support/LogCapture.h>

#include <filesystem>
#include <fstream>
#include <limits>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using zelData::ValueT;

namespace {

using InspectionServiceTrackTest = zelTest::InspectionTracksFixture;

/// Of frames packets.
class InspectionServiceFramesTest : public zelTest::InspectionTracksFixture {
protected:
    zel::ref_ptr<zelData::Frame> takePacket(Client& from) {
        const Message message = takePush(from, "");
        const zel::ref_ptr<zelData::BinaryData> payload(
            zelData::BinaryData::copy(message.payload.data(), message.payload.size()));
        return zel::ref_ptr<zelData::Frame>(zelNet::FramePacket::parseFrame(message.header, payload.get()));
    }
    void ack(Client& from, zel::uint64 id, zel::uint64 frame) {
        send(from, "Track.Ack", "{'id':" + std::to_string(id) + ",'frame':" + std::to_string(frame) + "}");
    }
    static std::vector<double> massesOf(zelData::Frame& frame) {
        const zelData::Buffer* buffer = frame.getBuffer("fish.mass");
        return {buffer->data<double>(), buffer->data<double>() + buffer->size()};
    }
    static double realAt(zelData::Frame& frame, const char* path) {
        auto* value = dynamic_cast<zelData::Value*>(frame.getResource(path));
        EXPECT_NE(value, nullptr) << path;
        return value == nullptr ? -1 : *static_cast<const double*>(value->getData());
    }
};

} // namespace

// The list

TEST_F(InspectionServiceTrackTest, ListsAJournalThatIsNotOpen) {
    EXPECT_EQ(service->addJournal(record("pond.journal", 3), "pond"), 0U);
    const Json::Value track = trackOf(0);
    EXPECT_EQ(text(track),
              text(json("{'id':0,'name':'pond','live':false,'open':false,'path':'pond','session':'',"
                        "'file':'pond.journal','closed':false,'numFrames':0,'firstFrame':null,"
                        "'lastFrame':null,'startTime':null,'endTime':null,'timeStep':null,"
                        "'position':null,'playing':false,'rate':1.0,'stride':1,'loop':false,"
                        "'range':{'start':null,'end':null},'error':''}")));
    EXPECT_THAT(childrenOf("pond"), IsEmpty());
}

TEST_F(InspectionServiceTrackTest, ListsAnOpenJournal) {
    addTrack(11);
    const Json::Value track = trackOf(0);
    EXPECT_EQ(track["open"], true);
    EXPECT_EQ(track["session"], "run");
    EXPECT_EQ(track["closed"], true);
    EXPECT_EQ(track["numFrames"], 11);
    EXPECT_EQ(track["firstFrame"], 0);
    EXPECT_EQ(track["lastFrame"], 10);
    EXPECT_EQ(track["startTime"].asDouble(), 0);
    EXPECT_EQ(track["endTime"].asDouble(), 0.1 * 10);
    EXPECT_EQ(track["timeStep"].asDouble(), 0.1);
    EXPECT_EQ(track["position"]["frame"], 0);
    EXPECT_EQ(track["position"]["time"].asDouble(), 0);
    EXPECT_EQ(track["position"]["index"], 0);
}

TEST_F(InspectionServiceTrackTest, ListsTheRun) {
    const zel::uint64 id = service->addLiveTrack("run", clock.get(), top.get());
    clock->tick();
    clock->tick();
    Json::Value track = trackOf(id);
    EXPECT_EQ(track["live"], true);
    EXPECT_EQ(track["open"], true);
    EXPECT_EQ(track["path"], "top");
    EXPECT_EQ(track["file"], "");
    EXPECT_EQ(track["numFrames"], 0);
    EXPECT_EQ(track["playing"], true);
    for (const char* member : {"firstFrame", "lastFrame"})
        EXPECT_EQ(track[member], 2);
    EXPECT_EQ(track["startTime"].asDouble(), clock->getTime());
    EXPECT_EQ(track["position"]["frame"], 2);
    EXPECT_EQ(track["position"]["time"].asDouble(), clock->getTime());
    EXPECT_EQ(controlRefusal(id, "seek", "'frame':1"),
              "The track 'run' is live: its clock is driven by Clock.Control");

    clock->setEnable(false);
    EXPECT_EQ(trackOf(id)["playing"], false);
    top->removeObject(clock.get());
    clock = nullptr;
    EXPECT_TRUE(trackOf(id)["position"].isNull());
    EXPECT_EQ(trackOf(id)["playing"], false);
}

TEST_F(InspectionServiceTrackTest, OutlivesWhatALiveTrackShows) {
    const zel::ref_ptr<zel::Component> other(new zel::Component("other"));
    zel::ref_ptr<zel::Component> shown(new zel::Component("shown"));
    service->addLiveTrack("run", clock.get(), shown.get());
    EXPECT_EQ(trackOf(0)["open"], true);
    shown = nullptr;
    EXPECT_EQ(trackOf(0)["open"], false);
    EXPECT_EQ(trackOf(0)["path"], "");
    EXPECT_EQ(refusal(client, "Track.Subscribe", "{'id':0}"), "The track 'run' has gone");
}

// What is shown

TEST_F(InspectionServiceTrackTest, ShowsTheFirstFrameOfAJournalThatIsOpened) {
    service->addJournal(record("pond.journal", 3), "pond");
    const Json::Value track = control(0, "open");
    EXPECT_EQ(track["open"], true);
    EXPECT_EQ(track["position"]["index"], 0);
    EXPECT_THAT(childrenOf("pond"),
                testing::UnorderedElementsAre("level", "wind", "label", "depths", "fish", "weather"));
    EXPECT_EQ(valueOf("pond.level").asDouble(), 0);
    EXPECT_EQ(valueOf("pond.wind"), "0.000000, 0.000000, 0.000000");
    EXPECT_THAT(textsAt("pond.label"), ElementsAre("frame 0"));
    EXPECT_THAT(bufferAt("pond.depths"), ElementsAre(0, 10, 20, 30));
    EXPECT_THAT(
        childrenOf("pond.fish"),
        testing::UnorderedElementsAre("mass", "leader", "title", "spots", "_idToIndex", "_indexToId"));
    EXPECT_THAT(bufferAt("pond.fish.mass"), ElementsAre(0, 100, 200));
    EXPECT_THAT(textsAt("pond.fish.title"), ElementsAre("fish 0", "fish 1", "fish 2"));
    EXPECT_THAT(bufferAt<zel::uint32>("pond.fish.leader"), ElementsAre(0, 0, 0));
}

TEST_F(InspectionServiceTrackTest, CompletesPathsThatLeadIntoARecording) {
    addTrack(3);
    control(0, "open");
    const Json::Value answer = ask(client, "Object.Complete", "{'text':'pond.FISH.ma'}").header;
    EXPECT_EQ(answer["matchedPath"], "pond.fish.mass");
    ASSERT_EQ(answer["list"].size(), 1U);
    EXPECT_EQ(answer["list"][0], "mass");
}

TEST_F(InspectionServiceTrackTest, ShowsAnyFrame) {
    addTrack(12);
    for (const int frame : {11, 3, 4, 0, 6, 5, 11}) {
        const Json::Value track = control(0, "seek", "'frame':" + std::to_string(frame));
        EXPECT_EQ(track["position"]["frame"], frame);
        EXPECT_EQ(track["position"]["time"].asDouble(), 0.1 * frame);
        EXPECT_EQ(valueOf("pond.level").asDouble(), frame / 2.0);
        EXPECT_EQ(valueOf("pond.weather.heat").asDouble(), -frame);
        EXPECT_THAT(textsAt("pond.label"), ElementsAre("frame " + std::to_string(frame)));
        EXPECT_THAT(bufferAt("pond.depths"), ElementsAre(0, 10 + frame, 20, 30));
        if (frame < 3)
            EXPECT_THAT(bufferAt("pond.fish.mass"), ElementsAre(frame, 100 + frame, 200 + frame));
        else if (frame < 6)
            EXPECT_THAT(bufferAt("pond.fish.mass"), ElementsAre(frame, 200 + frame));
        else
            EXPECT_THAT(bufferAt("pond.fish.mass"), ElementsAre(frame, 200 + frame, 100 + frame));
    }
}

TEST_F(InspectionServiceTrackTest, ChangesTheObjectsInPlace) {
    addTrack(12);
    const auto find = [](const char* path) { return zel::root()->getResource(path); };
    const std::vector<const char*> paths = {
        "pond.level", "pond.label", "pond.depths", "pond.fish", "pond.fish.mass", "pond.weather.heat"};
    std::vector<zel::Object*> objects;
    objects.reserve(paths.size());
    for (const char* path : paths)
        objects.push_back(find(path));
    const auto* leaders = dynamic_cast<const zelData::Buffer*>(find("pond.fish.spots"));
    const zel::uint64 revision = leaders->getRevision();
    for (const int frame : {2, 1, 2})
        control(0, "seek", "'frame':" + std::to_string(frame));
    EXPECT_EQ(leaders->getRevision(), revision); // nothing has changed there
    for (const int frame : {11, 5, 0})
        control(0, "seek", "'frame':" + std::to_string(frame));
    EXPECT_GT(leaders->getRevision(), revision);
    for (zel::size_t i = 0; i < paths.size(); ++i)
        EXPECT_EQ(find(paths[i]), objects[i]) << paths[i];
}

TEST_F(InspectionServiceTrackTest, LetsWatchesFollowASeek) {
    addTrack(12);
    ask(client,
        "Watch.Add",
        "{'watch':1,'paths':['pond.level','pond.depths','pond.fish.spots','pond.label']}");
    Message update = takePush(client, "Watch.Update");
    EXPECT_EQ(update.header["items"].size(), 4U);
    acknowledge(client, update);
    control(0, "seek", "'frame':2");
    update = takePush(client, "Watch.Update");
    ASSERT_EQ(update.header["items"].size(), 3U) << text(update.header);
    EXPECT_EQ(update.header["items"][0]["value"].asDouble(), 1);
    EXPECT_THAT(update.elements<double>(update.header["items"][1]), ElementsAre(0, 12, 20, 30));
    EXPECT_EQ(update.header["items"][2]["texts"][0], "frame 2");
    acknowledge(client, update);
    control(0, "close");
    update = takePush(client, "Watch.Update");
    EXPECT_EQ(update.header["items"].size(), 4U);
    for (const Json::Value& item : update.header["items"])
        EXPECT_EQ(item["removed"], true);
    acknowledge(client, update);
    control(0, "open");
    EXPECT_EQ(takePush(client, "Watch.Update").header["items"].size(), 4U);
}

TEST_F(InspectionServiceTrackTest, TakesThePositionForAClockWhereThereIsNone) {
    top->removeObject(clock.get());
    ask(client, "Watch.Add", "{'watch':1,'paths':['top.a']}");
    Message update = takePush(client, "Watch.Update");
    EXPECT_TRUE(update.header["clock"].isNull());
    acknowledge(client, update);
    addTrack(5);
    addTrack(6, "other");
    control(0, "seek", "'frame':2");
    control(1, "seek", "'frame':4");
    ask(client, "Watch.Add", "{'watch':2,'paths':['top.a']}");
    update = takePush(client, "Watch.Update");
    EXPECT_EQ(text(update.header["clock"]), text(json("{'track':0,'path':'','time':0.2,'frame':2}")));
    control(0, "close");
    ask(client, "Watch.Add", "{'watch':2,'paths':['top.a']}");
    EXPECT_EQ(takePush(client, "Watch.Update").header["clock"]["track"], 1);
}

TEST_F(InspectionServiceTrackTest, TakesNoChangesOfARecording) {
    addTrack(3);
    service->setWritable(true);
    EXPECT_EQ(refusal(client, "Value.Set", "{'path':'pond.level','value':7}"),
              "'pond.level' is part of a recording");
    EXPECT_EQ(refusal(client, "Value.Set", "{'path':'pond.depths.numElements','value':7}"),
              "'pond.depths.numElements' is part of a recording");
}

TEST_F(InspectionServiceTrackTest, FreesAJournalThatIsClosed) {
    addTrack(3);
    const zel::observer_ptr<zel::Object> level(zel::root()->getResource("pond.level"));
    const Json::Value track = control(0, "close");
    EXPECT_EQ(track["open"], false);
    EXPECT_EQ(track["numFrames"], 0);
    EXPECT_EQ(level.get(), nullptr);
    EXPECT_THAT(childrenOf("pond"), IsEmpty());
    EXPECT_EQ(control(0, "close")["open"], false);
}

TEST_F(InspectionServiceTrackTest, TakesItsTreesAway) {
    addTrack(3);
    EXPECT_NE(zel::root()->getResource("pond.level"), nullptr);
    client = {};
    service = nullptr;
    EXPECT_EQ(zel::root()->findObject("pond"), nullptr);
}

TEST_F(InspectionServiceTrackTest, ShowsTwoJournalsAtOnce) {
    addTrack(5);
    addTrack(9); // of the same name
    addTrack(7, "a.b");
    control(0, "seek", "'frame':1");
    control(1, "seek", "'frame':8");
    control(2, "seek", "'frame':6");
    std::vector<double> levels;
    for (zel::uint64 id = 0; id < 3; ++id)
        levels.push_back(valueOf(trackOf(id)["path"].asString() + ".level").asDouble());
    EXPECT_EQ(trackOf(0)["path"], "pond");
    EXPECT_THAT(trackOf(1)["path"].asString(), StartsWith("#"));
    EXPECT_THAT(trackOf(2)["path"].asString(), StartsWith("#"));
    EXPECT_THAT(levels, ElementsAre(0.5, 4, 3));
}

TEST_F(InspectionServiceTrackTest, TellsItsPathAsOtherObjectsComeAndGo) {
    const zel::ref_ptr<zel::Component> ahead(new zel::Component("ahead"));
    zel::root()->addObject(ahead.get());
    addTrack(5);
    addTrack(9); // of the same name
    ask(client, "Track.List");
    const std::string before = trackOf(1)["path"].asString();
    EXPECT_THAT(before, StartsWith("#"));
    zel::root()->removeObject(ahead.get());
    const Json::Value told = takePush(client, "Track.State").header["track"];
    EXPECT_EQ(told["id"], 1);
    EXPECT_NE(told["path"], before);
    EXPECT_EQ(trackOf(1)["path"], told["path"]);
    EXPECT_EQ(valueOf(told["path"].asString() + ".level").asDouble(), 0);
}

// Control

TEST_F(InspectionServiceTrackTest, SeeksByFrameAndTime) {
    Pond pond(pathOf("pond.journal"), fishes, "run");
    for (const zel::uint64 frame : {10U, 20U, 21U, 40U})
        pond.writeAs(frame, static_cast<double>(frame));
    pond.close();
    service->addJournal(pathOf("pond.journal"), "pond");
    const auto placeOf = [this](const char* action, const std::string& member) {
        return control(0, action, member)["position"]["index"].asInt();
    };
    EXPECT_EQ(placeOf("seek", "'frame':20"), 1);
    EXPECT_EQ(placeOf("seek", "'frame':39"), 2);
    EXPECT_EQ(placeOf("seek", "'frame':18446744073709551615"), 3);
    EXPECT_EQ(placeOf("seek", "'frame':0"), 0);
    EXPECT_EQ(placeOf("seekTime", "'time':20.5"), 1);
    EXPECT_EQ(placeOf("seekTime", "'time':40"), 3);
    EXPECT_EQ(placeOf("seekTime", "'time':1e300"), 3);
    EXPECT_EQ(placeOf("seekTime", "'time':-1e300"), 0);
}

TEST_F(InspectionServiceTrackTest, Steps) {
    addTrack(10);
    const auto placeAfter = [this](const std::string& members) {
        return control(0, "step", members)["position"]["index"].asInt();
    };
    EXPECT_EQ(placeAfter(""), 1);
    EXPECT_EQ(placeAfter("'count':3"), 4);
    EXPECT_EQ(placeAfter("'count':-2"), 2);
    EXPECT_EQ(placeAfter("'count':0"), 2);
    EXPECT_EQ(control(0, "stride", "'stride':3")["stride"], 3);
    EXPECT_EQ(placeAfter("'count':2"), 8);
    EXPECT_EQ(placeAfter("'count':1"), 8); // 11 is not there
    EXPECT_EQ(placeAfter("'count':-9223372036854775808"), 2);
    EXPECT_EQ(placeAfter("'count':9223372036854775807"), 8);
    control(0, "stride", "'stride':4294967295");
    EXPECT_EQ(placeAfter("'count':9223372036854775807"), 8);
}

TEST_F(InspectionServiceTrackTest, PlaysToTheEndAndBeginsAgain) {
    addTrack(10);
    const auto played = [this](const std::string& members) {
        EXPECT_EQ(control(0, "play", members)["playing"], true);
        Json::Value track;
        do
            track = trackOf(0);
        while (track["playing"].asBool() && !HasFailure());
        return track["position"]["index"].asInt();
    };
    EXPECT_EQ(played("'rate':1e300"), 9);
    EXPECT_EQ(trackOf(0)["rate"].asDouble(), 1e300);
    EXPECT_EQ(control(0, "play", "'rate':1e-300")["position"]["index"], 0); // from the beginning
    EXPECT_EQ(control(0, "pause")["playing"], false);
    control(0, "seek", "'frame':5");
    EXPECT_EQ(control(0, "play")["position"]["index"], 5); // goes on
    EXPECT_EQ(played("'rate':-1e300"), 0);
    EXPECT_EQ(control(0, "play", "'rate':-1e-300")["position"]["index"], 9);
    control(0, "range", "'start':0.25,'end':0.65");
    EXPECT_EQ(played("'rate':1e300"), 6);
    EXPECT_EQ(control(0, "play", "'rate':1e-300")["position"]["index"], 3);
    EXPECT_EQ(played("'rate':-1e300"), 6 - 3);
    control(0, "stride", "'stride':2");
    EXPECT_EQ(played("'rate':1e300"), 5);
    EXPECT_EQ(control(0, "play", "'rate':1e-300")["position"]["index"], 3); // 7 is out of the range
    EXPECT_TRUE(control(0, "range")["range"]["start"].isNull());
    EXPECT_EQ(played("'rate':1e300"), 9);
}

TEST_F(InspectionServiceTrackTest, PlaysEachFrameInTurn) {
    addTrack(40);
    ask(client, "Track.List");
    control(0, "play", "'rate':20"); // a frame each 5 ms
    int last = 0;
    int numStates = 0;
    for (bool isPlaying = true; isPlaying; ++numStates) {
        const Json::Value track = takePush(client, "Track.State").header["track"];
        isPlaying = track["playing"].asBool();
        const int place = track["position"]["index"].asInt();
        EXPECT_GE(place, last);
        last = place;
    }
    EXPECT_EQ(last, 39);
    EXPECT_GT(numStates, 1);
    EXPECT_EQ(valueOf("pond.level").asDouble(), 39 / 2.0);
}

TEST_F(InspectionServiceTrackTest, PlaysOnAtTheOtherEnd) {
    addTrack(4);
    control(0, "loop", "'loop':true");
    control(0, "play", "'rate':1e300");
    bool isAtEnd = false;
    bool isAtBeginning = false;
    while (!(isAtEnd && isAtBeginning) && !HasFailure()) {
        const Json::Value track = trackOf(0);
        EXPECT_EQ(track["playing"], true);
        isAtEnd = isAtEnd || track["position"]["index"] == 3;
        isAtBeginning = isAtBeginning || track["position"]["index"] == 0;
    }
    EXPECT_EQ(control(0, "loop", "'loop':false")["loop"], false);
    Json::Value track;
    do
        track = trackOf(0);
    while (track["playing"].asBool() && !HasFailure());
    EXPECT_EQ(track["position"]["index"], 3);
}

TEST_F(InspectionServiceTrackTest, PausesWhereItIsMoved) {
    addTrack(10);
    for (const auto& [action, members] : std::vector<std::pair<std::string, std::string>>{
             {"seek", "'frame':2"}, {"seekTime", "'time':0.2"}, {"step", ""}, {"pause", ""}, {"close", ""}}) {
        EXPECT_EQ(control(0, "play", "'rate':1e-9")["playing"], true);
        EXPECT_EQ(control(0, action, members)["playing"], false) << action;
    }
}

TEST_F(InspectionServiceTrackTest, OpensWhatIsDriven) {
    service->addJournal(record("pond.journal", 4), "pond");
    for (const auto& [action, members] :
         std::vector<std::pair<std::string, std::string>>{{"play", "'rate':1e-9"},
                                                          {"pause", ""},
                                                          {"seek", "'frame':2"},
                                                          {"seekTime", "'time':0.2"},
                                                          {"step", "'count':2"},
                                                          {"stride", "'stride':1"},
                                                          {"loop", "'loop':false"},
                                                          {"range", ""}}) {
        EXPECT_EQ(control(0, action, members)["open"], true) << action;
        EXPECT_EQ(control(0, "close")["open"], false);
    }
}

TEST_F(InspectionServiceTrackTest, IsOpenAlsoBehindARequestThatIsRefused) {
    { const Pond pond(pathOf("empty.journal"), fishes, "run"); }
    service->addJournal(pathOf("empty.journal"), "empty");
    EXPECT_EQ(controlRefusal(0, "seek", "'frame':'x'"),
              "'frame' must be a whole number from 0 to 18446744073709551615");
    EXPECT_EQ(trackOf(0)["open"], false);
    EXPECT_EQ(controlRefusal(0, "seek", "'frame':0"), "The track 'empty' has no frames");
    EXPECT_EQ(trackOf(0)["open"], true);
}

TEST_F(InspectionServiceTrackTest, PlaysOnWhenWhoHasSetItPlayingIsGone) {
    addTrack(4);
    Client other = connect();
    ask(other, "Track.Control", controls(0, "loop", "'loop':true"));
    ask(other, "Track.Control", controls(0, "play", "'rate':1e300"));
    other = {};
    ASSERT_TRUE(serveUntil([&] { return channel->getClients().size() == 1; }));
    for (const int place : {3, 0})
        while (trackOf(0)["position"]["index"] != place && !HasFailure())
            EXPECT_EQ(trackOf(0)["playing"], true);
}

TEST_F(InspectionServiceTrackTest, RefusesWhatMeansNothing) {
    addTrack(3);
    const std::string actions =
        "'action' must be one of open, close, play, pause, seek, seekTime, step, stride, loop and range";
    EXPECT_EQ(controlRefusal(0, "fly"), actions);
    EXPECT_EQ(refusal(client, "Track.Control", "{'id':0}"), actions);
    EXPECT_EQ(refusal(client, "Track.Control", "{'id':0,'action':7}"), "'action' must be a text");
    EXPECT_EQ(controlRefusal(7, "open"), "There is no track 7");
    const std::string whole = " must be a whole number from 0 to 18446744073709551615";
    for (const char* id : {"-1", "1e300", "'0'", "null", "[0]", "0.5"})
        EXPECT_EQ(refusal(client, "Track.Control", std::string("{'action':'open','id':") + id + "}"),
                  "'id'" + whole);
    for (const char* frame : {"-1", "1e300", "'0'", "null", "{}", "true"})
        EXPECT_EQ(controlRefusal(0, "seek", std::string("'frame':") + frame), "'frame'" + whole);
    for (const char* time : {"'nan'", "null", "[]", "true"})
        EXPECT_EQ(controlRefusal(0, "seekTime", std::string("'time':") + time), "'time' must be a number");
    EXPECT_EQ(controlRefusal(0, "play", "'rate':0"), "'rate' must not be 0");
    EXPECT_EQ(controlRefusal(0, "play", "'rate':'fast'"), "'rate' must be a number");
    EXPECT_EQ(controlRefusal(0, "step", "'count':1.5"), "'count' must be a whole number");
    EXPECT_EQ(controlRefusal(0, "step", "'count':1e300"), "'count' must be a whole number");
    EXPECT_EQ(controlRefusal(0, "stride", "'stride':0"), "'stride' must be at least 1");
    EXPECT_EQ(controlRefusal(0, "stride"), "'stride' must be a whole number from 0 to 4294967295");
    EXPECT_EQ(controlRefusal(0, "loop", "'loop':1"), "'loop' must be true or false");
    EXPECT_EQ(controlRefusal(0, "range", "'start':2,'end':1"), "'start' must not be above 'end'");
    EXPECT_EQ(controlRefusal(0, "range", "'end':'x'"), "'end' must be a number");
    control(0, "range", "'start':100");
    EXPECT_EQ(controlRefusal(0, "play"), "The track 'pond' has no frames in its range");
    EXPECT_EQ(trackOf(0)["playing"], false);
    EXPECT_EQ(trackOf(0)["error"], "");
    service->addLiveTrack("run", clock.get(), top.get());
    EXPECT_EQ(zelTest::whatOf([&] { service->openJournal(1); }),
              "The track 'run' is live: there is nothing to open");
    EXPECT_EQ(zelTest::whatOf([&] { service->openJournal(2); }), "There is no track 2");
}

// What is told

TEST_F(InspectionServiceTrackTest, TellsWhoeverAskedOfEachChange) {
    addTrack(5);
    Client other = connect();
    Client stranger = connect();
    ask(other, "Track.List");
    control(0, "seek", "'frame':3");
    EXPECT_EQ(takePush(other, "Track.State").header["track"]["position"]["frame"], 3);
    control(0, "stride", "'stride':2");
    EXPECT_EQ(takePush(other, "Track.State").header["track"]["stride"], 2);
    service->addJournal(pathOf("pond.journal"), "more");
    service->openJournal(1);
    Json::Value told = takePush(other, "Track.State").header["track"];
    EXPECT_EQ(told["id"], 1);
    EXPECT_EQ(told["open"], true);
    EXPECT_TRUE(isQuiet(other));
    EXPECT_TRUE(isQuiet(stranger));
    EXPECT_TRUE(isQuiet(client)); // has driven, and not asked
}

TEST_F(InspectionServiceTrackTest, TellsOfTheRun) {
    service->addLiveTrack("run", clock.get(), top.get());
    ask(client, "Track.List");
    clock->tick();
    EXPECT_EQ(takePush(client, "Track.State").header["track"]["position"]["frame"], 1);
    clock->setEnable(false);
    EXPECT_EQ(takePush(client, "Track.State").header["track"]["playing"], false);
}

// Files that are not as they should be

TEST_F(InspectionServiceTrackTest, TakesInWhatIsWrittenMeanwhile) {
    Pond pond(pathOf("pond.journal"), fishes, "run");
    pond.write(3);
    service->addJournal(pathOf("pond.journal"), "pond");
    EXPECT_EQ(control(0, "open")["numFrames"], 3);
    EXPECT_EQ(trackOf(0)["closed"], false);
    control(0, "seek", "'frame':2");
    pond.write(4);
    EXPECT_EQ(trackOf(0)["numFrames"], 3);
    Json::Value track = control(0, "open");
    EXPECT_EQ(track["numFrames"], 7);
    EXPECT_EQ(track["position"]["frame"], 2);
    EXPECT_EQ(control(0, "seek", "'frame':6")["position"]["frame"], 6);
    EXPECT_EQ(valueOf("pond.level").asDouble(), 3);
    pond.close();
    EXPECT_EQ(control(0, "open")["closed"], true);
}

TEST_F(InspectionServiceTrackTest, ShowsWhatIsRecordedAgain) {
    Pond pond(pathOf("pond.journal"), fishes, "run");
    pond.write(11);
    service->addJournal(pathOf("pond.journal"), "pond");
    control(0, "seek", "'frame':10");
    EXPECT_EQ(valueOf("pond.weather.heat").asDouble(), -10);
    pond.goBackTo(8, 1000); // a key frame as before: all records stand where they stood
    pond.write(4);
    Json::Value track = control(0, "open");
    EXPECT_EQ(track["numFrames"], 12);
    EXPECT_EQ(track["position"]["frame"], 10);
    EXPECT_EQ(valueOf("pond.weather.heat").asDouble(), 1000 - 10);
}

TEST_F(InspectionServiceTrackTest, ShowsAJournalWhoseLastFrameIsNotWholeYet) {
    Pond pond(pathOf("pond.journal"), fishes, "run");
    pond.write(3);
    const auto size = std::filesystem::file_size(pathOf("pond.journal"));
    std::filesystem::copy_file(pathOf("pond.journal"), pathOf("copy.journal"));
    std::filesystem::resize_file(pathOf("copy.journal"), size - 9);
    service->addJournal(pathOf("copy.journal"), "pond");
    const Json::Value track = control(0, "open");
    EXPECT_EQ(track["numFrames"], 2);
    EXPECT_EQ(track["error"], "");
}

TEST_F(InspectionServiceTrackTest, TellsOfAJournalThatIsDamaged) {
    const std::string file = record("pond.journal", 8);
    std::filesystem::resize_file(file, std::filesystem::file_size(file) - 9);
    service->addJournal(file, "pond");
    const Json::Value track = control(0, "open");
    EXPECT_EQ(track["numFrames"], 7);
    EXPECT_THAT(track["error"].asString(), StartsWith("The journal is damaged at offset "));
    EXPECT_THAT(track["error"].asString(), HasSubstr("the frames that the session header tells of end here"));
    EXPECT_EQ(control(0, "seek", "'frame':6")["position"]["frame"], 6);
}

TEST_F(InspectionServiceTrackTest, StaysAtTheFrameAheadOfOneThatCanNotBeRead) {
    addTrack(8);
    control(0, "seek", "'frame':1");
    control(0, "play", "'rate':1e-9");
    const std::string file = pathOf("pond.journal");
    const auto size = std::filesystem::file_size(file);
    std::filesystem::copy_file(file, pathOf("whole"));
    std::filesystem::resize_file(file, size - 9); // behind the library's back
    const std::string fault = controlRefusal(0, "seek", "'frame':7");
    EXPECT_THAT(fault, StartsWith("frame 7 at offset "));
    Json::Value track = trackOf(0);
    EXPECT_EQ(track["error"], fault);
    EXPECT_EQ(track["playing"], false);
    EXPECT_EQ(track["position"]["frame"], 1);
    EXPECT_EQ(valueOf("pond.level").asDouble(), 0.5);

    control(0, "play", "'rate':1e300");
    do
        track = trackOf(0);
    while (track["playing"].asBool() && !HasFailure());
    EXPECT_EQ(track["error"], fault);
    EXPECT_EQ(track["position"]["frame"], 1);

    std::filesystem::copy_file(pathOf("whole"), file, std::filesystem::copy_options::overwrite_existing);
    EXPECT_EQ(control(0, "seek", "'frame':7")["error"], "");
    EXPECT_EQ(valueOf("pond.level").asDouble(), 3.5);
}

TEST_F(InspectionServiceTrackTest, ShowsAStorageThatHasBecomeEmpty) {
    {
        Pond pond(pathOf("pond.journal"), fishes, "run");
        pond.write(5);
        pond.catchAll();
        pond.write(1); // no key frame: it tells what has gone
    }
    service->addJournal(pathOf("pond.journal"), "pond");
    EXPECT_EQ(control(0, "seek", "'frame':5")["error"], "");
    EXPECT_THAT(bufferAt("pond.fish.mass"), IsEmpty());
    EXPECT_EQ(ask(client, "Buffer.Read", "{'path':'pond.fish.mass'}").header["type"], "Real:64bit");
    EXPECT_EQ(control(0, "step", "'count':-1")["position"]["frame"], 4);
    EXPECT_EQ(bufferAt("pond.fish.mass").size(), 2U);
}

TEST_F(InspectionServiceTrackTest, KeepsWhatIsOpenWhereTheFileIsNoJournalAnyMore) {
    addTrack(8);
    Json::Value before = trackOf(0);
    std::fstream(pathOf("pond.journal"), std::ios::in | std::ios::out) << "different!";
    const std::string fault = controlRefusal(0, "open");
    EXPECT_THAT(fault, HasSubstr("is no journal"));
    before["error"] = fault;
    EXPECT_EQ(trackOf(0), before);
}

TEST_F(InspectionServiceTrackTest, RefusesWhatIsNoJournal) {
    service->addJournal(pathOf("none.journal"), "none");
    service->addJournal(directory.write("text.journal", "to be or not to be"), "text");
    service->addJournal(directory.path(), "folder");
    service->addJournal(directory.write("empty.journal"), "empty");
    for (zel::uint64 id = 0; id < 4; ++id) {
        const std::string fault = controlRefusal(id, "open");
        EXPECT_THAT(fault, testing::AnyOf(StartsWith("There is no file '"), HasSubstr("is no journal")));
        const Json::Value track = trackOf(id);
        EXPECT_EQ(track["open"], false);
        EXPECT_EQ(track["error"], fault);
        EXPECT_EQ(controlRefusal(id, "seek", "'frame':0"), fault);
        EXPECT_EQ(zelTest::whatOf([&] { service->openJournal(id); }), fault);
    }
    record("none.journal", 2); // comes later
    EXPECT_EQ(control(0, "open")["error"], "");
}

TEST_F(InspectionServiceTrackTest, ShowsJournalsOfNoFrameAndOfOne) {
    { const Pond pond(pathOf("empty.journal"), fishes, "run"); }
    service->addJournal(pathOf("empty.journal"), "empty");
    service->addJournal(record("one.journal", 1), "one");
    const Json::Value track = control(0, "open");
    EXPECT_EQ(track["open"], true);
    EXPECT_EQ(track["numFrames"], 0);
    EXPECT_TRUE(track["position"].isNull());
    for (const auto& [action, members] : std::vector<std::pair<std::string, std::string>>{
             {"play", ""}, {"seek", "'frame':0"}, {"seekTime", "'time':0"}, {"step", ""}})
        EXPECT_EQ(controlRefusal(0, action, members), "The track 'empty' has no frames");
    EXPECT_EQ(control(0, "range", "'start':1")["open"], true);

    control(1, "open");
    EXPECT_EQ(control(1, "step", "'count':5")["position"]["index"], 0);
    control(1, "play", "'rate':1e300");
    EXPECT_EQ(trackOf(1)["playing"], false);
    control(1, "loop", "'loop':true");
    control(1, "play", "'rate':1e300");
    EXPECT_EQ(trackOf(1)["playing"], true);
    EXPECT_EQ(trackOf(1)["position"]["index"], 0);
}

TEST_F(InspectionServiceTrackTest, ShowsAnotherRecordingInThePlaceOfTheOne) {
    addTrack(8);
    control(0, "seek", "'frame':7");
    std::filesystem::remove(pathOf("pond.journal"));
    EXPECT_EQ(control(0, "seek", "'frame':2")["position"]["frame"], 2); // is still held open
    EXPECT_THAT(controlRefusal(0, "open"), StartsWith("There is no file '"));
    EXPECT_EQ(trackOf(0)["open"], true);
    EXPECT_EQ(valueOf("pond.level").asDouble(), 1);
    { const Pond pond(pathOf("pond.journal"), fishes, "next"); }
    EXPECT_EQ(control(0, "open")["numFrames"], 0);
    EXPECT_THAT(childrenOf("pond"), IsEmpty());
    record("pond.journal", 3);
    EXPECT_EQ(control(0, "open")["position"]["frame"], 0);
    EXPECT_EQ(childrenOf("pond").size(), 6U);
}

TEST_F(InspectionServiceTrackTest, PlaysTimesThatGoBackwards) {
    Pond pond(pathOf("pond.journal"), fishes, "run");
    for (const double time : {5.0, 4.0, 4.0, 9.0, std::numeric_limits<double>::infinity(), 1.0})
        pond.write(time);
    pond.close();
    service->addJournal(pathOf("pond.journal"), "pond");
    Json::Value track;
    for (const char* rate : {"'rate':1e300", "'rate':-1e300"}) {
        control(0, "play", rate);
        do
            track = trackOf(0);
        while (track["playing"].asBool() && !HasFailure());
        EXPECT_EQ(track["position"]["index"], std::string(rate).find('-') == std::string::npos ? 5 : 0);
    }
    EXPECT_EQ(control(0, "seek", "'frame':4")["position"]["time"], "inf");
    EXPECT_EQ(control(0, "seekTime", "'time':2")["position"]["index"], 5);
}

// Frame packets

TEST_F(InspectionServiceFramesTest, AreSentWhenTheTrackShowsAnother) {
    addTrack(12);
    ask(client, "Track.Subscribe", "{'id':0}");
    auto frame = takePacket(client);
    EXPECT_EQ(frame->getIndex(), 0U);
    EXPECT_EQ(realAt(*frame, "weather.heat"), 0);
    ack(client, 0, 0);
    control(0, "seek", "'frame':7");
    frame = takePacket(client);
    EXPECT_EQ(frame->getIndex(), 7U);
    EXPECT_EQ(frame->getTimeStamp(), 0.1 * 7);
    EXPECT_EQ(frame->getTimeStep(), 0.1);
    EXPECT_EQ(realAt(*frame, "level"), 3.5);
    EXPECT_EQ(realAt(*frame, "weather.heat"), -7);
    EXPECT_THAT(massesOf(*frame), ElementsAre(7, 207, 107));
    ack(client, 0, 7);
    EXPECT_TRUE(isQuiet(client));
    control(0, "close");
    EXPECT_TRUE(isQuiet(client));
    control(0, "open");
    EXPECT_EQ(takePacket(client)->getIndex(), 0U);
    ask(client, "Track.Unsubscribe", "{'id':0}");
    control(0, "seek", "'frame':2");
    EXPECT_TRUE(isQuiet(client));
}

TEST_F(InspectionServiceFramesTest, HaveTimesThatPacketsCanTell) {
    Pond pond(pathOf("pond.journal"), fishes, "run");
    for (const double time : {1.0, std::numeric_limits<double>::quiet_NaN(), 3.0})
        pond.write(time);
    pond.close();
    service->addJournal(pathOf("pond.journal"), "pond");
    service->openJournal(0);
    ask(client, "Track.Subscribe", "{'id':0,'paths':['level']}");
    EXPECT_EQ(takePacket(client)->getTimeStamp(), 1);
    EXPECT_EQ(control(0, "step")["position"]["time"], "nan");
    EXPECT_TRUE(isQuiet(client));
    control(0, "step");
    EXPECT_EQ(takePacket(client)->getTimeStamp(), 3);
}

TEST_F(InspectionServiceFramesTest, HoldWhatIsAskedFor) {
    addTrack(3);
    ask(client, "Track.Subscribe", "{'id':0,'paths':['weather','level','nothing.there']}");
    const auto frame = takePacket(client);
    EXPECT_EQ(realAt(*frame, "weather.heat"), 0);
    EXPECT_EQ(realAt(*frame, "level"), 0);
    EXPECT_EQ(frame->getNumObjects(), 2U);
}

TEST_F(InspectionServiceFramesTest, HoldAllWhereNoPathIsAskedFor) {
    addTrack(3);
    ask(client, "Track.Subscribe", "{'id':0,'paths':[]}");
    const auto frame = takePacket(client);
    EXPECT_EQ(realAt(*frame, "weather.heat"), 0);
    EXPECT_EQ(realAt(*frame, "level"), 0);
}

TEST_F(InspectionServiceFramesTest, HoldWhatAPathLeadsToLater) {
    service->addLiveTrack("run", clock.get(), top.get());
    ask(client, "Track.Subscribe", "{'id':0,'paths':['a','later']}");
    auto frame = takePacket(client);
    EXPECT_EQ(frame->getResource("later"), nullptr);
    ack(client, 0, 0);
    top->addObject(new ValueT<double>("later", 8));
    clock->tick();
    frame = takePacket(client);
    EXPECT_EQ(realAt(*frame, "later"), 8);
    EXPECT_EQ(realAt(*frame, "a"), 1.5);
}

TEST_F(InspectionServiceFramesTest, WaitForTheirAcknowledgement) {
    addTrack(12);
    ask(client, "Track.Subscribe", "{'id':0,'paths':['level']}");
    EXPECT_EQ(takePacket(client)->getIndex(), 0U);
    control(0, "seek", "'frame':1");
    EXPECT_EQ(takePacket(client)->getIndex(), 1U);
    control(0, "seek", "'frame':2");
    control(0, "seek", "'frame':3");
    EXPECT_TRUE(isQuiet(client)); // two are under way
    ack(client, 0, 77);           // was never sent
    send(client, "Track.Ack", "{'id':'x','frame':-1}");
    send(client, "Track.Ack", "{'id':7,'frame':1}");
    EXPECT_TRUE(isQuiet(client));
    ack(client, 0, 1); // and with it the one ahead
    EXPECT_EQ(takePacket(client)->getIndex(), 3U);
    control(0, "seek", "'frame':0");
    EXPECT_EQ(takePacket(client)->getIndex(), 0U);
}

TEST_F(InspectionServiceFramesTest, AreThoseOfTheRun) {
    zel::ref_ptr<zel::Component> shown(new zel::Component("shown"));
    const zel::ref_ptr<ValueT<double>> speed(new ValueT<double>("speed", 1));
    shown->addObject(speed.get());
    service->addLiveTrack("run", clock.get(), shown.get());
    ask(client, "Track.Subscribe", "{'id':0}");
    EXPECT_EQ(realAt(*takePacket(client), "speed"), 1);
    ack(client, 0, 0);
    speed->set(2);
    EXPECT_TRUE(isQuiet(client)); // is no frame yet
    clock->tick();
    const auto frame = takePacket(client);
    EXPECT_EQ(frame->getIndex(), 1U);
    EXPECT_EQ(realAt(*frame, "speed"), 2);
    ack(client, 0, 1);
    shown->removeObject(speed.get());
    shown = nullptr;
    clock->tick();
    EXPECT_TRUE(isQuiet(client));
    EXPECT_EQ(refusal(client, "Track.Unsubscribe", "{'id':0}"), "The track 'run' is not subscribed to");
}

TEST_F(InspectionServiceFramesTest, OutliveTheClockOfTheRun) {
    zel::ref_ptr<zel::Clock> other(new zel::Clock("other", 10));
    service->addLiveTrack("run", other.get(), top.get());
    ask(client, "Track.Subscribe", "{'id':0,'paths':['a']}");
    EXPECT_EQ(realAt(*takePacket(client), "a"), 1.5);
    ack(client, 0, 0);
    other = nullptr;
    EXPECT_TRUE(isQuiet(client));
    ask(client, "Track.Unsubscribe", "{'id':0}");
}

TEST_F(InspectionServiceFramesTest, EndWithTheirClient) {
    addTrack(4);
    Client other = connect();
    ask(other, "Track.Subscribe", "{'id':0}");
    ask(other, "Track.List");
    other = {};
    ASSERT_TRUE(serveUntil([&] { return channel->getClients().size() == 1; }));
    control(0, "seek", "'frame':3");
    EXPECT_TRUE(isQuiet(client));
}

TEST_F(InspectionServiceFramesTest, AreRefusedWhereTheyMeanNothing) {
    addTrack(2);
    EXPECT_EQ(refusal(client, "Track.Subscribe", "{'id':7}"), "There is no track 7");
    EXPECT_EQ(refusal(client, "Track.Subscribe", "{'id':0,'paths':['']}"), "'paths' must not be empty");
    EXPECT_EQ(refusal(client, "Track.Subscribe", "{'id':0,'paths':7}"),
              "'paths' must be a list of at most 64 texts");
    EXPECT_EQ(refusal(client, "Track.Subscribe", "{'id':0,'paths':[7]}"),
              "'paths' must be a list of at most 64 texts");
    EXPECT_EQ(refusal(client, "Track.Unsubscribe", "{'id':0}"), "The track 'pond' is not subscribed to");
    for (int i = 1; i <= 16; ++i)
        service->addLiveTrack("run", clock.get(), top.get());
    for (int i = 1; i <= 16; ++i)
        EXPECT_EQ(ask(client, "Track.Subscribe", "{'id':" + std::to_string(i) + ",'paths':['none']}")
                      .header["success"],
                  true);
    EXPECT_EQ(refusal(client, "Track.Subscribe", "{'id':0}"), "There may be 16 subscriptions");
    EXPECT_EQ(ask(client, "Track.Subscribe", "{'id':16,'paths':['none']}").header["success"], true);
}

// What listens

TEST_F(InspectionServiceTrackTest, LetsListenersChangeWhatIsShown) {
    addTrack(8);
    auto* tree = dynamic_cast<zel::Component*>(zel::root()->findObject("pond"));
    auto* level = dynamic_cast<zelData::Value*>(tree->findObject("level"));
    level->updateEvent.connect([&](zelData::Value*) {
        tree->removeAllObjects(); // with the value itself
        service->addJournal(pathOf("pond.journal"), "more");
    });
    control(0, "seek", "'frame':5");
    EXPECT_EQ(trackOf(1)["name"], "more");
    control(0, "seek", "'frame':6");
    EXPECT_EQ(childrenOf("pond").size(), 6U);
    EXPECT_EQ(valueOf("pond.level").asDouble(), 3);
}

TEST_F(InspectionServiceTrackTest, TellsOfListenersThatThrow) {
    addTrack(8);
    auto* level = dynamic_cast<zelData::Value*>(zel::root()->getResource("pond.level"));
    const zel::uint64 connection =
        level->updateEvent.connect([](zelData::Value*) { throw std::runtime_error("no, thanks"); });
    EXPECT_EQ(controlRefusal(0, "seek", "'frame':5"), "no, thanks");
    EXPECT_EQ(trackOf(0)["error"], "no, thanks");
    level->updateEvent.disconnect(connection);
    EXPECT_EQ(control(0, "seek", "'frame':6")["error"], "");
    EXPECT_EQ(valueOf("pond.level").asDouble(), 3);
}
