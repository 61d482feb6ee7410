#include "MemoryJournal.h"

#include <zelCore/Version.h>

#include <json/value.h>
#include <support/CommaStreams.h>

#include <regex>

using zel::ref_ptr;
using zelData::JournalArchive;
using zelTest::MemorySession;

namespace {

/// A journal in memory.
class MemoryJournal : public JournalArchive {
public:
    using JournalArchive::JournalArchive;
    using JournalArchive::removeSession;
    Session* createNewSession(const zel::Name& name) override {
        const ref_ptr<MemorySession> session(new MemorySession(name));
        return registerSession(session.get()) ? session.get() : nullptr;
    }
    bool removeSession(Session* session) override { return unregisterSession(session); }
    bool renameSession(Session* session, const zel::Name& name) override {
        renamed = name;
        return isOwnerOf(session);
    }
    [[nodiscard]] zel::String getCustomFilesPath(bool /*create*/) override { return {}; }
    [[nodiscard]] zel::String getCustomFilesPath(const zel::Name& /*name*/, bool /*create*/) override {
        return {};
    }
    [[nodiscard]] zelData::FrameReader* createFrameReader(Session* /*session*/) override { return nullptr; }
    [[nodiscard]] zelData::FrameWriter* createFrameWriter(Session* /*session*/) override { return nullptr; }
    [[nodiscard]] Session* makeCopy(Session* session) override {
        return new MemorySession(session->getName());
    }

