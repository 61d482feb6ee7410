// Recorders and generators of model files.
#include "RunFixture.h"

#include <zel/Component.h>

#include <json/value.h>
#include <support/LogCapture.h>
#include <support/WhatOf.h>

#include <filesystem>

using testing::ElementsAre;
using testing::HasSubstr;
using zel::ref_ptr;
using zel::uint64;
using zelData::Recorder;
using zelTest::LogCapture;
using zelTest::StreamCapture;
using zelTest::whatOf;

namespace {

class RecorderXmlTest : public zelTest::RunFixture {
protected:
    void TearDown() override {
        model = nullptr;
        RunFixture::TearDown();
    }
    /// A model with a clock, a value, a generator and what is given.
    void load(const std::string& content) {
        static int s_number = 0; // models outlive a test
        name = "Model" + std::to_string(++s_number);
        const std::string file = directory.write(
            "Components/recorded/" + name + ".zelComponent",
            "<Component name='" + name +
                "'>\n<Clock name='clock' frequency='10'/>\n"
                "<Value name='x' type='Real:64bit' value='3'/>\n"
                "<Value name='flag' type='Bool' value='true'/>\n"
                "<Component name='part'><Value name='y' type='Real:64bit' value='4'/></Component>\n" +
                content + "\n</Component>\n");
        model = zel::Component::loadFile(file, nullptr);
        ASSERT_TRUE(model);
        model->rebind();
    }
    [[nodiscard]] std::string element(const std::string& attributes, const std::string& children = "") const {
        return "<Recorder clock='clock' journal='" + path() + "' " + attributes + ">" + children +
               "</Recorder>";
    }
    void tick(int n) {
        const StreamCapture quiet(std::cout);
        for (int i = 0; i < n; ++i)
            dynamic_cast<zel::Clock&>(*model->findObject("clock")).tick();
    }
    [[nodiscard]] Recorder& loaded() { return dynamic_cast<Recorder&>(*model->findObject("Recorder")); }
    [[nodiscard]] std::vector<uint64> recorded() {
        open();
        return indicesInTable();
    }

