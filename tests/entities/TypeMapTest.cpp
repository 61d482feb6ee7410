#include <zel/Vec.h>
#include <zel/Vector.h>
#include <zelCore/zelCore.h>
#include <zelData/Array.h>
#include <zelData/Scalar.h>
#include <zelData/TypeMap.h>
#include <zelIO/Environment.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/LogCapture.h>
#include <support/TempDirectory.h>
#include <tinyxml.h>

#include <fstream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;
using zelData::getIncludePrefix;
using zelData::getTypeImplementationName;

namespace {

class TypeMapTest : public ::testing::Test {
protected:
    TypeMapTest() {
        zelCore::init();
        auto& path = zelIO::Environment::instance()->getFilePath(zelIO::Environment::ResourcePath);
        path.clear();
        path.pushbackPath(m_directory.path());
    }
    ~TypeMapTest() override { zelCore::shutdown(); }

    void write(const std::string& name, const std::string& content) {
        std::ofstream(m_directory.path() + "/" + name) << content;
    }
    void writeTypeMap() {
        write("TypeMap.xml",
              "<TypeMap>"
              "<Type name='Vec3' implementation='zel::Vec3d' include='zel/Vec.h' abstract='false'/>"
              "<Type name='Real' implementation='double' include='zel/Integers.h'/>"
              "<Other name='Int'/>"
              "</TypeMap>");
    }
    std::string resolve(const std::string& name, const TiXmlElement* element = nullptr) {
        return getTypeImplementationName(name, element, m_includes);
    }
    std::vector<std::string> includes() { return {m_includes.begin(), m_includes.end()}; }
    static std::string errorOf(const std::string& name) {
        try {
            static_cast<void>(getTypeImplementationName(name));
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "";
    }

    zelTest::TempDirectory m_directory;
    zel::SetVector<zel::String> m_includes;
};

} // namespace

TEST_F(TypeMapTest, AVectorOfATypeNeedsBothHeaders) {
    writeTypeMap();
    EXPECT_EQ(resolve("Vector<Vec3>"), "zel::Vector< zel::Vec3d >");
    EXPECT_THAT(includes(), ElementsAre("zel/Vec.h", "zel/Vector.h"));
}

TEST_F(TypeMapTest, ASecondLookUpAddsNothing) {
    writeTypeMap();
    static_cast<void>(resolve("Vector<Vec3>"));
    static_cast<void>(resolve("Vector<Vec3>"));
    EXPECT_EQ(includes().size(), 2U);
    EXPECT_EQ(resolve("Real"), "double");
    EXPECT_THAT(includes(), ElementsAre("zel/Vec.h", "zel/Vector.h", "zel/Integers.h"));
}

TEST_F(TypeMapTest, ArraysAndScalarsAreTypedOrUntyped) {
    writeTypeMap();
    EXPECT_EQ(resolve("Array<Real>"), "zelData::Array< double >");
    EXPECT_EQ(resolve("Array"), "zelData::AbstractArray");
    EXPECT_EQ(resolve("Scalar<Vector<Real>>"), "zelData::Scalar< zel::Vector< double > >");
    EXPECT_EQ(resolve("Scalar"), "zelData::AbstractScalar");
    EXPECT_THAT(includes(),
                ElementsAre("zel/Integers.h", "zelData/Array.h", "zel/Vector.h", "zelData/Scalar.h"));
}

namespace {

/// What generated code makes of an attribute's type.
template <typename T>
struct Generated {
    T member{};
};

} // namespace

/// Compiles the class, and compares its name with what the type resolves to.
#define EXPECT_GENERATES(type, ...)                                                                          \
    do {                                                                                                     \
        EXPECT_EQ(resolve(type), #__VA_ARGS__);                                                              \
        static_assert(std::is_copy_constructible_v<Generated<__VA_ARGS__>>);                                 \
        static_cast<void>(Generated<__VA_ARGS__>());                                                         \
    } while (false)

TEST_F(TypeMapTest, WhatIsGeneratedCompiles) {
    writeTypeMap();
    // The blanks are part of the names.
    // clang-format off
    EXPECT_GENERATES("Real", double);
    EXPECT_GENERATES("Vec3", zel::Vec3d);
    EXPECT_GENERATES("Vector<Real>", zel::Vector< double >);
    EXPECT_GENERATES("Array<Vec3>", zelData::Array< zel::Vec3d >);
    EXPECT_GENERATES("Array", zelData::AbstractArray);
    EXPECT_GENERATES("Scalar<Real>", zelData::Scalar< double >);
    EXPECT_GENERATES("Scalar<Vector<Real>>", zelData::Scalar< zel::Vector< double > >);
    EXPECT_GENERATES("Scalar", zelData::AbstractScalar);
    // clang-format on
}

TEST_F(TypeMapTest, AnUnknownNameNamesTheFile) {
    writeTypeMap();
    EXPECT_EQ(errorOf("Vec7"), "No registered type with name 'Vec7' (Add entry to 'TypeMap.xml')\n");
    EXPECT_EQ(errorOf("Vector<Vec7>"), "No registered type with name 'Vec7' (Add entry to 'TypeMap.xml')\n");
    EXPECT_EQ(errorOf("Int"), "No registered type with name 'Int' (Add entry to 'TypeMap.xml')\n");
    EXPECT_EQ(errorOf("Vector"), "No registered type with name 'Vector' (Add entry to 'TypeMap.xml')\n");
    EXPECT_EQ(errorOf(""), "No registered type with name '' (Add entry to 'TypeMap.xml')\n");
}

TEST_F(TypeMapTest, WrongFormsOfContainersAreErrors) {
    writeTypeMap();
    EXPECT_EQ(errorOf("Vector<Real"), "Invalid Vector<T> type declaration");
    EXPECT_EQ(errorOf("Array<"), "Invalid Array<T> type declaration");
    EXPECT_EQ(errorOf("Scalar<Array<Real>x"), "Invalid Scalar<T> type declaration");
    std::string deep;
    for (int i = 0; i < 100'000; ++i)
        deep += "Vector<";
    EXPECT_NE(errorOf(deep + std::string(100'000, '>')), "");
}

TEST_F(TypeMapTest, AnElementGivesRowAndFile) {
    writeTypeMap();
    TiXmlDocument document("model.xml");
    document.Parse("<a>\n  <b/>\n</a>");
    try {
        static_cast<void>(resolve("Vec7", document.RootElement()->FirstChildElement()));
        FAIL() << "nothing was thrown";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(
            error.what(),
            HasSubstr("XML error: No registered type with name 'Vec7' (Add entry to 'TypeMap.xml')\n"));
        EXPECT_THAT(error.what(), HasSubstr("Error at row 2"));
        EXPECT_THAT(error.what(), HasSubstr("File: model.xml"));
    }
}

TEST_F(TypeMapTest, AQualifiedNameIsKeptAndNamesItsHeader) {
    EXPECT_EQ(resolve("mine::deep::Class"), "mine::deep::Class");
    EXPECT_THAT(includes(), ElementsAre("mine/deep/Class.h"));
}

TEST_F(TypeMapTest, TheDirectoryOfTheElementGivesThePrefix) {
    TiXmlDocument document((m_directory.path() + "/model.xml").c_str());
    document.Parse("<a/>");
    EXPECT_EQ(resolve("mine::Plain", document.RootElement()), "mine::Plain");
    write("includePrefix.xml", "<Include prefix='project/'/>");
    EXPECT_EQ(resolve("mine::Class", document.RootElement()), "mine::Class");
    EXPECT_THAT(includes(), ElementsAre("mine/Plain.h", "project/mine/Class.h"));
    EXPECT_EQ(getIncludePrefix(document.RootElement()), "project/");
    EXPECT_EQ(getIncludePrefix(m_directory.path() + "/other.xml"), "project/");
}

TEST_F(TypeMapTest, AMissingMapIsAWarningAndEmptyFromThenOn) {
    zelTest::LogCapture log;
    EXPECT_EQ(errorOf("Real"), "No registered type with name 'Real' (Add entry to 'TypeMap.xml')\n");
    ASSERT_GE(log.texts().size(), 1U);
    EXPECT_THAT(log.text(),
                HasSubstr("TypeMap: Could not load TypeMap.xml (full file path: ''). Error on row 0: "));
    writeTypeMap();
    EXPECT_EQ(errorOf("Real"), "No registered type with name 'Real' (Add entry to 'TypeMap.xml')\n");
}

TEST_F(TypeMapTest, ABrokenMapNamesItsRow) {
    write("TypeMap.xml", "<TypeMap>\n<Type name='Real'\n</TypeMap>");
    zelTest::LogCapture log;
    EXPECT_NE(errorOf("Real"), "");
    EXPECT_THAT(
        log.text(),
        HasSubstr("TypeMap: Could not load TypeMap.xml (full file path: '" + m_directory.path() +
                  "/TypeMap.xml'). Error on row 3: the element 'Type' of row 2 has '<' where an attribute "
                  "or '>' belongs"));
}

TEST_F(TypeMapTest, AnEntryWithoutAClassIsAnXmlError) {
    write("TypeMap.xml", "<TypeMap><Type name='Real' include='x.h'/></TypeMap>");
    EXPECT_THAT(errorOf("Real"), HasSubstr("XML error: Could not locate attribute 'implementation'"));
    EXPECT_EQ(errorOf("Real"), "No registered type with name 'Real' (Add entry to 'TypeMap.xml')\n");
}

TEST_F(TypeMapTest, AMissingIncludePrefixIsAWarning) {
    zelTest::LogCapture log;
    EXPECT_EQ(getIncludePrefix(m_directory.path() + "/model.xml"), "");
    EXPECT_THAT(log.text(),
                HasSubstr("zel::getIncludePrefix: Could not load xml file '" + m_directory.path() +
                          "/includePrefix.xml'. Error on row 0: No such file or directory"));
    EXPECT_EQ(log.levels().back(), zel::Notify::Warning);
}
