#include "FrameFixture.h"

#include <zelData/FrameIO.h>

#include <support/CommaStreams.h>
#include <support/Stress.h>
#include <support/TempDirectory.h>

#include <random>

using zel::ref_ptr;
using zelData::FrameIO;

namespace {

const std::string Rule(78, '=');

class FrameIOBindingsTest : public zelTest::FrameFixture {
protected:
    std::vector<std::string> bindings() const {
        std::vector<std::string> texts;
        for (const auto& binding : io->getDataBindings())
            texts.push_back(binding->getInternalPath().str() + ">" + binding->getExternalPath().str() +
                            (binding->isRecursive() ? "+" : ""));
        return texts;
    }
    std::string xml(const std::string& text) const { return directory.write("bindings.xml", text); }
    std::string json(const std::string& text) const { return directory.write("bindings.json", text); }
    /// What loading the text throws, from "XML error" on where there is one: the place in the source is left
    /// out.
    std::string xmlFault(const std::string& text) const {
        const std::string file = xml(text);
        const std::string what = zelTest::whatOf([&] { io->loadDataBindings(file); });
        EXPECT_TRUE(io->getDataBindings().empty());
        const std::size_t begin = what.find("] XML error: ");
        return begin == std::string::npos ? what : what.substr(begin);
    }
    std::string jsonFault(const std::string& text) const {
        const std::string file = json(text);
        const std::string what = zelTest::whatOf([&] { io->loadDataBindingsJSON(file); });
        EXPECT_TRUE(io->getDataBindings().empty());
        const std::string begin = "Unable to load document '" + file + "', error: ";
        EXPECT_EQ(what.substr(0, begin.size()), begin);
        return what.size() < begin.size() ? what : what.substr(begin.size());
    }

