#include "CountCommits.h"
#include "ParameterFixture.h"

#include <zel/ArrayParameter.h>
#include <zel/GlobalResultBuffer.h>

using testing::HasSubstr;
using zel::ArrayParameter;
using zel::Object;
using zel::Parameter;
using zel::ref_ptr;
using zelData::Buffer;
using zelData::getFormat;
using zelTest::CountCommits;
using zelTest::ParameterEvents;

namespace {

constexpr zel::uint32 Written = zelData::AccessMode::READ_WRITE;

class ArrayParameterTest : public zelTest::ParameterFixture {
protected:
    ArrayParameter* make(const char* name, zel::uint32 mode = zelData::AccessMode::READ) {
        return add(new ArrayParameter(name, getFormat("Real:64bit"), mode)).get();
    }
};
using ArrayParameterDeathTest = ArrayParameterTest;

} // namespace

TEST_F(ArrayParameterTest, TakesABuffer) {
    Buffer* buffer = putBuffer("b");
    buffer->resize(3);
    ArrayParameter* parameter = make("p");
    EXPECT_FALSE(parameter->isValid());
    EXPECT_FALSE(parameter->needsUpdate());
    const ParameterEvents events(parameter);
    parameter->bind(buffer);
    EXPECT_TRUE(parameter->isValid());
    EXPECT_TRUE(parameter->needsUpdate());
    EXPECT_FALSE(parameter->needsCommit());
    EXPECT_EQ(parameter->getBuffer(), buffer);
    EXPECT_EQ(parameter->getArray().size(), 3U);
    EXPECT_EQ(parameter->getArray().ptr(), buffer->getPtr());
    EXPECT_EQ(events.bound, 1);
    parameter->unbind();
    EXPECT_FALSE(parameter->isValid());
    EXPECT_EQ(parameter->getArray().ptr(), nullptr);
}

TEST_F(ArrayParameterTest, TypeMeansItsDefaultFormatAndNullAny) {
    const auto typed = add(new ArrayParameter("t", zelData::getType("Real")));
    EXPECT_EQ(typed->getFormat(), getFormat("Real:64bit"));
    EXPECT_EQ(typed->getType(), zelData::getType("Real"));
    const auto open = add(new ArrayParameter("o", static_cast<const zelData::Format*>(nullptr)));
    EXPECT_EQ(open->getType(), nullptr);
    open->bind(putBuffer("names", "String"));
    EXPECT_EQ(open->getType(), zelData::getType("String"));
}

