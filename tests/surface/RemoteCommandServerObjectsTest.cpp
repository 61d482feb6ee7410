#include "CommandServerFixture.h"

#include <zel/ArrayParameter.h>
#include <zel/Model.h>
#include <zel/Pointer.h>
#include <zel/ScalarParameter.h>
#include <zel/SerialTask.h>
#include <zel/TreeGate.h>
#include <zelData/Buffer.h>
#include <zelData/Type.h>
#include <zelData/ValueT.h>

#include <json/value.h>
#include <json/writer.h>

#include <chrono>
#include <functional>
#include <iostream>
#include <thread>

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using zel::ref_ptr;
using zelData::Buffer;
using zelData::getFormat;
using zelData::ValueT;
using zelIO::RemoteCommandServer;

namespace zelTest {

namespace {

class Sum final : public zel::SerialTask {
public:
    Sum()
        : SerialTask("sum", nullptr)
        , scalar(new zel::ScalarParameter("scalar", getFormat("Real")))
        , array(new zel::ArrayParameter("array", getFormat("Real"), zelData::AccessMode::READ)) {
        addParameter(scalar);
        addParameter(array);
    }

    zel::ScalarParameter* scalar;
    zel::ArrayParameter* array;
};

class RemoteCommandServerObjectsTest : public CommandServerFixture {
protected:
    void SetUp() override {
        CommandServerFixture::SetUp();
        start();
    }
    [[nodiscard]] std::string command(const std::string& text) const {
        return ask("/zelRemote/Command?text=" + text);
    }
    [[nodiscard]] std::string complete(const std::string& text) const {
        return ask("/zelRemote/AutoComplete?text=" + text);
    }
    /// What AutoComplete says.
    [[nodiscard]] static std::string completion(const std::string& query,
                                                const std::string& matched,
                                                bool hasChildren,
                                                const std::string& list) {
        return std::string("{\"hasMatch\":") + (list.empty() ? "false" : "true") + ",\"list\":[" + list +
               "],\"matchedPath\":\"" + matched + "\",\"query\":\"" + query +
               "\",\"uniqueMatchHasChildren\":" + (hasChildren ? "true" : "false") + "}\n";
    }
};

// Command

TEST_F(RemoteCommandServerObjectsTest, TellsOfAValueAndWhatItIsBoundTo) {
    auto* const ship = addComponent("Ship");
    auto* const speed = add(new ValueT<double>("speed", 2.5), ship);
    add(new ValueT<double>("shown"), ship)->bind(speed);
    EXPECT_EQ(command("Ship.shown"),
              "{\"binding\":\"root.Ship.speed\",\"format\":\"Real:64bit\",\"implementation\":\"\","
              "\"model\":\"zelData.Value\",\"modelPath\":\"Value -> Object\",\"name\":\"shown\","
              "\"path\":\"root.Ship.shown\",\"success\":true,\"value\":\"2.5\"}\n");
    EXPECT_THAT(command("Ship.speed"), StartsWith("{\"binding\":\"\",\"format\":\"Real:64bit\","));
}

TEST_F(RemoteCommandServerObjectsTest, AMissingObjectIsNoSuccess) {
    for (const char* const path : {"Boat", "Ship.x", "..", "%00", "%ff%fe", "root.root.x", "@"})
        EXPECT_THAT(command(path), testing::AnyOf("{\"success\":false}\n", HasSubstr("\"name\":\"root\"")))
            << path;
    EXPECT_EQ(command("Boat"), "{\"success\":false}\n");
}

TEST_F(RemoteCommandServerObjectsTest, AnEmptyPathIsTheRoot) {
    EXPECT_THAT(command(""), HasSubstr("\"name\":\"root\""));
    EXPECT_EQ(ask("/zelRemote/Command"), command("")) << "a missing argument reads as empty";
}

TEST_F(RemoteCommandServerObjectsTest, WithoutARootThereAreNoObjects) {
    server->setSystemRoot(nullptr);
    EXPECT_EQ(command(""), "{\"success\":false}\n");
    EXPECT_EQ(ask("/zelJournal/NavigationTree"), "{}\n");
    EXPECT_EQ(complete("Shi"), completion("Shi", "", false, ""));
}

TEST_F(RemoteCommandServerObjectsTest, TellsTheElementsOfABuffer) {
    const ref_ptr<Buffer> buffer(new Buffer("numbers", getFormat("Int:32bit")));
    add(buffer.get());
    buffer->resize(3);
    for (zel::int32 i = 0; i < 3; ++i)
        *static_cast<zel::int32*>(buffer->getElement(static_cast<zel::uint64>(i))) = 7 * i;
    const std::string answer = command("numbers");
    EXPECT_THAT(answer, HasSubstr("\"elements\":[\"[0] 0\",\"[1] 7\",\"[2] 14\"],\"format\":\"Int:32bit\","));
    EXPECT_THAT(answer, HasSubstr("\"numElements\":3"));
    EXPECT_THAT(answer, Not(HasSubstr("\"objects\"")));
}

TEST_F(RemoteCommandServerObjectsTest, ABufferWithoutATextFormShowsNoElements) {
    const ref_ptr<Buffer> buffer(new Buffer("locks", getFormat("SpinMutex")));
    add(buffer.get());
    buffer->resize(3);
    EXPECT_THAT(command("locks"), HasSubstr("\"elements\":[],"));
    EXPECT_THAT(command("locks"), HasSubstr("\"numElements\":3"));
}

TEST_F(RemoteCommandServerObjectsTest, OfALongBufferTheFirst65536ElementsAreShown) {
    const ref_ptr<Buffer> buffer(new Buffer("numbers", getFormat("Int:8bit")));
    add(buffer.get());
    buffer->resize(70'000);
    const std::string answer = command("numbers");
    EXPECT_THAT(answer, HasSubstr("\"[65535] 0\"],"));
    EXPECT_THAT(answer, Not(HasSubstr("[65536]")));
    EXPECT_THAT(answer, HasSubstr("\"numElements\":70000,"));
}

TEST_F(RemoteCommandServerObjectsTest, TellsTheBindingOfParameters) {
    auto* const value = add(new ValueT<double>("x", 2.5));
    const ref_ptr<Buffer> buffer(new Buffer("numbers", getFormat("Real")));
    add(buffer.get());
    auto* const sum = add(new Sum);
    EXPECT_THAT(command("sum.scalar"), AllOf(StartsWith("{\"binding\":\"\","), Not(HasSubstr("\"value\""))));
    EXPECT_THAT(command("sum.array"), AllOf(StartsWith("{\"binding\":\"\","), Not(HasSubstr("\"value\""))));
    sum->scalar->bind(value);
    sum->array->bind(buffer.get());
    EXPECT_THAT(command("sum.scalar"),
                AllOf(StartsWith("{\"binding\":\"root.x\","), HasSubstr("\"value\":\"2.5\"")));
    EXPECT_THAT(command("sum.array"),
                AllOf(StartsWith("{\"binding\":\"root.numbers\","), Not(HasSubstr("\"value\""))));
}

TEST_F(RemoteCommandServerObjectsTest, GroupsTheChildrenOfAComponentByModel) {
    // Classes below one another, of which the fourth one names the group.
    const ref_ptr<zel::Model> third(new zel::Model("Third", zel::Component::ClassModel()));
    const ref_ptr<zel::Model> fourth(new zel::Model("Fourth", third.get()));
    const ref_ptr<zel::Model> fifth(new zel::Model("Fifth", fourth.get()));
    add(new zel::Component("deep", fifth.get()));
    add(new zel::Component("four", fourth.get()));
    add(new zel::Component("three", third.get()));
    auto* const ship = addComponent("Ship");
    addComponent("Anchor");
    add(new ValueT<double>("speed", 2.5));
    add(new zel::Pointer("to", ship));
    add(new zel::Pointer("nowhere"));
    add(new zel::Component("classless"));
    EXPECT_EQ(command(""),
              "{\"implementation\":\"\",\"model\":\"zel.Component\",\"modelPath\":\"Component -> Object\","
              "\"name\":\"root\",\"objects\":{\"\":{\"classless\":null},"
              "\"Fourth\":{\"deep\":null,\"four\":null},\"Third\":{\"three\":null},"
              "\"zel.Component\":{\"Anchor\":null,\"Ship\":null},"
              "\"zel.Pointer\":{\"nowhere\":\"Unresolved\",\"to\":\"root.Ship (zel.Component)\"},"
              "\"zelData.Value\":{\"speed\":\"2.5\"}},\"path\":\"root\",\"success\":true}\n");
}

TEST_F(RemoteCommandServerObjectsTest, APathMayGoInCircles) {
    add(new zel::Pointer("p", root.get()));
    std::string path = "p";
    while (path.size() < 15'000)
        path += ".p";
    EXPECT_THAT(command(path), HasSubstr("\"success\":true"));
    EXPECT_THAT(complete(path), StartsWith("{\"hasMatch\":"));
}

TEST_F(RemoteCommandServerObjectsTest, TheTreeMayBeDeep) {
    zel::Component* deepest = root.get();
    for (int i = 0; i < 2000; ++i)
        deepest = addComponent("x", deepest);
    EXPECT_THAT(ask("/zelJournal/NavigationTree"), AllOf(HasSubstr("\"name\":\"x\""), EndsWith("}\n")));
}

TEST_F(RemoteCommandServerObjectsTest, PrintsWhatWasAskedAndAnswered) {
    const StreamCapture output(std::cout);
    static_cast<void>(command("Boat%0a%1b[2J"));
    settle();
    EXPECT_EQ(output.text(),
              "command: Boat..[2J\n"
              "commandString: Boat..[2J, resultString: {\n   \"success\" : false\n}\n\n");
}

// AutoComplete

TEST_F(RemoteCommandServerObjectsTest, CompletesWhateverTheCase) {
    auto* const ship = addComponent("Ship");
    addComponent("Deck", ship);
    add(new ValueT<double>("speed"), ship);
    add(new ValueT<double>("speedLimit"), ship);
    EXPECT_EQ(complete("sh"), completion("sh", "Ship", true, "\"Ship\""));
    EXPECT_EQ(complete("SHIP"), completion("SHIP", "Ship", true, "\"Ship\""));
    EXPECT_EQ(complete("SHIP."), completion("SHIP.", "Ship", false, "\"Deck\",\"speed\",\"speedLimit\""));
    EXPECT_EQ(complete("ship.DE"), completion("ship.DE", "Ship.Deck", false, "\"Deck\""));
    EXPECT_EQ(complete("ship.sp"), completion("ship.sp", "Ship", false, "\"speed\",\"speedLimit\""));
    EXPECT_EQ(complete("ship.SPEED"),
              completion("ship.SPEED", "Ship.speed", false, "\"speed\",\"speedLimit\""))
        << "the one that equals the text is meant";
    EXPECT_EQ(complete(""), completion("", "Ship", true, "\"Ship\""));
}

TEST_F(RemoteCommandServerObjectsTest, WhatIsBelowNoComponentIsNotCompleted) {
    auto* const ship = addComponent("Ship");
    add(new ValueT<double>("speed"), ship);
    add(new zel::Component("classless"))->addObject(new ValueT<double>("x"));
    for (const char* const text : {"Ship.speed.", "Ship.speed.x", "Ship..", "classless.x", "Boat.x"})
        EXPECT_THAT(complete(text), StartsWith("{\"hasMatch\":false,\"list\":[],")) << text;
}

TEST_F(RemoteCommandServerObjectsTest, ModelsAreCompletedWhereNoObjectFits) {
    static_cast<void>(zelData::Value::ClassModel()); // models are made at first use
    const LogCapture log;
    EXPECT_EQ(complete("zeldata.VALU"),
              completion("zeldata.VALU", "zelData.Value", false, "\"zelData.Value\""));
    settle();
    EXPECT_THAT(log.text(), HasSubstr("] Did not find matching system node, trying model instead...\n"));
}

TEST_F(RemoteCommandServerObjectsTest, PrintsWhatWasCompleted) {
    addComponent("Ship");
    addComponent("Shop");
    const StreamCapture output(std::cout);
    static_cast<void>(complete("sh%0a"));
    static_cast<void>(complete("sh"));
    settle();
    EXPECT_THAT(output.text(), StartsWith("query: sh.\nmatch: , list: \nautoComplete: {\n"));
    EXPECT_THAT(output.text(),
                HasSubstr("query: sh\nmatch: , list: Ship, Shop\nautoComplete: {\n"
                          "   \"hasMatch\" : true,\n"));
}

// The tree

TEST_F(RemoteCommandServerObjectsTest, TheNavigationTreeIsThatOfTheRoot) {
    Json::Value expected(Json::objectValue);
    addComponent("Deck", addComponent("Ship"));
    root->buildNavigationTree(expected);
    EXPECT_EQ(expected["name"].asString(), "root");
    EXPECT_EQ(expected["model"].asString(), "zel:Component");
    EXPECT_EQ(expected["objects"][0]["objects"][0]["name"].asString(), "Deck");
    EXPECT_EQ(ask("/zelJournal/NavigationTree"), Json::FastWriter().write(expected));
}

TEST(RemoteCommandServerRootTest, IsThatOfTheSystemUnlessAnotherIsSet) {
    zelCore::init();
    const StreamCapture output(std::cout);
    RemoteCommandServer* const server = RemoteCommandServer::instance();
    ASSERT_TRUE(server->start(0, false));
    const auto path = [&] { return bodyOf(requestHttp(server->getPort(), "/zelRemote/Command?text=")); };
    ASSERT_NE(zel::root(), nullptr);
    EXPECT_THAT(path(), HasSubstr("\"path\":\"" + std::string(zel::root()->fullPath()) + "\""));
    const ref_ptr<zel::Component> own(new zel::Component("own"));
    server->setSystemRoot(own.get());
    EXPECT_THAT(path(), HasSubstr("\"path\":\"own\""));
    server->stop();
    ASSERT_TRUE(server->start(0, false));
    EXPECT_THAT(path(), HasSubstr("\"path\":\"own\"")) << "the next start keeps it";
    zelCore::shutdown();
}

// The gate

TEST_F(RemoteCommandServerObjectsTest, ATreeThatIsBeingChangedIsNotLookedAt) {
    const zel::TreeChange change;
    const std::string text = "The tree of objects is being changed, for longer than one may wait";
    for (const char* const uri :
         {"/zelRemote/Command", "/zelRemote/AutoComplete", "/zelJournal/NavigationTree"})
        EXPECT_EQ(ask(uri), "{\"exception\":\"" + text + "\",\"uri\":\"" + uri + "\"}\n");
}

TEST_F(RemoteCommandServerObjectsTest, AClientThatDoesNotReadKeepsNobodyFromChangingTheTree) {
    for (int i = 0; i < 3000; ++i)
        addComponent((std::to_string(i) + std::string(8000, 'x')).c_str());
    RawClient client;
    client.limitReceived(4096);
    client.connect(server->getPort());
    client.send("GET /zelJournal/NavigationTree HTTP/1.1\r\nHost: localhost\r\n\r\n");
    EXPECT_EQ(client.receiveOne(), 'H');
    { const zel::TreeChange change; }
    // Had it waited for the client, the server would have given the client up.
    EXPECT_THAT(client.receive(), EndsWith("}\n"));
}

class TickingListener : public zelIO::ScriptListener {
public:
    bool run(const zel::String&, zel::String& printed, zel::String&) override {
        const zel::TreeChange change;
        printed = "changed";
        return true;
    }
};

TEST_F(RemoteCommandServerObjectsTest, HandlersAndScriptsMayChangeTheTree) {
    server->registerHandler("/change", [&](auto*, mg_connection* connection, const auto&) {
        const zel::TreeChange change;
        root->addObject(new zel::Component("added", zel::Component::ClassModel()));
        RemoteCommandServer::writeDummyResponse(connection);
        return true;
    });
    server->add(new TickingListener);
    EXPECT_EQ(ask("/change"), "null\n");
    EXPECT_THAT(command("added"), HasSubstr("\"success\":true"));
    EXPECT_EQ(ask("/zelRemote/Script?text="),
              "{\"errorStr\":\"\",\"printStr\":\"changed\",\"success\":true}\n");
}

// Scripts

class Script : public zelIO::ScriptListener {
public:
    explicit Script(const char* name, bool succeeds) : m_name(name), m_succeeds(succeeds) {}
    bool run(const zel::String& text, zel::String& printed, zel::String& error) override {
        EXPECT_EQ(printed + error, "") << "texts of its own";
        (m_succeeds ? printed : error) = m_name + ":" + text;
        return m_succeeds;
    }
    bool autoComplete(const zel::String& text, zel::Vector<zel::String>& list, zel::String& error) override {
        if (m_succeeds)
            list.push_back(m_name + text);
        else
            error = m_name + ":" + text;
        return m_succeeds;
    }

private:
    std::string m_name;
    bool m_succeeds;
};

class PlainListener : public zelIO::ScriptListener {
public:
    bool run(const zel::String&, zel::String&, zel::String&) override { return true; }
};

TEST_F(RemoteCommandServerObjectsTest, ScriptsRunInTheOrderOfTheirListeners) {
    EXPECT_EQ(ask("/zelRemote/Script?text=x"), "") << "without any";
    const ref_ptr<Script> first(new Script("first", true));
    server->add(first.get());
    server->add(new Script("second", false));
    EXPECT_EQ(ask("/zelRemote/Script?text=a+%22b"),
              "{\"errorStr\":\"\",\"printStr\":\"first:a \\\"b\",\"success\":true}\n"
              "{\"errorStr\":\"second:a \\\"b\",\"printStr\":\"\",\"success\":false}\n");
    server->remove(first.get());
    EXPECT_EQ(first->referenceCount(), 1);
    EXPECT_EQ(ask("/zelRemote/Script"), "{\"errorStr\":\"second:\",\"printStr\":\"\",\"success\":false}\n");
}

TEST_F(RemoteCommandServerObjectsTest, CompletionsOfScriptsAreJoined) {
    const std::string uri = "/zelRemote/Script/AutoComplete?text=x";
    EXPECT_EQ(ask(uri), "{\"errorStr\":\"\",\"list\":[],\"success\":false}\n") << "without any";
    server->add(new PlainListener);
    EXPECT_EQ(ask(uri), "{\"errorStr\":\"\",\"list\":[],\"success\":false}\n") << "it gives up";
    server->add(new Script("b", true));
    server->add(new Script("c", false));
    server->add(new Script("a", true));
    server->add(new Script("d", false));
    EXPECT_EQ(ask(uri), "{\"errorStr\":\"c:x\\nd:x\",\"list\":[\"bx\",\"ax\"],\"success\":true}\n");
}

} // namespace

} // namespace zelTest
