#include <zelStream/ClassInformation.h>

#include <gtest/gtest.h>

using zelStream::ClassInformation;

namespace shipyard {
namespace {

struct Crane {
    static zel::String text() { return __PRETTY_FUNCTION__; }
    const Crane& reference(const std::string& /*name*/) const { // NOLINT: its text matters
        prettyText = __PRETTY_FUNCTION__;
        return *this;
    }
    bool operator<(const Crane& /*other*/) const {
        prettyText = __PRETTY_FUNCTION__;
        return false;
    }
    void operator()(int /*load*/) const { prettyText = __PRETTY_FUNCTION__; }
    explicit operator double() const {
        prettyText = __PRETTY_FUNCTION__;
        return 0;
    }
    Crane() = default;
    explicit Crane(int /*load*/) : prettyText(__PRETTY_FUNCTION__) {}

    mutable zel::String prettyText;
};

template <typename T>
struct Dock {
    static zel::String text(const T& /*ship*/) { return __PRETTY_FUNCTION__; }
};

zel::String freeFunction() {
    return __PRETTY_FUNCTION__;
}

void expectParts(const zel::String& text,
                 const zel::String& space,
                 const zel::String& type,
                 const zel::String& function) {
    const ClassInformation information(text);
    EXPECT_EQ(information.getNamespace(), space) << text;
    EXPECT_EQ(information.getClassName(), type) << text;
    EXPECT_EQ(information.getFunctionName(), function) << text;
    EXPECT_EQ(information.getClassType(), space.empty() ? type : zel::String(space + "::" + type)) << text;
}

} // namespace
} // namespace shipyard

using namespace shipyard;

TEST(ClassInformationTest, ATextHasNamespaceClassAndFunction) {
    expectParts("void fleet::Wheel::roll(double)", "fleet", "Wheel", "roll");
    expectParts("virtual void fleet::rail::Wagon::stop() const", "fleet::rail", "Wagon", "stop");
    expectParts("fleet::Wheel::~Wheel()", "fleet", "Wheel", "~Wheel");
}

TEST(ClassInformationTest, AClassNeedNotHaveANamespace) {
    expectParts("void Wheel::roll()", "", "Wheel", "roll");
    expectParts("std::string Wheel::name()", "", "Wheel", "name");
}

TEST(ClassInformationTest, AFunctionNeedNotHaveAClass) {
    expectParts("int main()", "", "", "main");
    expectParts("main", "", "", "main");
    expectParts("", "", "", "");
}

TEST(ClassInformationTest, ArgumentsAndReturnTypesAreNotLookedAt) {
    expectParts("std::pair<a::B, c::D> fleet::Wheel::split(const std::vector<e::F>&, int (*)(g::H)) const",
                "fleet",
                "Wheel",
                "split");
    expectParts("const fleet::Axle &fleet::Wheel::axle()", "fleet", "Wheel", "axle");
    expectParts("fleet::Axle **fleet::Wheel::axles()", "fleet", "Wheel", "axles");
}

TEST(ClassInformationTest, TemplateArgumentsBelongToTheirName) {
    expectParts("void fleet::Box<a::B, c::D<unsigned int> >::put(T) [with T = x::Y]",
                "fleet",
                "Box<a::B, c::D<unsigned int> >",
                "put");
    expectParts("void fleet::Wheel::roll<a::B>(T)", "fleet", "Wheel", "roll<a::B>");
}

TEST(ClassInformationTest, OperatorsAreFunctions) {
    expectParts("bool fleet::Wheel::operator<(const fleet::Wheel&) const", "fleet", "Wheel", "operator<");
    expectParts("void fleet::Wheel::operator()(int)", "fleet", "Wheel", "operator()");
    expectParts("fleet::Axle* fleet::Wheel::operator->()", "fleet", "Wheel", "operator->");
    expectParts("fleet::Wheel::operator unsigned int() const", "fleet", "Wheel", "operator unsigned int");
    expectParts("void fleet::operatorRoom::enter()", "fleet", "operatorRoom", "enter");
}

TEST(ClassInformationTest, MarksOfUnnamedNamespacesAreDropped) {
    EXPECT_EQ(ClassInformation::cleanupAnonymousNamespace("void (anonymous namespace)::Wheel::roll()"),
              "void Wheel::roll()");
    EXPECT_EQ(
        ClassInformation::cleanupAnonymousNamespace("void fleet::{anonymous}::Wheel::roll({anonymous}::A)"),
        "void fleet::Wheel::roll(A)");
    EXPECT_EQ(ClassInformation::cleanupAnonymousNamespace("fleet::<unnamed>::Wheel"), "fleet::Wheel");
    EXPECT_EQ(ClassInformation::cleanupAnonymousNamespace("fleet::Wheel"), "fleet::Wheel");
    expectParts("void fleet::(anonymous namespace)::Wheel::roll()", "fleet", "Wheel", "roll");
}

TEST(ClassInformationTest, WhatThisCompilerWritesIsUnderstood) {
    expectParts(Crane::text(), "shipyard", "Crane", "text");
    Crane crane;
    expectParts(crane.reference("").prettyText, "shipyard", "Crane", "reference");
    (void)(crane < crane);
    expectParts(crane.prettyText, "shipyard", "Crane", "operator<");
    crane(1);
    expectParts(crane.prettyText, "shipyard", "Crane", "operator()");
    (void)static_cast<double>(crane);
    expectParts(crane.prettyText, "shipyard", "Crane", "operator double");
    expectParts(Crane(1).prettyText, "shipyard", "Crane", "Crane");
    expectParts(freeFunction(), "", "shipyard", "freeFunction");
    const ClassInformation dock(Dock<Crane>::text(crane));
    EXPECT_EQ(dock.getNamespace(), "shipyard");
    EXPECT_EQ(dock.getClassName().substr(0, 5), "Dock<");
    EXPECT_EQ(dock.getFunctionName(), "text");
}
