#include <zel/Component.h>
#include <zelData/Buffer.h>
#include <zelData/Format.h>
#include <zelData/Type.h>
#include <zelData/ValueT.h>

#include <support/LogCapture.h>
#include <support/TempDirectory.h>
#include <support/WhatOf.h>
#include <tinyxml.h>

#include <memory>
#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;
using zel::Component;
using zel::Object;
using zel::Path;
using zel::ref_ptr;
using zelData::Buffer;
using zelData::getFormat;

using zelTest::whatOf;

namespace {

class BufferFileTest : public testing::Test {
protected:
    ref_ptr<Component> load(const std::string& elements) {
        m_document =
            Object::openDocument(m_directory.write("m.xml", "<Object>\n" + elements + "\n</Object>"));
        const ref_ptr<Component> component(new Component("top"));
        component->configure(m_document->RootElement());
        return component;
    }
    /// The what() of the failure to load the buffer, which stands in row 2.
    std::string failure(const std::string& element) {
        m_document = Object::openDocument(m_directory.write("m.xml", "\n" + element));
        return whatOf(
            [this] { const ref_ptr<Buffer> buffer(Buffer::load(m_document->RootElement(), nullptr)); });
    }
    static Buffer* buffer(const ref_ptr<Component>& component, const char* path = "b") {
        return dynamic_cast<Buffer*>(component->getResource(Path(path)));
    }
    static ref_ptr<Buffer> numbers(zel::uint64 n) {
        const ref_ptr<Buffer> buffer(new Buffer("b", getFormat("Real:64bit")));
        buffer->resize(n);
        std::iota(buffer->data<double>(), buffer->data<double>() + n, 0.5);
        return buffer;
    }
    template <typename T>
    static std::vector<T> contentOf(const Buffer* buffer) {
        return {buffer->data<T>(), buffer->data<T>() + buffer->size()};
    }

    zelTest::TempDirectory m_directory;
    std::unique_ptr<TiXmlDocument> m_document;
};
using BufferFileDeathTest = BufferFileTest;
using BufferFileMaliciousTest = BufferFileTest;

} // namespace

TEST_F(BufferFileTest, DumpsAreTheElementsAsTheyLie) {
    const ref_ptr<Buffer> written = numbers(3);
    written->writeBinaryDump(m_directory.path("d.zelBuffer"));
    const std::string bytes = m_directory.read("d.zelBuffer");
    EXPECT_EQ(bytes, std::string(written->data<char>(), 24));
    const ref_ptr<Buffer> read(new Buffer("r", getFormat("Real:64bit")));
    read->resize(3);
    const auto revision = read->getRevision();
    read->readBinaryDump(m_directory.path("d.zelBuffer"));
    EXPECT_THAT(contentOf<double>(read.get()), ElementsAre(0.5, 1.5, 2.5));
    EXPECT_GT(read->getRevision(), revision);
    read->resize(2);
    read->readBinaryDump(m_directory.path("d.zelBuffer")); // the amount is the buffer's
    numbers(0)->writeBinaryDump(m_directory.path("empty"));
    EXPECT_EQ(m_directory.read("empty"), "");
    numbers(0)->readBinaryDump(m_directory.path("empty"));
}

TEST_F(BufferFileTest, KnowsPlainElements) {
    for (const char* format :
         {"Bool:8bit", "Int:8bit", "UInt:64bit", "Real:32bit", "Vec3:64bit", "Matrix4x4:32bit"})
        EXPECT_TRUE(ref_ptr<Buffer>(new Buffer(getFormat(format)))->hasPlainElements()) << format;
    EXPECT_TRUE(ref_ptr<Buffer>(new Buffer(zelData::getGenericStructFormat(12)))->hasPlainElements());
    for (const char* format :
         {"String", "Name", "Real:ascii", "ObjectPointer", "Pointer", "SpinMutex", "Array<Real>"})
        EXPECT_FALSE(ref_ptr<Buffer>(new Buffer(getFormat(format)))->hasPlainElements()) << format;
}

TEST_F(BufferFileTest, LoadsFromXml) {
    const ref_ptr<Component> top = load("<Buffer name='b' type='Int:32bit' numElements='3'/>\n"
                                        "<Buffer name='c' type='Real' format='32bit'>\n"
                                        "  <Value instance='defaultValue' value='2.5'/>\n"
                                        "  <Value instance='numElements' value='2'/>\n"
                                        "  <Value name='extra' type='Real' value='1'/>\n"
                                        "</Buffer>\n"
                                        "<Buffer name='d' type='Vec3'/>\n"
                                        "<Buffer name='e' type='Int' numElements='@b.numElements'/>\n"
                                        "<Buffer name='f' type='Int' numElements='2'>\n"
                                        "  <Value instance='elementArraySize' value='4'/>\n"
                                        "</Buffer>");
    ASSERT_NE(buffer(top), nullptr);
    EXPECT_EQ(buffer(top)->getFormat(), getFormat("Int:32bit"));
    EXPECT_EQ(buffer(top)->size(), 3U);
    EXPECT_THAT(contentOf<float>(buffer(top, "c")), ElementsAre(2.5F, 2.5F));
    EXPECT_NE(buffer(top, "c")->getResource(Path("extra")), nullptr);
    EXPECT_EQ(buffer(top, "d")->size(), 0U);
    EXPECT_EQ(buffer(top, "e")->size(), 3U);
    buffer(top)->resize(5);
    EXPECT_EQ(buffer(top, "e")->size(), 5U);
    EXPECT_EQ(buffer(top, "f")->size(), 8U);
}

