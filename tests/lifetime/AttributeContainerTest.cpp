#include <zel/Referenced.h>
#include <zel/Thread.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/AttributeContainer.h>

#include <gtest/gtest.h>

namespace {

/// The container looks at the addresses of attributes only.
const zelData::Attribute* attribute(size_t index) {
    static const char places[8] = {};
    return reinterpret_cast<const zelData::Attribute*>(places + index);
}

class AttributeContainerTest : public ::testing::Test {
protected:
    AttributeContainerTest() { zelCore::init(); }
    ~AttributeContainerTest() override { zelCore::shutdown(); }

    /// Threads are containers.
    static zelData::AttributeContainer& container() { return *zel::Thread::getCurrentThread(); }
};

TEST_F(AttributeContainerTest, KeepsAnObjectForEachAttribute) {
    const zel::ref_ptr<zel::Referenced> a(new zel::Referenced);
    const zel::ref_ptr<zel::Referenced> b(new zel::Referenced);
    container().getAttribute(attribute(0)) = a;
    container().getAttribute(attribute(1)) = b;
    EXPECT_EQ(container().getAttribute(attribute(0)), a);
    EXPECT_EQ(container().getAttribute(attribute(1)), b);
    EXPECT_EQ(a->referenceCount(), 2);
}

TEST_F(AttributeContainerTest, HasNothingUntilSomethingIsStored) {
    EXPECT_FALSE(container().hasAttribute(attribute(2)));
    EXPECT_FALSE(container().getAttribute(attribute(2)));
    EXPECT_FALSE(container().hasAttribute(attribute(2)));
    container().getAttribute(attribute(2)) = new zel::Referenced;
    EXPECT_TRUE(container().hasAttribute(attribute(2)));
    EXPECT_FALSE(container().hasAttribute(attribute(3)));
}

} // namespace
