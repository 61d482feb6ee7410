// Clocks in model files.
#include "ClockFixture.h"

#include <zel/Clock.h>
#include <zel/ref_ptr.h>

#include <gtest/gtest.h>
#include <support/TempDirectory.h>
#include <support/WhatOf.h>
#include <tinyxml.h>

#include <memory>
#include <string>

using zel::Clock;
using zel::Component;
using zel::Object;
using zel::ref_ptr;
using zelTest::whatOf;

namespace {

class ClockXmlTest : public zelTest::ClockFixture {
protected:
    ref_ptr<Object> load(const std::string& element) {
        m_document = Object::openDocument(m_directory.write("c.xml", element));
        return Object::load(m_document->RootElement(), nullptr);
    }
    std::string failure(const std::string& element) {
        m_document = Object::openDocument(m_directory.write("c.xml", element));
        return whatOf(
            [this] { const ref_ptr<Clock> clock(Clock::load(m_document->RootElement(), nullptr)); });
    }

    zelTest::TempDirectory m_directory;
    std::unique_ptr<TiXmlDocument> m_document;
};

} // namespace

TEST_F(ClockXmlTest, LoadsAClock) {
    const ref_ptr<Object> object =
        load("<Clock name='c' time='5' frequency='20' timeModulation='2' enable='false'>\n"
             "<Value instance='frame' value='7'/>\n"
             "<Value instance='timeModulation' value='4'/>\n"
             "<Value instance='timeStep' value='0.1'/>\n"
             "<Event name='e' startDelay='0.5' interval='0.25' repeating='true' enabled='false'/>\n"
             "<Event name='once'/>\n"
             "</Clock>");
    auto* clock = dynamic_cast<Clock*>(object.get());
    ASSERT_NE(clock, nullptr);
    EXPECT_EQ(clock->getTime(), 5);
    EXPECT_EQ(clock->getFrequency(), 40);
    EXPECT_EQ(clock->getTimeStep(), 0.1);
    EXPECT_EQ(clock->getFrame(), 7U);
    EXPECT_FALSE(clock->isEnabled());
    auto* event = dynamic_cast<Clock::Event*>(clock->findObject("e"));
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->getStartDelay(), 0.5);
    EXPECT_EQ(event->getInterval(), 0.25);
    EXPECT_TRUE(event->isRepeating());
    EXPECT_FALSE(event->isEnabled());
    EXPECT_EQ(dynamic_cast<Clock::Event*>(clock->findObject("once"))->getInterval(), -1);
}

TEST_F(ClockXmlTest, SynchronizesWithAMaster) {
    const ref_ptr<Object> slave = load("<Clock name='s' frequency='10' synchronize='m'/>");
    const ref_ptr<Component> top(new Component("top"));
    const ref_ptr<Clock> master(new Clock("m", 10));
    top->addObject(master.get());
    top->addObject(slave.get());
    EXPECT_EQ(dynamic_cast<Clock*>(slave.get())->getMaster(), master.get());
}

TEST_F(ClockXmlTest, SavesWhatItLoads) {
    const ref_ptr<Object> object = load("<Clock name='c' time='5' frequency='20' synchronize='m'>\n"
                                        "<Event name='e' startDelay='0.5' interval='0.25'/></Clock>");
    TiXmlElement parent("parent");
    object->save(&parent);
    const ref_ptr<Clock> copy(Clock::load(parent.FirstChildElement(), nullptr));
    EXPECT_EQ(copy->getTime(), 5);
    EXPECT_EQ(copy->getFrequency(), 20);
    auto* event = dynamic_cast<Clock::Event*>(copy->findObject("e"));
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->getStartDelay(), 0.5);
    EXPECT_EQ(event->getInterval(), 0.25);
    EXPECT_STREQ(parent.FirstChildElement()->Attribute("synchronize"), "m");
}

TEST_F(ClockXmlTest, RefusesBadElements) {
    using testing::HasSubstr;
    EXPECT_THAT(failure("<Clock/>"), HasSubstr("XML error: Must specify a name for the clock!"));
    EXPECT_THAT(failure("<Clock name='c'><Value instance='speed' value='1'/></Clock>"),
                HasSubstr("XML error: No value with name 'speed'!"));
    EXPECT_THAT(failure("<Clock name='c'><Value name='speed' value='1'/></Clock>"),
                HasSubstr("XML error: Can not add new values to a clock!"));
    EXPECT_THAT(failure("<Clock name='c' frequency='0'/>"),
                HasSubstr("XML error: The attribute 'frequency' must be larger than 0"));
    EXPECT_THAT(failure("<Clock name='c' timeModulation='-1'/>"),
                HasSubstr("XML error: The attribute 'timeModulation' must be larger than 0"));
    EXPECT_THAT(failure("<Clock name='c' time='soon'/>"), HasSubstr("XML error: "));
    EXPECT_THAT(failure("<Clock name='c'><Event/></Clock>"), HasSubstr("XML error: "));
}
