#include "ArchiveFixture.h"

#include <stdexcept>

using fleet::Motor;
using fleet::Scripted;
using fleet::Vehicle;
using fleet::Wheel;
using testing::ElementsAre;
using zel::ref_ptr;
using zelStream::InputArchive;
using zelStream::Serializable;
using zelTest::ArchiveBytes;
using zelTest::archiveErrorOf;
using zelTest::Listening;
using zelTest::Opened;
using zelTest::uuidOf;

// Who is told of restored objects, and what the callbacks of an archive may do to it.

namespace {

class InputArchiveListenerTest : public zelTest::ArchiveFixture {
protected:
    /// Three objects of a class without data.
    static ArchiveBytes three() {
        ArchiveBytes bytes = start().newObject(1, 1, "fleet::Scripted").base(uuidOf(1));
        return bytes.newObject(2, 1).base(uuidOf(2)).newObject(3, 1).base(uuidOf(3));
    }
    ref_ptr<Listening> listen(InputArchive& archive, Listening::Function function) {
        ref_ptr<Listening> listener(new Listening(std::move(function)));
        archive.addRestoreListener(listener.get());
        return listener;
    }
    /// Notes its letter.
    ref_ptr<Listening> note(InputArchive& archive, char letter) {
        return listen(archive, [this, letter](Serializable*, InputArchive&) { m_notes += letter; });
    }
    std::string m_notes;
};

TEST_F(InputArchiveListenerTest, AreToldOfEachObjectBehindItsBody) {
    ArchiveBytes bytes = start().newObject(1, 1, "fleet::Vehicle").base(uuidOf(1)).text("v").null();
    bytes.newObject(2, 2, "fleet::Wheel").base(uuidOf(2)).scalar(0.5);
    bytes.byValue().base(uuidOf(3)).scalar(7).knownObject(2, 2);
    Opened archive(bytes);
    std::vector<std::string> seen;
    listen(*archive, [&](Serializable* object, InputArchive& from) {
        EXPECT_EQ(&from, &*archive);
        EXPECT_TRUE(object->isFinished());
        seen.emplace_back(object->getClassName());
        const auto* const wheel = dynamic_cast<Wheel*>(object);
        EXPECT_TRUE(wheel == nullptr || wheel->radius == 0.5);
    });
    EXPECT_NE(archive->readObjectByRef(), nullptr);
    EXPECT_THAT(seen, ElementsAre("fleet::Wheel", "fleet::Motor", "fleet::Vehicle"));
}

TEST_F(InputArchiveListenerTest, AreToldInTheOrderOfAddingAndOnceEach) {
    Opened archive(three());
    const auto first = note(*archive, 'a');
    note(*archive, 'b');
    archive->addRestoreListener(first.get());
    EXPECT_NE(archive->readObjectByRef(), nullptr);
    EXPECT_EQ(m_notes, "ab");
}

TEST_F(InputArchiveListenerTest, AreNotToldOfNullAndOfKnownObjects) {
    Opened archive(three().null().knownObject(1, 1));
    for (int i = 0; i < 3; ++i)
        EXPECT_NE(archive->readObjectByRef(), nullptr);
    note(*archive, 'a');
    EXPECT_EQ(archive->readObjectByRef(), nullptr);
    EXPECT_NE(archive->readObjectByRef(), nullptr);
    EXPECT_EQ(m_notes, "");
}

TEST_F(InputArchiveListenerTest, MayRemoveThemselves) {
    Opened archive(three());
    ref_ptr<Listening> self;
    self = listen(*archive, [&](Serializable*, InputArchive& from) {
        m_notes += 'a';
        from.removeRestoreListener(self.get());
        self = nullptr;
    });
    note(*archive, 'b');
    EXPECT_NE(archive->readObjectByRef(), nullptr);
    EXPECT_NE(archive->readObjectByRef(), nullptr);
    EXPECT_EQ(m_notes, "abb");
}

TEST_F(InputArchiveListenerTest, MayRemoveOthersAheadAndBehind) {
    Opened archive(three());
    ref_ptr<Listening> ahead = note(*archive, 'a');
    ref_ptr<Listening> behind;
    listen(*archive, [&](Serializable*, InputArchive& from) {
        m_notes += 'b';
        from.removeRestoreListener(ahead.get());
        from.removeRestoreListener(behind.get());
        ahead = nullptr;
        behind = nullptr;
    });
    behind = note(*archive, 'c');
    note(*archive, 'd');
    EXPECT_NE(archive->readObjectByRef(), nullptr);
    EXPECT_EQ(m_notes, "abd");
    EXPECT_NE(archive->readObjectByRef(), nullptr);
    EXPECT_EQ(m_notes, "abdbd");
}

TEST_F(InputArchiveListenerTest, MayBeAddedMeanwhile) {
    Opened archive(three());
    bool isAdded = false;
    listen(*archive, [&](Serializable*, InputArchive& from) {
        m_notes += 'a';
        if (!isAdded)
            note(from, 'b');
        isAdded = true;
    });
    EXPECT_NE(archive->readObjectByRef(), nullptr);
    EXPECT_NE(archive->readObjectByRef(), nullptr);
    EXPECT_EQ(m_notes.substr(m_notes.size() - 2), "ab");
    EXPECT_EQ(std::count(m_notes.begin(), m_notes.end(), 'a'), 2);
}

TEST_F(InputArchiveListenerTest, MayBeRemovedAndAddedAgainWithinACall) {
    Opened archive(three());
    const auto other = note(*archive, 'x');
    listen(*archive, [&](Serializable*, InputArchive& from) {
        from.removeRestoreListener(other.get());
        from.addRestoreListener(other.get());
    });
    EXPECT_NE(archive->readObjectByRef(), nullptr);
    m_notes.clear();
    EXPECT_NE(archive->readObjectByRef(), nullptr);
    EXPECT_EQ(std::count(m_notes.begin(), m_notes.end(), 'x'), 1);
}

TEST_F(InputArchiveListenerTest, AreHeldByTheArchive) {
    auto* const listener = new Listening([this](Serializable*, InputArchive&) { m_notes += 'a'; });
    Opened archive(three());
    archive->addRestoreListener(listener);
    EXPECT_EQ(listener->referenceCount(), 1);
    EXPECT_NE(archive->readObjectByRef(), nullptr);
    EXPECT_EQ(m_notes, "a");
    archive->removeRestoreListener(listener); // deletes it
    archive->removeRestoreListener(nullptr);
    EXPECT_NE(archive->readObjectByRef(), nullptr);
    EXPECT_EQ(m_notes, "a");
}

TEST_F(InputArchiveListenerTest, OneThatThrowsEndsTheReadAndTheArchiveGoesOn) {
    Opened archive(three());
    bool throws = true;
    listen(*archive, [&](Serializable*, InputArchive&) {
        if (std::exchange(throws, false))
            throw std::runtime_error("no ear");
    });
    const auto behind = note(*archive, 'b');
    EXPECT_EQ(zelTest::whatOf([&] { (void)archive->readObjectByRef(); }), "no ear");
    EXPECT_EQ(archive->getSectionStackString(), "Archive");
    EXPECT_FALSE(archive->hasFailed());
    archive->removeRestoreListener(behind.get());
    EXPECT_NE(archive->readObjectByRef(), nullptr);
    EXPECT_NE(archive->readObjectByRef(), nullptr);
    EXPECT_EQ(m_notes, "");
    archive->close();
    EXPECT_EQ(Scripted::s_numLiving, 0);
}

TEST_F(InputArchiveListenerTest, MayRemoveTheObject) {
    Opened archive(three().knownObject(1, 1));
    listen(*archive, [](Serializable* object, InputArchive& from) { from.removeObject(object); });
    EXPECT_EQ(archive->readObjectByRef(), nullptr); // it is gone
    EXPECT_EQ(Scripted::s_numLiving, 0);
    EXPECT_EQ(archive->readObjectByRef(), nullptr);
    EXPECT_EQ(archive->readObjectByRef(), nullptr);
    EXPECT_EQ(archiveErrorOf([&] { (void)archive->readObjectByRef(); }),
              "Current scope: 'Archive/Object'. During restore an object was referenced of type "
              "(fleet::Scripted) that has been deleted (id: 1)");
}

TEST_F(InputArchiveListenerTest, MayTakeTheObjectAndRemoveIt) {
    Opened archive(three());
    std::vector<ref_ptr<Serializable>> taken;
    listen(*archive, [&](Serializable* object, InputArchive& from) {
        taken.emplace_back(object);
        from.removeObject(object);
    });
    const Serializable* const object = archive->readObjectByRef();
    ASSERT_EQ(taken.size(), 1U);
    EXPECT_EQ(object, taken.front().get());
    EXPECT_EQ(taken.front()->referenceCount(), 1);
    EXPECT_EQ(Scripted::s_numLiving, 1);
}

TEST_F(InputArchiveListenerTest, MayRemoveAnObjectThatIsStillBeingRestored) {
    Scripted* outer = nullptr;
    Scripted::s_restore = [&](Scripted& object, InputArchive& archive) {
        if (outer != nullptr)
            return;
        outer = &object;
        EXPECT_NE(archive.readObjectByRef(), nullptr);
        EXPECT_EQ(object.getUuid(), uuidOf(1)); // still there
    };
    Opened archive(three());
    listen(*archive, [&](Serializable* object, InputArchive& from) {
        if (object != outer)
            from.removeObject(outer);
    });
    EXPECT_EQ(archive->readObjectByRef(), nullptr);
    EXPECT_EQ(Scripted::s_numLiving, 1);
}

TEST_F(InputArchiveListenerTest, SetFinishedTellsThemToo) {
    Opened archive(start());
    Serializable* told = nullptr;
    listen(*archive, [&](Serializable* object, InputArchive&) { told = object; });
    Wheel wheel;
    archive->setFinished(&wheel);
    EXPECT_TRUE(wheel.isFinished());
    EXPECT_EQ(told, &wheel);
}

// What restore may do.

TEST_F(InputArchiveListenerTest, AnObjectMayCatchWhatItsPartsThrowAndGoOn) {
    Scripted::s_restore = [](Scripted& object, InputArchive& archive) {
        if (object.getUuid() == uuidOf(2))
            throw std::runtime_error("part");
        EXPECT_EQ(zelTest::whatOf([&] { (void)archive.readObjectByRef(); }), "part");
    };
    ArchiveBytes bytes = start().newObject(1, 1, "fleet::Scripted").base(uuidOf(1));
    bytes.newObject(2, 1).base(uuidOf(2)).scalar(7);
    Opened archive(bytes);
    EXPECT_NE(archive->readObjectByRef(), nullptr);
    int value = 0;
    archive->read(value);
    EXPECT_EQ(value, 7);
    EXPECT_FALSE(archive->hasFailed());
}

TEST_F(InputArchiveListenerTest, AnObjectMayReadAnotherArchiveMeanwhile) {
    const std::string other = start().newObject(1, 1, "fleet::Wheel").base(uuidOf(9)).scalar(2.5).bytes();
    ref_ptr<Wheel> wheel;
    Scripted::s_restore = [&](Scripted&, InputArchive&) { Opened(other)->read(wheel); };
    Opened archive(three());
    for (int i = 0; i < 3; ++i)
        EXPECT_NE(archive->readObjectByRef(), nullptr);
    EXPECT_EQ(wheel->radius, 2.5);
    EXPECT_EQ(wheel->getArchive(), nullptr);
}

TEST_F(InputArchiveListenerTest, AnObjectMayCloseItsArchive) {
    Scripted::s_restore = [](Scripted&, InputArchive& archive) { archive.close(); };
    Opened archive(three());
    const std::string error = archiveErrorOf([&] { (void)archive->readObjectByRef(); });
    EXPECT_FALSE(archive->isOpen());
    EXPECT_NE(archiveErrorOf([&] { (void)archive->readObjectByRef(); }), "no exception") << error;
    EXPECT_EQ(Scripted::s_numLiving, 0);
}

} // namespace