TEST_F(BufferFileTest, LoadsItsDataFromBesideTheDocument) {
    m_directory.write("sub/x.bin", std::string("\1\0\2\0", 4));
    const ref_ptr<Component> top =
        load("<Buffer name='b' type='UInt:16bit' numElements='2' data='sub/x.bin'/>"
             "<Buffer name='c' type='UInt:8bit' numElements='4' data='" +
             m_directory.path("sub/x.bin") + "'/>");
    EXPECT_THAT(contentOf<zel::uint16>(buffer(top)), ElementsAre(1, 2));
    EXPECT_THAT(contentOf<zel::uint8>(buffer(top, "c")), ElementsAre(1, 0, 2, 0));
}

TEST_F(BufferFileTest, SnapshotsRestoreToEqualContent) {
    const ref_ptr<Component> top(new Component("top"));
    const auto add = [&top](const char* name, const char* format, zel::uint64 n) {
        const ref_ptr<Buffer> buffer(new Buffer(name, getFormat(format)));
        top->addObject(buffer.get());
        if (n == 7)
            buffer->setElementArraySize(
                ref_ptr<zelData::Value>(new zelData::ValueT<zel::uint64>("n", 3)).get());
        buffer->resize(n);
        for (zel::uint64 i = 0; i < buffer->size() * buffer->getElementSize(); ++i)
            buffer->data<unsigned char>()[i] = static_cast<unsigned char>(17 * i + n);
        return buffer;
    };
    const ref_ptr<Buffer> a = add("a", "Real:64bit", 10);
    const ref_ptr<Buffer> b = add("odd/name", "Vec3:32bit", 5);
    const ref_ptr<Buffer> c = add("c", "UInt:8bit", 7);
    const ref_ptr<Buffer> d = add("d", "Int", 0);
    TiXmlDocument document(m_directory.path("snap/s.xml"));
    auto* root = new TiXmlElement("Object");
    document.LinkEndChild(root);
    for (const auto& buffer : {a, b, c, d})
        buffer->snapshot(root, m_directory.path("snap"));
    ASSERT_TRUE(document.SaveFile());
    const TiXmlElement* element = root->FirstChildElement("Buffer");
    EXPECT_STREQ(element->Attribute("instance"), "a");
    EXPECT_STREQ(element->Attribute("type"), "Real");
    EXPECT_STREQ(element->Attribute("format"), "64bit");
    EXPECT_STREQ(element->Attribute("numElements"), "10");
    EXPECT_STREQ(element->Attribute("data"), "buffers/top.a.zelBuffer");
    EXPECT_EQ(m_directory.read("snap/buffers/top.a.zelBuffer").size(), 80U);

    std::vector<std::string> before;
    for (const auto& buffer : {a, b, c, d}) {
        before.emplace_back(buffer->data<char>(), buffer->size() * buffer->getElementSize());
        buffer->resize(2);
    }
    const auto loaded = Object::openDocument(m_directory.path("snap/s.xml"));
    top->configure(loaded->RootElement());
    std::vector<std::string> after;
    for (const auto& buffer : {a, b, c, d})
        after.emplace_back(buffer->data<char>(), buffer->size() * buffer->getElementSize());
    EXPECT_EQ(after, before);
    EXPECT_EQ(c->size(), 21U);
}

TEST_F(BufferFileTest, BuffersOfSimilarNamesHaveFilesOfTheirOwn) {
    const ref_ptr<Buffer> slash(new Buffer("a/b", getFormat("UInt:8bit")));
    const ref_ptr<Buffer> plain(new Buffer("a_b", getFormat("UInt:8bit")));
    slash->resize(2);
    plain->resize(3);
    TiXmlElement root("Object");
    for (const auto& buffer : {slash, plain})
        buffer->snapshot(&root, m_directory.path("snap"));
    const TiXmlElement* element = root.FirstChildElement("Buffer");
    EXPECT_EQ(m_directory.read(std::string("snap/") + element->Attribute("data")).size(), 2U);
    element = element->NextSiblingElement("Buffer");
    EXPECT_STREQ(element->Attribute("data"), "buffers/a_b.zelBuffer");
    EXPECT_EQ(m_directory.read("snap/buffers/a_b.zelBuffer").size(), 3U);
}

