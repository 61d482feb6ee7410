#include "InspectionTracksFixture.h"

#include <zelData/PlainJournal.h>

#include <fstream>
#include <random>

using zel::uint32;
using zel::uint64;

namespace {

/// Journals whose bytes were changed behind the library's back.
class InspectionServiceTrackMaliciousTest : public zelTest::InspectionTracksFixture {
protected:
    static constexpr zel::size_t FirstFrame = 34 + 10240;

    void SetUp() override {
        InspectionTracksFixture::SetUp();
        record("pond.journal", 9);
        whole = directory.read("pond.journal");
        service->addJournal(pathOf("bad.journal"), "pond");
    }
    /// An answer of either kind; what is pushed is dropped.
    bool succeeds(const std::string& uri, const std::string& header) {
        const Message answer = ask(client, uri, header);
        client.pushes.clear();
        EXPECT_TRUE(answer.header["success"].isBool()) << text(answer.header);
        return answer.header["success"].asBool();
    }
    /// All that clients do with a journal.
    void lookInto(const std::string& content) {
        directory.write("bad.journal", content);
        if (!succeeds("Track.Control", controls(0, "open")))
            return;
        for (const int frame : {3, 8, 1, 5, 0}) {
            succeeds("Track.Control", controls(0, "seek", "'frame':" + std::to_string(frame)));
            succeeds("Object.Describe", "{'path':'pond','depth':3}");
            succeeds("Buffer.Read", "{'path':'pond.fish.title'}");
            succeeds("Track.Subscribe", "{'id':0}"); // and another packet
        }
        succeeds("Track.Series",
                 "{'id':0,'series':1,'items':[{'path':'pond.level'},{'path':'pond.wind'},"
                 "{'path':'pond.depths','index':1},{'path':'pond.fish.mass','index':1},"
                 "{'path':'pond.fish.spots','id':2},{'path':'pond.fish._idToIndex','index':0}]}");
        succeeds("Track.Control", controls(0, "play", "'rate':1e300"));
        succeeds("Track.Control", controls(0, "play", "'rate':-1e300"));
        succeeds("Track.List", "{}");
        succeeds("Track.Unsubscribe", "{'id':0}");
        succeeds("Track.StopSeries", "{'id':0,'series':1}");
        succeeds("Track.Control", controls(0, "close"));
    }
    void put(std::string& content, zel::size_t offset, uint32 word) {
        std::memcpy(content.data() + offset, &word, sizeof(word));
    }

    std::string whole;
};

} // namespace

TEST_F(InspectionServiceTrackMaliciousTest, OutlivesChangedBytes) {
    std::mt19937 random(11);
    for (int run = 0; run < 50; ++run) {
        std::string content = whole;
        for (int k = 0; k < 1 + run % 4; ++k)
            content[FirstFrame + random() % (content.size() - FirstFrame)] = static_cast<char>(random());
        lookInto(content);
    }
}

TEST_F(InspectionServiceTrackMaliciousTest, OutlivesChangedNumbers) {
    std::mt19937 random(12);
    constexpr uint32 Numbers[] = {0, 1, 2, 3, 4, 5, 8, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0xFFFFFFFE};
    const zelData::PlainJournal journal(pathOf("pond.journal"));
    for (int run = 0; run < 80; ++run) {
        std::string content = whole;
        // Of the headers of frames, where the numbers are.
        const auto& entry = journal.getFrames()[random() % journal.getFrames().size()];
        const uint64 word = random() % (entry.record.headerSize / sizeof(uint32));
        put(content, entry.offset + word * sizeof(uint32), Numbers[random() % std::size(Numbers)]);
        lookInto(content);
    }
}

TEST_F(InspectionServiceTrackMaliciousTest, OutlivesFilesThatEndAnywhere) {
    std::mt19937 random(13);
    for (int run = 0; run < 25; ++run)
        lookInto(whole.substr(0, random() % whole.size()));
}

TEST_F(InspectionServiceTrackMaliciousTest, OutlivesAFileThatChangesWhileItIsOpen) {
    std::mt19937 random(14);
    directory.write("bad.journal", whole);
    succeeds("Track.Control", controls(0, "open"));
    succeeds("Track.Subscribe", "{'id':0}");
    for (int run = 0; run < 60; ++run) {
        std::string content = whole;
        for (int k = 0; k < 16; ++k)
            content[FirstFrame + random() % (content.size() - FirstFrame)] = static_cast<char>(random());
        if (run % 5 == 0)
            content.resize(random() % content.size());
        directory.write("bad.journal", content); // into the file that is open
        succeeds("Track.Control", controls(0, "seek", "'frame':" + std::to_string(random() % 9)));
        succeeds("Track.Series",
                 "{'id':0,'series':1,'items':[{'path':'pond.level'},{'path':'pond.fish.mass','index':0}]}");
        succeeds("Object.Describe", "{'path':'pond','depth':3}");
    }
    directory.write("bad.journal", whole);
    EXPECT_TRUE(succeeds("Track.Control", controls(0, "seek", "'frame':8")));
    EXPECT_EQ(valueOf("pond.level").asDouble(), 4);
}

TEST_F(InspectionServiceTrackMaliciousTest, OutlivesMembersOfAnyKind) {
    directory.write("bad.journal", whole);
    const std::vector<std::string> values = {"null",
                                             "true",
                                             "-1",
                                             "1e308",
                                             "-0.5",
                                             "''",
                                             "'pond'",
                                             "[]",
                                             "[[]]",
                                             "{}",
                                             "[null]",
                                             "18446744073709551615",
                                             "[{'path':{}}]"};
    const std::vector<std::string> members = {"id",
                                              "action",
                                              "series",
                                              "items",
                                              "start",
                                              "end",
                                              "points",
                                              "paths",
                                              "frame",
                                              "time",
                                              "rate",
                                              "count",
                                              "stride",
                                              "loop"};
    const std::vector<std::string> good = {"{'id':0,'action':'play'",
                                           "{'id':0,'action':'range'",
                                           "{'id':0,'action':'step'",
                                           "{'id':0,'series':1,'items':[{'path':'pond.level'}]"};
    for (const char* uri :
         {"Track.Control", "Track.Series", "Track.StopSeries", "Track.Subscribe", "Track.Unsubscribe"})
        for (const std::string& header : good)
            for (const std::string& member : members)
                for (const std::string& value : values)
                    succeeds(uri,
                             std::string(header).append(",'").append(member).append("':").append(value) +
                                 "}");
    EXPECT_EQ(control(0, "seek", "'frame':3")["position"]["frame"], 3);
}