TEST_F(ArrayParameterTest, UpdateReadsThePointerAnew) {
    Buffer* buffer = putBuffer("b");
    buffer->resize(1);
    ArrayParameter* parameter = make("p");
    parameter->bind(buffer);
    buffer->resize(10'000);
    parameter->update();
    EXPECT_EQ(parameter->getArray().ptr(), buffer->getPtr());
    EXPECT_EQ(parameter->getArray().size(), 10'000U);
}

TEST_F(ArrayParameterTest, CommitAnnouncesAWrittenBuffer) {
    Buffer* buffer = putBuffer("b");
    CountCommits listener;
    buffer->addListener(&listener);
    ArrayParameter* reader = make("r");
    reader->bind(buffer);
    reader->commit();
    EXPECT_EQ(listener.count, 0);
    ArrayParameter* writer = make("w", Written);
    writer->bind(buffer);
    EXPECT_TRUE(writer->needsCommit());
    writer->commit();
    EXPECT_EQ(listener.count, 1);
    buffer->removeListener(&listener);
}

TEST_F(ArrayParameterTest, FollowsTheBufferOfAnotherParameter) {
    ArrayParameter* parent = make("parent");
    ArrayParameter* child = make("child");
    ArrayParameter* grandchild = make("grandchild");
    child->bind(parent);
    grandchild->bind(child);
    EXPECT_FALSE(child->isValid());
    Buffer* first = putBuffer("first");
    Buffer* second = putBuffer("second");
    parent->bind(first);
    EXPECT_EQ(child->getBuffer(), first);
    EXPECT_EQ(grandchild->getBuffer(), first);
    parent->bind(second);
    EXPECT_EQ(child->getBuffer(), second);
    EXPECT_EQ(grandchild->getBuffer(), second);
    parent->unbind();
    EXPECT_EQ(child->getBuffer(), nullptr);
    EXPECT_EQ(grandchild->getBuffer(), nullptr);
    child->unbind();
    parent->bind(first);
    EXPECT_EQ(child->getBuffer(), nullptr);
    EXPECT_EQ(parent->bindEvent.size(), 0U);
    EXPECT_EQ(parent->unbindEvent.size(), 0U);
}

TEST_F(ArrayParameterTest, KeepsItsBufferAlive) {
    ArrayParameter* parameter = make("p");
    parameter->bind(new Buffer("b", getFormat("Real:64bit")));
    EXPECT_EQ(parameter->getBuffer()->referenceCount(), 2);
}

TEST_F(ArrayParameterTest, BufferOfTheConstructorIsBoundOnceThereIsATask) {
    const ref_ptr<Buffer> buffer(new Buffer("b", getFormat("Real:64bit")));
    const ref_ptr<ArrayParameter> parameter(
        new ArrayParameter("p", getFormat("Real:64bit"), zelData::AccessMode::READ, buffer.get()));
    parameter->rebind();
    EXPECT_EQ(parameter->getBuffer(), nullptr);
    parameter->setTask(task.get(), 0);
    task->addObject(parameter.get());
    EXPECT_EQ(parameter->getBuffer(), buffer.get());
    parameter->unbind();
    parameter->rebind();
    EXPECT_EQ(parameter->getBuffer(), nullptr);
    const auto typed =
        add(new ArrayParameter("t", zelData::getType("Real"), zelData::AccessMode::READ, buffer.get()));
    EXPECT_EQ(typed->getBuffer(), buffer.get());
}

TEST_F(ArrayParameterTest, GlobalResultNeedsABufferAndAMode) {
    ArrayParameter* parameter = make("p", Written);
    parameter->setGlobalResultMode(zel::GlobalResult::APPEND);
    EXPECT_FALSE(parameter->hasGlobalResult());
    Buffer* buffer = putBuffer("b");
    parameter->bind(buffer);
    ASSERT_TRUE(parameter->hasGlobalResult());
    EXPECT_EQ(parameter->getGlobalResult()->getTarget(), buffer);
    EXPECT_EQ(parameter->getGlobalResult()->getSettings(), zel::GlobalResult::APPEND);
    parameter->setGlobalResultMode(0);
    EXPECT_FALSE(parameter->hasGlobalResult());
    parameter->setGlobalResultMode(zel::GlobalResult::TRUNCATE);
    EXPECT_TRUE(parameter->hasGlobalResult());
    parameter->unbind();
    EXPECT_FALSE(parameter->hasGlobalResult());
}

TEST_F(ArrayParameterTest, LoadsFromXml) {
    const auto parameter = add(ArrayParameter::load(
        parse("<Parameter.Array name='p' type='Real:32bit' mode='WRITE' localSize='16'/>"), nullptr));
    EXPECT_EQ(parameter->getFormat(), getFormat("Real:32bit"));
    EXPECT_EQ(parameter->getAccessMode(), zelData::AccessMode::WRITE);
    EXPECT_EQ(parameter->getLocalSize(), 16U);
    EXPECT_EQ(parameter->getMetaType(), Parameter::MetaType::Array);
}

TEST_F(ArrayParameterTest, XmlRefusesAFormat) {
    EXPECT_THAT(failure<ArrayParameter>("<Parameter.Array name='p' type='Real' format='32bit'/>"),
                HasSubstr("] XML error: Use type instead. Error at row 2"));
    EXPECT_THAT(failure<ArrayParameter>("<Parameter.Array name='p' localSize='-1'/>"),
                HasSubstr("Unable to parse attribute localSize"));
}

TEST_F(ArrayParameterDeathTest, BufferNeedsATask) {
    const ref_ptr<ArrayParameter> parameter(new ArrayParameter("p", getFormat("Real")));
    const ref_ptr<Buffer> buffer(new Buffer("b", getFormat("Real")));
    EXPECT_DEATH(parameter->setBuffer(buffer.get()), "zelVerify failed: `this->getTask\\(\\)'");
}

TEST_F(ArrayParameterDeathTest, MisfitNamesBothFormats) {
    ArrayParameter* parameter = make("p");
    Buffer* buffer = putBuffer("b", "Real:32bit");
    EXPECT_DEATH(parameter->bind(buffer),
                 "zelVerify failed: `buffer->getFormat\\(\\)->is\\(m_format\\)'.*top.task.p: Can not bind "
                 "parameter of type Real:64bit to buffer top.b of type Real:32bit");
    EXPECT_DEATH(parameter->bind(top.get()),
                 "top.task.p: Can not bind an array parameter to 'top', which is no buffer");
}

TEST_F(ArrayParameterDeathTest, GlobalResultOfAReaderEndsTheProcess) {
    ArrayParameter* parameter = make("p");
    parameter->bind(putBuffer("b"));
    EXPECT_DEATH(parameter->setGlobalResultMode(zel::GlobalResult::APPEND),
                 "top.task.p: A parameter that is only read can have no global result");
}