    ref_ptr<FrameIO> io{new FrameIO};
};

// XML

TEST_F(FrameIOBindingsTest, XmlNamesPathsAndPairs) {
    io->loadDataBindings(xml("<DataFrame>\n"
                             "  <!-- what is to be seen -->\n"
                             "  <DataBinding path='sun.mass'/>\n"
                             "  <DataBinding internal='sun.planets' external='planets' recursive='true'/>\n"
                             "  <DataBinding path='clock' recursive='0'/>\n"
                             "</DataFrame>"));
    EXPECT_EQ(bindings(),
              (std::vector<std::string>{"clock>clock", "sun.mass>sun.mass", "sun.planets>planets+"}));
}

TEST_F(FrameIOBindingsTest, FilesAddToWhatIsBound) {
    io->addDataBinding("a", false);
    io->loadDataBindings(
        xml("<DataFrame><DataBinding path='b'/><DataBinding path='a' recursive='1'/></DataFrame>"));
    io->loadDataBindingsJSON(json(R"({"DataPaths": ["b", "c"]})"));
    EXPECT_EQ(bindings(), (std::vector<std::string>{"a>a+", "b>b", "c>c"}));
}

TEST_F(FrameIOBindingsTest, XmlOfAnUnknownRootHasNoBindings) {
    const std::string file = xml("<Frame><DataBinding path='a'/></Frame>");
    const zelTest::LogCapture log(zel::Notify::Warning);
    io->loadDataBindings(file);
    EXPECT_TRUE(io->getDataBindings().empty());
    EXPECT_NE(log.text().find("The file '" + file + "' holds no data bindings: its root is not 'DataFrame'"),
              std::string::npos)
        << log.text();
}

TEST_F(FrameIOBindingsTest, OtherElementsInXmlAreToldAndPassedOver) {
    const std::string file = xml("<DataFrame>\n<Binding path='a'/>\n<DataBinding path='b'/></DataFrame>");
    const zelTest::LogCapture log(zel::Notify::Warning);
    io->loadDataBindings(file);
    EXPECT_EQ(bindings(), (std::vector<std::string>{"b>b"}));
    EXPECT_NE(
        log.text().find("In file '" + file + "', row 2: 'Binding' is no 'DataBinding' and is passed over"),
        std::string::npos)
        << log.text();
}

TEST_F(FrameIOBindingsTest, XmlFilesThatCanNotBeReadAreNamed) {
    const std::string lacking = directory / "lacking.xml";
    EXPECT_EQ(zelTest::whatOf([&] { io->loadDataBindings(lacking); }),
              "Could not load file '" + lacking + "': No such file or directory");
    EXPECT_EQ(zelTest::whatOf([&] { io->loadDataBindings(directory.path()); }),
              "Could not load file '" + directory.path() + "': Is a directory");
}

TEST_F(FrameIOBindingsTest, FaultsInXmlTellFileAndRow) {
    const std::string file = directory / "bindings.xml";
    const auto expected = [&file](const std::string& reason, int row, const std::string& element) {
        return "] XML error: " + reason + ". Error at row " + std::to_string(row) + "\nFile: " + file + "\n" +
               Rule + "\n" + element + "\n" + Rule;
    };
    EXPECT_EQ(xmlFault("<DataFrame>\n<DataBinding path='a'/>\n<DataBinding/></DataFrame>"),
              expected("Could not locate attribute 'path'", 3, "<DataBinding />"));
    EXPECT_EQ(xmlFault("<DataFrame><DataBinding internal='a'/></DataFrame>"),
              expected("Could not locate attribute 'external'", 1, "<DataBinding internal=\"a\" />"));
    EXPECT_EQ(xmlFault("<DataFrame><DataBinding external='a'/></DataFrame>"),
              expected("Could not locate attribute 'internal'", 1, "<DataBinding external=\"a\" />"));
    EXPECT_EQ(xmlFault("<DataFrame><DataBinding path='@'/></DataFrame>"),
              expected("Unable to parse attribute path", 1, "<DataBinding path=\"@\" />"));
    EXPECT_EQ(
        xmlFault("<DataFrame><DataBinding path='a' recursive='yes'/></DataFrame>"),
        expected("Unable to parse attribute recursive", 1, "<DataBinding path=\"a\" recursive=\"yes\" />"));
    EXPECT_EQ(xmlFault("<DataFrame><DataBinding path='a' external='b'/></DataFrame>"),
              expected("A data binding has either 'path' or the pair 'internal' and 'external'",
                       1,
                       "<DataBinding path=\"a\" external=\"b\" />"));
    EXPECT_EQ(xmlFault("<DataFrame>\n<DataBinding path='a'>\n</DataFrame>").find("] XML error: "), 0U);
    EXPECT_NE(
        xmlFault("<DataFrame>\n<DataBinding path='a'>\n</DataFrame>").find(". Error at row 3\nFile: " + file),
        std::string::npos);
    EXPECT_EQ(xmlFault(std::string("<DataFrame>\n\0</DataFrame>", 24)),
              "] XML error: there is a NUL byte, which is no text. Error at row 2\nFile: " + file);
    EXPECT_EQ(
        xmlFault("<DataFrame>\n\xff</DataFrame>"),
        "] XML error: the byte 0xFF is not UTF-8; the text must be saved as UTF-8. Error at row 2\nFile: " +
            file);
}

// JSON

TEST_F(FrameIOBindingsTest, JsonNamesPathsAndObjects) {
    io->loadDataBindingsJSON(json(R"({"DataPaths": [
        "sun.mass",
        {"path": "sun.planets", "recursive": true},
        {"path": "clock", "recursive": false},
        {"path": "@moon"}], "else": 1})"));
    EXPECT_EQ(bindings(),
              (std::vector<std::string>{
                  "clock>clock", "moon>moon", "sun.mass>sun.mass", "sun.planets>sun.planets+"}));
}

TEST_F(FrameIOBindingsTest, JsonIsReadWhateverTheStreamsOfTheProgramTakeForAPoint) {
    const zelTest::CommaStreams comma;
    io->loadDataBindingsJSON(json(R"({"version": 1.5, "DataPaths": ["a"]})"));
    EXPECT_EQ(bindings(), (std::vector<std::string>{"a>a"}));
}

TEST_F(FrameIOBindingsTest, JsonWithoutDataPathsHasNoBindings) {
    const std::string file = json(R"({"paths": ["a"]})");
    const zelTest::LogCapture log(zel::Notify::Warning);
    io->loadDataBindingsJSON(file);
    EXPECT_TRUE(io->getDataBindings().empty());
    EXPECT_NE(log.text().find("The file '" + file + "' holds no data bindings: it has no 'DataPaths'"),
              std::string::npos)
        << log.text();
}

