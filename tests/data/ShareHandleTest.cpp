#include <zel/CpuDevice.h>
#include <zel/observer_ptr.h>
#include <zelData/Buffer.h>
#include <zelData/Format.h>
#include <zelData/ShareHandle.h>
#include <zelData/Type.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/MemoryDevice.h>

#include <string>
#include <vector>

using testing::ElementsAre;
using zel::ref_ptr;
using zelData::Buffer;
using zelData::ShareHandle;
using zelTest::MemoryDevice;

namespace {

class ShareHandleTest : public testing::Test {
protected:
    static ref_ptr<Buffer> make(const char* name, zel::Device* device) {
        ref_ptr<Buffer> buffer(new Buffer(name, zelData::getFormat("Real")));
        buffer->setDevice(device);
        return buffer;
    }
    void registerBridge(zel::Device* from, zel::Device* to) {
        ShareHandle::registerBridge(
            {from->getType(), to->getType()},
            [this](Buffer* target, Buffer* source) {
                m_log.push_back(source->getName() + " to " + target->getName().str());
            },
            [this](Buffer* a, Buffer* b) {
                m_log.push_back("init " + a->getName() + " " + b->getName().str());
            });
    }

    ref_ptr<MemoryDevice> m_device{new MemoryDevice};
    zel::Device* m_cpu = zel::CpuDevice::instance();
    ref_ptr<Buffer> m_here = make("here", m_cpu);
    ref_ptr<Buffer> m_there = make("there", m_device.get());
    std::vector<std::string> m_log;
};
using ShareHandleDeathTest = ShareHandleTest;

} // namespace

TEST_F(ShareHandleTest, LinksBuffers) {
    zel::observer_ptr<ShareHandle> handle(ShareHandle::create(m_here.get(), m_there.get()));
    EXPECT_EQ(handle->referenceCount(), 2);
    EXPECT_EQ(m_here->getShareHandle(), handle.get());
    EXPECT_EQ(m_there->getShareHandle(), handle.get());
    EXPECT_EQ(handle->getActiveBuffer(), m_here.get());
    EXPECT_THAT(handle->getBuffers(), ElementsAre(m_here.get(), m_there.get()));
    handle->removeBuffer(m_here.get());
    EXPECT_EQ(m_here->getShareHandle(), nullptr);
    EXPECT_EQ(handle->getActiveBuffer(), nullptr);
    handle->removeBuffer(m_here.get()); // which it has no more
    m_there = nullptr;
    EXPECT_EQ(handle.get(), nullptr);
}

TEST_F(ShareHandleTest, BringsTheContentToTheActiveBuffer) {
    registerBridge(m_cpu, m_device.get());
    registerBridge(m_device.get(), m_cpu);
    EXPECT_TRUE(ShareHandle::hasBridge(m_cpu, m_device.get()));
    EXPECT_FALSE(ShareHandle::hasBridge(m_cpu, m_cpu));
    ShareHandle* handle = ShareHandle::create(m_here.get(), m_there.get());
    handle->activate(m_here.get());
    EXPECT_TRUE(m_log.empty());
    handle->activate(m_there.get());
    EXPECT_EQ(handle->getActiveBuffer(), m_there.get());
    handle->activate(m_there.get());
    handle->activate(m_here.get());
    EXPECT_THAT(m_log, ElementsAre("here to there", "there to here"));
}

TEST_F(ShareHandleTest, PreparesEachPairAnew) {
    registerBridge(m_cpu, m_device.get());
    ShareHandle* handle = ShareHandle::create(m_here.get(), m_there.get());
    const ref_ptr<Buffer> third = make("third", m_device.get());
    handle->addBuffer(third.get());
    handle->reinit();
    EXPECT_THAT(m_log, ElementsAre("init here there", "init here third"));
}

TEST_F(ShareHandleTest, ActivatesWithoutATransferWhereNobodyIsActive) {
    ShareHandle* handle = ShareHandle::create(m_here.get(), m_there.get());
    const ref_ptr<Buffer> third = make("third", m_device.get());
    handle->addBuffer(third.get());
    handle->removeBuffer(m_here.get());
    handle->activate(third.get());
    EXPECT_EQ(handle->getActiveBuffer(), third.get());
}

TEST_F(ShareHandleDeathTest, NeedsABridge) {
    ShareHandle* handle = ShareHandle::create(m_here.get(), m_there.get());
    EXPECT_DEATH(handle->activate(m_there.get()),
                 "there: There is no bridge from a device of type 'CPU' to one of type 'Memory'");
    const ref_ptr<Buffer> third = make("third", m_device.get());
    EXPECT_DEATH(handle->activate(third.get()), "third: The buffer does not belong to the share handle");
    EXPECT_DEATH(handle->addBuffer(m_here.get()), "here: The buffer belongs to a share handle already");
}