TEST_F(BufferFileTest, ASnapshotOfTextsHasNoData) {
    const ref_ptr<Buffer> texts(new Buffer("t", getFormat("String")));
    texts->resize(2);
    TiXmlElement root("Object");
    const zelTest::LogCapture log(zel::Notify::Warning);
    texts->snapshot(&root, m_directory.path());
    const TiXmlElement* element = root.FirstChildElement("Buffer");
    EXPECT_EQ(element->Attribute("data"), nullptr);
    EXPECT_STREQ(element->Attribute("numElements"), "2");
    EXPECT_THAT(log.text(), HasSubstr("t: the snapshot has no elements of type 'String'"));
}

TEST_F(BufferFileTest, SaysWhatIsWrong) {
    EXPECT_THAT(failure("<Buffer type='Real'/>"),
                HasSubstr("XML error: Buffer does not have a name. Error at row 2"));
    EXPECT_THAT(failure("<Buffer name='b'/>"), HasSubstr("Must specify a type!"));
    EXPECT_THAT(failure("<Buffer name='b' type='Vector&lt;Real&gt;'/>"),
                HasSubstr("has no format. Error at row 2"));
}

TEST_F(BufferFileMaliciousTest, ImpossibleSizesAreXmlErrors) {
    for (const char* n : {"-1", "1e30", "99999999999999999999", "3.5", "12 apples"}) {
        const std::string what =
            failure(std::string("<Buffer name='b' type='Real' numElements='") + n + "'/>");
        EXPECT_THAT(
            what,
            HasSubstr("XML error: Buffer 'b': '" + std::string(n) +
                      "' is no number of elements. Error at row 2\nFile: " + m_directory.path("m.xml")));
    }
    for (const char* n : {"18446744073709551615", "9223372036854775807", "1000000000000000"})
        EXPECT_THAT(failure(std::string("<Buffer name='b' type='Real' numElements='") + n + "'/>"),
                    HasSubstr("do not fit in memory. Error at row 2\nFile: "));
    EXPECT_THAT(failure("<Buffer name='b' type='Real' numElements='UInt(-1)'/>"),
                HasSubstr("do not fit in memory. Error at row 2"));
    EXPECT_THAT(failure("<Buffer name='b' type='Real' numElements='many'/>"),
                HasSubstr("is no literal, path, explicit form or function"));
    EXPECT_THAT(failure("<Buffer name='b' type='Real' numElements='3'>"
                        "<Value instance='elementArraySize' value='-1'/></Buffer>"),
                HasSubstr("do not fit in memory. Error at row 2"));
    EXPECT_EQ(failure("<Buffer name='b' type='Real' numElements=''/>"), "no exception");
}

TEST_F(BufferFileMaliciousTest, BadDataFilesAreXmlErrors) {
    m_directory.write("x.bin", std::string(16, 'x'));
    const auto with = [this](const char* type, const char* n, const std::string& file) {
        return failure(std::string("<Buffer name='b' type='") + type + "' numElements='" + n + "' data='" +
                       file + "'/>");
    };
    EXPECT_EQ(with("Real", "2", "x.bin"), "no exception");
    EXPECT_THAT(with("Real", "3", "x.bin"),
                HasSubstr("XML error: Buffer 'b': file '" + m_directory.path("x.bin") +
                          "' has 16 bytes, 3 elements of type 'Real' are 24. Error at row 2\nFile: "));
    EXPECT_THAT(with("Real", "1", "x.bin"), HasSubstr("has 16 bytes, 1 elements of type 'Real' are 8"));
    EXPECT_THAT(with("Real", "2", "none.bin"), HasSubstr("Buffer 'b': there is no file '"));
    EXPECT_THAT(with("Real", "2", "."), HasSubstr("there is no file '"));
    EXPECT_THAT(with("Real", "2", ""), HasSubstr("there is no file '"));
    EXPECT_THAT(with("String", "1", "x.bin"),
                HasSubstr("elements of type 'String' can not be read from a file"));
    EXPECT_THAT(with("ObjectPointer", "2", "x.bin"), HasSubstr("can not be read from a file"));
}

TEST_F(BufferFileDeathTest, DumpsThatFailEndTheProcess) {
    const ref_ptr<Component> top(new Component("top"));
    const ref_ptr<Buffer> written = numbers(3);
    top->addObject(written.get());
    EXPECT_DEATH(written->writeBinaryDump("/dev/full"),
                 "zelAbort: top\\.b: Could not write 3 elements of type 'Real' to file '/dev/full'");
    EXPECT_DEATH(written->writeBinaryDump(m_directory.path("no/such")),
                 "Could not write 3 elements of type 'Real'");
    const std::string file = m_directory.write("short", std::string(23, 'x'));
    EXPECT_DEATH(written->readBinaryDump(file),
                 "zelAbort: top\\.b: Could not read 3 elements of type 'Real' from file '" + file + "'");
    EXPECT_DEATH(written->readBinaryDump(m_directory.path("none")),
                 "Could not read 3 elements of type 'Real'");
    TiXmlElement root("Object");
    EXPECT_DEATH(written->snapshot(&root, file),
                 "zelVerify failed: `zelIO::FileSystem::mkdir\\(bufferDir\\)'");
}