TEST_F(FrameIOBindingsTest, FaultsInJsonTellFileAndRow) {
    const std::string lacking = directory / "lacking.json";
    EXPECT_EQ(zelTest::whatOf([&] { io->loadDataBindingsJSON(lacking); }),
              "Unable to load document '" + lacking + "', error: No such file or directory");
    EXPECT_EQ(jsonFault("[]"), "row 1: the document is no object with an array 'DataPaths'");
    EXPECT_EQ(jsonFault("{\n\"DataPaths\": {}}"), "row 2: 'DataPaths' is no array");
    const std::string noPath = "a data path is a text, or an object with a text 'path'";
    EXPECT_EQ(jsonFault("{\"DataPaths\": [\n\"a\",\n3]}"), "row 3: " + noPath);
    EXPECT_EQ(jsonFault("{\"DataPaths\": [{\"recursive\": true}]}"), "row 1: " + noPath);
    EXPECT_EQ(jsonFault("{\"DataPaths\": [{\"path\": [\"a\"]}]}"), "row 1: " + noPath);
    EXPECT_EQ(jsonFault("{\"DataPaths\": [{\"path\": \"a\",\n\"recursive\": 1}]}"),
              "row 2: 'recursive' is neither true nor false");
    EXPECT_EQ(jsonFault("{\"DataPaths\": [\n\"\"]}"), "row 2: a data path is empty, or holds a NUL");
    EXPECT_EQ(jsonFault("{\"DataPaths\": [\"a\\u0000b\"]}"), "row 1: a data path is empty, or holds a NUL");
    EXPECT_EQ(jsonFault(""), "row 1: the file is empty");
    EXPECT_EQ(jsonFault("{\n\xc3}"), "row 2: the byte 0xC3 is not UTF-8; the text must be saved as UTF-8");
    EXPECT_EQ(jsonFault("{\"DataPaths\": [\n\"a\"").find("* Line 2"), 0U);
    EXPECT_NE(jsonFault("{\"DataPaths\": [], \"DataPaths\": []}").find("Duplicate key"), std::string::npos);
    EXPECT_NE(jsonFault("{\"DataPaths\": []} x").find("Extra"), std::string::npos);
    EXPECT_NE(jsonFault("{\"DataPaths\": " + std::string(100000, '[')).find("stackLimit"), std::string::npos);
}

/// Files that have been damaged at random give bindings, or an exception and none.
TEST_F(FrameIOBindingsTest, DamagedFilesGiveBindingsOrAnException) {
    std::mt19937 random(zelTest::stressSeed());
    const std::string good[] = {"<DataFrame><DataBinding path='a.b'/><DataBinding internal='c' external='d' "
                                "recursive='1'/></DataFrame>",
                                R"({"DataPaths": ["a.b", {"path": "c", "recursive": true}]})"};
    unsigned numThrown = 0;
    for (unsigned round = 0; round < 2000 / zelTest::StressDivisor; ++round) {
        const bool isJson = round % 2 != 0;
        std::string text = good[isJson ? 1 : 0];
        for (auto i = random() % 3 + 1; i != 0; --i) {
            const std::size_t place = random() % text.size();
            switch (random() % 4) {
            case 0:
                text.resize(place + 1);
                break;
            case 1:
                text.erase(place, random() % 4 + 1);
                text += ' ';
                break;
            case 2:
                text.insert(place, text.substr(random() % text.size(), random() % 20));
                break;
            default:
                text[place] = static_cast<char>(random());
            }
        }
        const std::string file = isJson ? json(text) : xml(text);
        io->clearDataBindings();
        try {
            if (isJson)
                io->loadDataBindingsJSON(file);
            else
                io->loadDataBindings(file);
        } catch (const std::runtime_error&) {
            ++numThrown;
            ASSERT_TRUE(io->getDataBindings().empty()) << text;
        }
        for (const auto& binding : io->getDataBindings())
            ASSERT_FALSE(binding->getInternalPath().empty() || binding->getExternalPath().empty()) << text;
    }
    EXPECT_GT(numThrown, 0U);
}

} // namespace