    ref_ptr<zel::Component> model;
    std::string name;
};

TEST_F(RecorderXmlTest, AnElementRecordsItsComponentFromTheFirstTickOn) {
    load(element(""));
    EXPECT_FALSE(std::filesystem::exists(path()));
    tick(3);
    model = nullptr; // closes the journal
    EXPECT_THAT(recorded(), ElementsAre(0, 1, 2, 3));
    EXPECT_TRUE(session->isClosed());
    beginReading();
    const ref_ptr<zelData::Frame> frame = read(0);
    EXPECT_EQ(contentOf(frame->findObject("x")), 3.0);
    EXPECT_EQ(contentOf(frame->getResource(zel::Path("part.y"))), 4.0);
    std::ostringstream scene;
    EXPECT_TRUE(session->unpackSceneData(static_cast<std::ostream&>(scene)));
    EXPECT_THAT(scene.str(), HasSubstr(name + ".zelComponent"));
    EXPECT_THAT(scene.str(), HasSubstr("<Clock name='clock' frequency='10'/>")); // the text of the model
}

TEST_F(RecorderXmlTest, AttributesAreSettings) {
    load(element("stride='2' start='0.2' end='0.6' condition='flag' keyFrameInterval='2' budget='1000' "
                 "minFreeBytes='1' sync='true' maxJournalTime='0.4' checksums='true'"));
    EXPECT_FALSE(std::filesystem::exists(path() + ".sums"));
    tick(8);
    EXPECT_TRUE(std::filesystem::exists(path() + ".sums"));
    EXPECT_EQ(loaded().getNumFrames(), 3U); // 2, 4, 6
    EXPECT_EQ(loaded().getNumJournals(), 2U);
    EXPECT_THAT(recorded(), ElementsAre(2, 4));
    EXPECT_EQ(session->getFrameStride(), 2U);
}

TEST_F(RecorderXmlTest, ChildrenAreDataBindings) {
    load(
        element("", "<DataBinding path='x'/><DataBinding internal='part' external='p.q' recursive='true'/>"));
    tick(1);
    loaded().stop();
    open();
    beginReading();
    const ref_ptr<zelData::Frame> frame = read(0);
    EXPECT_EQ(contentOf(frame->findObject("x")), 3.0);
    EXPECT_EQ(contentOf(frame->getResource(zel::Path("p.q.y"))), 4.0);
    EXPECT_EQ(frame->findObject("flag"), nullptr);
}

TEST_F(RecorderXmlTest, RootsAndNamesMayBeGiven) {
    load(element("name='writer' root='part'"));
    tick(1);
    dynamic_cast<Recorder&>(*model->findObject("writer")).stop();
    open();
    beginReading();
    EXPECT_EQ(contentOf(read(0)->findObject("y")), 4.0);
    EXPECT_EQ(read(0)->findObject("x"), nullptr);
}

TEST_F(RecorderXmlTest, DisabledOnesWaitForTheirStart) {
    load(element("enable='false'"));
    tick(2);
    EXPECT_FALSE(std::filesystem::exists(path()));
    {
        const StreamCapture quiet(std::cout);
        loaded().start();
    }
    tick(1);
    loaded().stop();
    EXPECT_THAT(recorded(), ElementsAre(2, 3));
}

TEST_F(RecorderXmlTest, AStartThatFailsIsToldOnceAndTheRunGoesOn) {
    putBytes("no journal");
    load(element(""));
    EXPECT_NE(whatOf([this] { tick(1); }), "no exception");
    tick(2);
    EXPECT_FALSE(loaded().isRecording());
    EXPECT_EQ(bytes(), "no journal");
}

TEST_F(RecorderXmlTest, FaultsTellTheirRow) {
    const auto failure = [this](const std::string& content) {
        zel::TiXmlElement* const parsed = parse(content);
        return whatOf([parsed] {
            if (parsed->ValueStr() == "Recorder")
                const ref_ptr<Recorder> none(Recorder::load(parsed, nullptr));
            else
                const ref_ptr<zelData::RandomGenerator> none(zelData::RandomGenerator::load(parsed, nullptr));
        });
    };
    EXPECT_THAT(failure("<Recorder journal='a'/>"), HasSubstr("A recorder needs the attribute 'clock'"));
    EXPECT_THAT(failure("<Recorder clock='clock' journal=''/>"),
                HasSubstr("A recorder needs the attribute 'journal'"));
    EXPECT_THAT(failure(element("stride='0'")), HasSubstr("The attribute 'stride' must be larger than 0"));
    EXPECT_THAT(failure(element("budget='much'")),
                HasSubstr("Unable to parse attribute budget. Error at row 1"));
    EXPECT_THAT(failure(element("", "<DataBinding/>")), HasSubstr("Could not locate attribute 'path'"));
    EXPECT_THAT(failure("<RandomGenerator name='r' seed='x'/>"), HasSubstr("Unable to parse attribute seed"));
    EXPECT_THAT(failure("<RandomGenerator/>"), HasSubstr("Could not locate attribute 'name'"));
}

TEST_F(RecorderXmlTest, ClocksThatLackAndRootsThatLackAreTold) {
    load("<Recorder clock='watch' journal='" + path() + "'/>");
    zel::root()->addObject(model.get());
    const LogCapture log(zel::Notify::Warning);
    tick(1);
    EXPECT_THAT(log.text(), HasSubstr("'watch'"));
    zel::root()->removeObject(model.get());
    EXPECT_EQ(whatOf([this] { loaded().start(); }), name + ".Recorder: A recorder needs a clock.");
}

TEST_F(RecorderXmlTest, GeneratorsOfModelFilesHaveTheirSeed) {
    load("<RandomGenerator name='random' seed='42'/>" + element(""));
    auto& generator = dynamic_cast<zelData::RandomGenerator&>(*model->findObject("random"));
    EXPECT_EQ(generator.getSeed(), 42U);
    tick(1);
    (void)generator();
    tick(1);
    loaded().stop();
    open();
    beginReading();
    EXPECT_EQ(read(0)->getBuffer(zel::Path("random.state"))->data<uint64>()[312], 312U);
    EXPECT_TRUE(reader->jumpToFrame(2));
    EXPECT_EQ(read()->getBuffer(zel::Path("random.state"))->data<uint64>()[312], 1U);
}

} // namespace