    zel::Name renamed;
};

class JournalArchiveTest : public zelTest::FrameFixture {
protected:
    void TearDown() override {
        journal = nullptr;
        other = nullptr;
        FrameFixture::TearDown();
    }
    ref_ptr<MemoryJournal> journal{new MemoryJournal("journal")};
    ref_ptr<MemoryJournal> other{new MemoryJournal("other")};
};
using JournalArchiveDeathTest = JournalArchiveTest;

TEST_F(JournalArchiveTest, KnowsItsSessionsByName) {
    auto* b = journal->createNewSession("b");
    auto* a = journal->createNewSession("a");
    EXPECT_EQ(journal->createNewSession("a"), nullptr);
    EXPECT_EQ(journal->getNumSessions(), 2U);
    EXPECT_EQ(journal->getSession("b"), b);
    EXPECT_EQ(journal->getSession("c"), nullptr);
    const auto names = journal->listSessionNames();
    ASSERT_EQ(names.size(), 2U);
    EXPECT_EQ(names[0], "a");
    EXPECT_EQ(journal->getSessions()[1], b);
    EXPECT_TRUE(journal->isOwnerOf(a));
    EXPECT_EQ(a->getJournal(), journal.get());
    EXPECT_TRUE(a->rename("z"));
    EXPECT_EQ(journal->renamed, "z");
    const ref_ptr<JournalArchive::Session> keep(a);
    EXPECT_TRUE(journal->removeSession("a"));
    EXPECT_FALSE(journal->removeSession("a"));
    EXPECT_EQ(a->getJournal(), nullptr);
    EXPECT_FALSE(a->rename("y"));
    EXPECT_EQ(journal->getName(), "journal");
    journal->setPath("/p");
    EXPECT_EQ(journal->getPath(), "/p");
}

TEST_F(JournalArchiveTest, SessionsOutliveTheirJournal) {
    const ref_ptr<JournalArchive::Session> session(journal->createNewSession("a"));
    journal = nullptr;
    EXPECT_EQ(session->getJournal(), nullptr);
}

TEST_F(JournalArchiveTest, SessionsAreCopiedAndMoved) {
    auto* session = dynamic_cast<MemorySession*>(journal->createNewSession("a"));
    EXPECT_TRUE(session->copyTo(other.get()));
    EXPECT_NE(other->getSession("a"), nullptr);
    EXPECT_NE(other->getSession("a"), session);
    EXPECT_TRUE(other->removeSession("a"));
    const ref_ptr<MemorySession> keep(session);
    EXPECT_TRUE(session->transferTo(other.get()));
    EXPECT_EQ(session->numTransfers, 1);
    EXPECT_EQ(other->getSession("a"), session);
    EXPECT_EQ(session->getJournal(), other.get());
    EXPECT_EQ(journal->getNumSessions(), 0U);
}

TEST_F(JournalArchiveTest, WhatCannotBeCopiedOrMovedIsToldAndStays) {
    auto* session = journal->createNewSession("a");
    auto* taken = other->createNewSession("a");
    const zelTest::LogCapture log;
    EXPECT_FALSE(journal->copySession(session, other.get()));
    EXPECT_FALSE(journal->transferSession(session, other.get()));
    EXPECT_FALSE(journal->copySession(taken, other.get()));
    EXPECT_FALSE(journal->transferSession(taken, other.get()));
    for (const char* text : {"JournalArchive: Asked to copy a session into a journal that already has a "
                             "session with the same name.",
                             "JournalArchive: Asked to transfer a session into a journal that already has a "
                             "session with the same "
                             "name.",
                             "JournalArchive: Asked to copy a session that isn't part of the archive.",
                             "JournalArchive: Asked to transfer a session that isn't part of the archive."})
        EXPECT_NE(log.text().find(text), std::string::npos) << text;
    EXPECT_EQ(journal->getSession("a"), session);
    EXPECT_EQ(other->getSession("a"), taken);
}

TEST_F(JournalArchiveTest, ASessionBeginsWithWhatIsKnownOfTheMachine) {
    const ref_ptr<MemorySession> session(new MemorySession);
    EXPECT_TRUE(session->is64BitArchitecture());
    EXPECT_TRUE(session->isLittleEndian());
    EXPECT_TRUE(session->is64BitReal());
    EXPECT_EQ(session->getLastFrameIndex(), zel::uint64{zel::InvalidIndex});
    EXPECT_EQ(session->getNumFrames(), 0U);
    EXPECT_EQ(session->getFrameStride(), 1U);
    EXPECT_EQ(session->getZelVersionString(), zelCore::zelGetVersion(true));
    EXPECT_EQ(session->getZelVersionNumber(), zelCore::zelGetVersionNumber());
    EXPECT_GT(session->getDate().getSeconds(), 0);
    EXPECT_EQ(session->getFrameIO(), nullptr);
}

TEST_F(JournalArchiveTest, ExtraDataMayBeJson) {
    const ref_ptr<MemorySession> session(new MemorySession);
    Json::Value value;
    value["list"].append(3);
    session->recordExtraDataAsJSon("key", value);
    EXPECT_EQ(session->extra["key"], R"({"name":"key","value":{"list":[3]}})");
    Json::Value read;
    EXPECT_TRUE(session->retrieveExtraDataAsJSon("key", read));
    EXPECT_EQ(read, value);
    {
        const zelTest::CommaStreams comma;
        session->recordExtraData("real", R"({"value": 1.5})");
        EXPECT_TRUE(session->retrieveExtraDataAsJSon("real", read));
        EXPECT_EQ(read.asDouble(), 1.5);
    }
    EXPECT_FALSE(session->retrieveExtraDataAsJSon("other", read));
    const std::string deep(2000, '[');
    for (const char* text : {"no json", "[1]", "{}", deep.c_str()}) {
        session->recordExtraData("bad", text);
        EXPECT_FALSE(session->retrieveExtraDataAsJSon("bad", read)) << text;
    }
}

TEST_F(JournalArchiveTest, NamesOfSessionsTellTheTime) {
    EXPECT_TRUE(std::regex_match(
        static_cast<const std::string&>(JournalArchive::Session::generateNameFromCurrentDate()),
        std::regex("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d-\\d{6}")));
}

TEST_F(JournalArchiveDeathTest, TableAndSessionAgree) {
    auto* session = journal->createNewSession("a");
    const ref_ptr<JournalArchive::Session> impostor(new MemorySession("a"));
    EXPECT_FALSE(journal->isOwnerOf(impostor.get()));
    EXPECT_TRUE(other->registerSession(session));
    EXPECT_DEATH(
        (void)journal->isOwnerOf(session),
        "`inTable == isBackPointer', A session and a journal was not in agreement of who the owner of "
        "the session is.");
    EXPECT_TRUE(other->unregisterSession(session));
    EXPECT_DEATH((void)journal->isOwnerOf(session), "inTable == isBackPointer");
    // So that both end in order.
    EXPECT_TRUE(other->registerSession(session));
    EXPECT_TRUE(other->unregisterSession(session));
}

} // namespace
