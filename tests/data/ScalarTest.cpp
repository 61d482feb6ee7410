#include <zelData/Format.h>
#include <zelData/Scalar.h>
#include <zelData/Type.h>
#include <zelData/Value.h>
#include <zelData/ValueT.h>

#include <gtest/gtest.h>

#include <string>

using zel::ref_ptr;
using zelData::Scalar;
using zelData::Value;
using zelData::ValueT;

TEST(ScalarTest, ViewsTheElementOfAValue) {
    const ref_ptr<ValueT<double>> value(new ValueT<double>("v", 2));
    const Scalar<double> scalar(value.get());
    EXPECT_EQ(scalar.value(), value.get());
    EXPECT_FALSE(scalar.empty());
    EXPECT_EQ(*scalar, 2.0);
    value->set(3);
    EXPECT_EQ(*scalar, 3.0);
    *scalar = 4;
    EXPECT_EQ(value->get(), 4.0);
}

TEST(ScalarTest, FindsTheElementAgainAfterItHasMoved) {
    const ref_ptr<ValueT<double>> value(new ValueT<double>("v", 2));
    const ref_ptr<ValueT<double>> other(new ValueT<double>("w", 5));
    Scalar<const double> scalar(value.get());
    value->bind(other.get());
    scalar.sync();
    EXPECT_EQ(scalar.data(), other->getData());
    EXPECT_EQ(*scalar, 5.0);
}

TEST(ScalarTest, ViewsOtherMemoryAndNothing) {
    std::string text = "text";
    Scalar<std::string> scalar(text);
    EXPECT_EQ(scalar->size(), 4U);
    EXPECT_EQ(scalar.value(), nullptr);
    scalar.sync();
    EXPECT_EQ(scalar.data(), &text);
    scalar.bind(nullptr);
    EXPECT_TRUE(scalar.empty());
    EXPECT_TRUE(Scalar<int>().empty());
    const ref_ptr<Value> untyped(new Value("u", static_cast<const zelData::Format*>(nullptr)));
    EXPECT_TRUE(Scalar<double>(untyped.get()).empty());
}
