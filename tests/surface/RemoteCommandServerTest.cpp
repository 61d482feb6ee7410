#include "CommandServerFixture.h"
#include "support/WhatOf.h"

#include <zel/Thread.h>
#include <zelIO/Environment.h>
#include <zelNet/AllowedHosts.h>
#include <zelNet/PortRange.h>

#include <json/value.h>

#include <atomic>
#include <cstdlib>
#include <iostream>
#include <thread>
#include <vector>

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;
using zelIO::Environment;
using zelIO::RemoteCommandServer;
using zelIO::RemoteCommandServerSingleton;
using Arguments = RemoteCommandServer::QueryArgumentTable;

namespace zelTest {

namespace {

class RemoteCommandServerTest : public CommandServerFixture {};

RemoteCommandServer::RequestHandler sayText(const std::string& text) {
    return [text](auto*, mg_connection* connection, const auto&) {
        RemoteCommandServer::writeResponse(Json::Value(text), connection);
        return true;
    };
}

class Listener : public zelIO::ScriptListener {
public:
    bool run(const zel::String& text, zel::String& printed, zel::String&) override {
        printed = "ran " + text;
        return true;
    }
};

// Life

TEST(RemoteCommandServerLifeTest, IsMadeOnDemandAndGoesWithTheSession) {
    zelCore::init();
    EXPECT_FALSE(RemoteCommandServer::hasInstance());
    const RemoteCommandServer* const server = RemoteCommandServer::instance();
    EXPECT_TRUE(RemoteCommandServer::hasInstance());
    EXPECT_EQ(RemoteCommandServer::instance(), server);
    EXPECT_EQ(server->getName(), "RemoteCommandServer");
    EXPECT_FALSE(server->isStarted());
    EXPECT_EQ(server->getPort(), 0);
    EXPECT_EQ(RemoteCommandServerSingleton::instance()->getServer(), server);
    EXPECT_EQ(RemoteCommandServerSingleton::instance()->getPriority(), 11001);
    EXPECT_THAT(RemoteCommandServerSingleton::instance()->getClassName(),
                HasSubstr("RemoteCommandServerSingleton"));
    zelCore::shutdown();
    EXPECT_FALSE(RemoteCommandServer::hasInstance());
}

TEST_F(RemoteCommandServerTest, ASecondSessionHasAServerOfItsOwn) {
    start();
    server->setAuthenticationToken("abc");
    server->registerHandler("/mine", sayText("first"));
    const zel::uint16 port = server->getPort();
    root = nullptr;
    zelCore::shutdown();
    EXPECT_FALSE(RemoteCommandServer::hasInstance());
    RawClient free;
    EXPECT_EQ(free.listen(port), port) << "nobody listens any more";

    SetUp();
    EXPECT_EQ(server->getAuthenticationToken(), "");
    start();
    EXPECT_EQ(bodyOf(get("/")), "the page");
    EXPECT_THAT(get("/mine"), StartsWith("HTTP/1.1 404"));
    root = nullptr;
    zelCore::shutdown();
    EXPECT_FALSE(RemoteCommandServer::hasInstance());
}

TEST_F(RemoteCommandServerTest, ShutdownWaitsForTheRequestUnderWay) {
    std::atomic<bool> isInside{false};
    std::atomic<bool> isDone{false};
    server->registerHandler("/slow", [&](RemoteCommandServer* own, auto*, const auto&) {
        isInside = true;
        isDone = waitUntil([&] { return !own->isStarted(); });
        return true;
    });
    start();
    RawClient client;
    client.connect(server->getPort());
    client.send("GET /slow HTTP/1.1\r\nHost: localhost\r\n\r\n");
    ASSERT_TRUE(waitUntil([&] { return isInside.load(); }));
    root = nullptr;
    zelCore::shutdown();
    EXPECT_TRUE(isDone);
    EXPECT_THAT(client.receive(), StartsWith("HTTP/1.1 200"));
}

TEST_F(RemoteCommandServerTest, TellsItsPortWhenItStarts) {
    const StreamCapture output(std::cout);
    EXPECT_TRUE(server->start(zelNet::AnyPort, false));
    EXPECT_TRUE(server->isStarted());
    EXPECT_FALSE(server->isUsingSSL());
    EXPECT_GT(server->getPort(), 0);
    EXPECT_EQ(output.text(),
              "RemoteCommandServer started on port " + std::to_string(server->getPort()) +
                  ", using SSL: NO\n");
    server->service();
}

TEST_F(RemoteCommandServerTest, ASecondStartChangesNothing) {
    start();
    const zel::uint16 port = server->getPort();
    const StreamCapture output(std::cout);
    EXPECT_TRUE(server->start(0, true));
    const zel::ref_ptr<zelNet::PortRange> range(new zelNet::PortRange(1, 2));
    EXPECT_TRUE(server->start(range.get(), true));
    EXPECT_EQ(server->getPort(), port);
    EXPECT_EQ(output.text(), "");
    EXPECT_EQ(range->getPort(), 1U) << "no port was tried";
    EXPECT_THAT(exchangeHttp(port, "GET / HTTP/1.1\r\nHost: localhost\r\n\r\n", 0x7F000002),
                StartsWith("HTTP/1.1 403"));
}

TEST_F(RemoteCommandServerTest, StartsAgainAfterAStop) {
    server->stop(); // nothing to do
    start();
    server->stop();
    EXPECT_FALSE(server->isStarted());
    server->stop();
    start();
    EXPECT_TRUE(server->isStarted());
    EXPECT_EQ(bodyOf(get("/")), "the page");
}

TEST_F(RemoteCommandServerTest, StopLetsTheScriptListenersGo) {
    const zel::ref_ptr<Listener> listener(new Listener);
    start();
    server->add(listener.get());
    EXPECT_EQ(ask("/zelRemote/Script?text=x"),
              "{\"errorStr\":\"\",\"printStr\":\"ran x\",\"success\":true}\n");
    server->stop();
    EXPECT_EQ(listener->referenceCount(), 1);
    start();
    EXPECT_EQ(ask("/zelRemote/Script?text=x"), "");
}

TEST_F(RemoteCommandServerTest, AHandlerCanNotStopTheServerThatCallsIt) {
    std::string told;
    server->registerHandler("/stop", [&](RemoteCommandServer* own, auto*, const auto&) {
        told = whatOf([&] { own->stop(); });
        return true;
    });
    start();
    EXPECT_EQ(get("/stop"), RouteHead);
    EXPECT_TRUE(server->isStarted());
    settle();
    EXPECT_EQ(told, "RemoteCommandServer: a handler can not stop the server that calls it");
    EXPECT_EQ(bodyOf(get("/")), "the page");
}

TEST_F(RemoteCommandServerTest, StopsWithClientsConnected) {
    start();
    RawClient silent;
    RawClient slow;
    silent.connect(server->getPort());
    slow.connect(server->getPort());
    slow.send("GET /zel");
    server->stop();
    EXPECT_FALSE(server->isStarted());
}

// What keeps it from starting

TEST_F(RemoteCommandServerTest, APortThatCanNotBeHadIsTold) {
    RawClient taken;
    const int port = taken.listen();
    const LogCapture log(zel::Notify::Warning);
    EXPECT_FALSE(server->start(static_cast<zel::uint16>(port), false));
    EXPECT_FALSE(server->start(port, false));
    EXPECT_FALSE(server->start(70000, false));
    const std::string line = "Unable to start RemoteCommandServer on port ";
    EXPECT_EQ(log.text(),
              line + std::to_string(port) + "\n" + line + std::to_string(port) + "\n" + line + "70000\n");
    EXPECT_FALSE(server->isStarted());
}

TEST_F(RemoteCommandServerTest, TriesThePortsOfARangeInTurn) {
    RawClient first;
    const int port = first.listen();
    ASSERT_LT(port, 65000);
    const zel::ref_ptr<zelNet::PortRange> range(
        new zelNet::PortRange(static_cast<zel::uint16>(port), static_cast<zel::uint16>(port + 100)));
    ASSERT_TRUE(server->start(range.get(), false));
    EXPECT_GT(server->getPort(), port);
    EXPECT_LE(server->getPort(), port + 100);
    EXPECT_EQ(bodyOf(get("/")), "the page");
}

TEST_F(RemoteCommandServerTest, ARangeThatIsUsedUpIsTold) {
    RawClient taken;
    const int port = taken.listen();
    const zel::ref_ptr<zelNet::PortRange> range(
        new zelNet::PortRange(static_cast<zel::uint16>(port), static_cast<zel::uint16>(port + 1)));
    RawClient next;
    const int isOurs = next.listen(port + 1); // or somebody else's
    static_cast<void>(isOurs);
    const LogCapture log(zel::Notify::Warning);
    EXPECT_FALSE(server->start(range.get(), false));
    const std::string numbers = std::to_string(port) + ":" + std::to_string(port + 1);
    EXPECT_THAT(log.text(),
                HasSubstr("Unable to start RemoteCommandServer with port range " + numbers + "\n"));
    EXPECT_FALSE(server->start(range.get(), false)) << "it stays used up";
}

TEST_F(RemoteCommandServerTest, WithoutThePageItDoesNotStart) {
    auto& plugins = Environment::instance()->getFilePath(Environment::PluginPath);
    const auto pluginPath = plugins.getFilePathList();
    plugins.clear();
    const std::string line = "Unable to start RemoteCommandServer, could not locate index.html\n";
    const LogCapture log(zel::Notify::Warning);
    EXPECT_FALSE(server->start(0, false));
    EXPECT_EQ(log.text(), line);
    const zel::ref_ptr<zelNet::PortRange> range(new zelNet::PortRange(4000, 4001));
    EXPECT_FALSE(server->start(range.get(), false));
    EXPECT_EQ(log.text(),
              line + line + line + "Unable to start RemoteCommandServer with port range 4000:4001\n");
    plugins.setFilePathList(pluginPath);
}

TEST(RemoteCommandServerLifeTest, WithoutARootItDoesNotStart) {
    zelCore::init();
    const TempDirectory directory;
    directory.write("Web/index.html", "the page");
    auto& plugins = Environment::instance()->getFilePath(Environment::PluginPath);
    auto& resources = Environment::instance()->getFilePath(Environment::ResourcePath);
    const auto pluginPath = plugins.getFilePathList();
    const auto resourcePath = resources.getFilePathList();
    plugins.setFilePath(directory.path());
    resources.clear();
    {
        const LogCapture log(zel::Notify::Warning);
        EXPECT_FALSE(RemoteCommandServer::instance()->start(0, false));
        EXPECT_THAT(log.text(),
                    HasSubstr("\nUnable to start RemoteCommandServer: Unable to load system root using path: "
                              "'Root.zelComponent'\n"));
        EXPECT_FALSE(RemoteCommandServer::instance()->isStarted());
    }
    plugins.setFilePathList(pluginPath);
    resources.setFilePathList(resourcePath);
    zelCore::shutdown();
}

TEST_F(RemoteCommandServerTest, WithACertificateItNeverFallsBackToPlainText) {
    const std::string file = directory.write("server.pem", "");
    ASSERT_EQ(setenv("ZEL_SSL_PEM_FILE", file.c_str(), 1), 0);
    const LogCapture log(zel::Notify::Warning);
    EXPECT_FALSE(server->start(0, false));
    unsetenv("ZEL_SSL_PEM_FILE");
    EXPECT_EQ(log.text(),
              "RemoteCommandServer: HTTPS is not available in the installed civetweb\n"
              "Unable to start RemoteCommandServer on port 0\n");
    EXPECT_FALSE(server->isStarted());
    EXPECT_FALSE(server->isUsingSSL());
}

TEST(RemoteCommandServerLifeTest, AddsTheDirectoriesOfCertificatesToTheResourcePath) {
    zelCore::init();
    ASSERT_EQ(setenv("ZEL_SSL_CERT_DIR", "/one:/two", 1), 0);
    static_cast<void>(RemoteCommandServer::instance());
    unsetenv("ZEL_SSL_CERT_DIR");
    auto& path = Environment::instance()->getFilePath(Environment::ResourcePath);
    EXPECT_TRUE(path.getFilePathList().contains("/one"));
    EXPECT_EQ(path.getFilePathList().back(), "/two");
    path.removeFilePath("/one");
    path.removeFilePath("/two");
    zelCore::shutdown();
}

// Handlers

TEST_F(RemoteCommandServerTest, ASecondHandlerReplacesTheFirst) {
    start();
    server->registerHandler("/mine", sayText("first"));
    EXPECT_EQ(ask("/mine"), "\"first\"\n");
    server->registerHandler("/mine", sayText("second"));
    EXPECT_EQ(ask("/mine"), "\"second\"\n");
    server->registerHandler("/mine", nullptr);
    EXPECT_THAT(get("/mine"), StartsWith("HTTP/1.1 404"));
    server->registerHandler("/mine", sayText("third"));
    server->unregisterHandler("/mine");
    server->unregisterHandler("/mine");
    EXPECT_THAT(get("/mine"), StartsWith("HTTP/1.1 404"));
    server->registerHandler("/zelRemote/Command", sayText("own"));
    EXPECT_EQ(ask("/zelRemote/Command?text="), "\"own\"\n");
}

TEST_F(RemoteCommandServerTest, AHandlerThatIsReplacedDuringItsCallEndsIt) {
    server->registerHandler("/mine",
                            [kept = std::make_shared<std::string>("kept")](
                                RemoteCommandServer* own, auto* connection, const auto&) {
                                own->registerHandler("/mine", sayText("next"));
                                RemoteCommandServer::writeResponse(Json::Value(*kept), connection);
                                return true;
                            });
    start();
    EXPECT_EQ(ask("/mine"), "\"kept\"\n");
    EXPECT_EQ(ask("/mine"), "\"next\"\n");
}

TEST_F(RemoteCommandServerTest, HandlersAreFoundByTheDecodedPathWithoutQuery) {
    server->registerHandler("/a b", sayText("blank"));
    server->registerHandler("/a+b", sayText("plus"));
    start();
    EXPECT_EQ(ask("/a%20b?x=/a+b"), "\"blank\"\n");
    EXPECT_EQ(ask("/a+b"), "\"plus\"\n");
    EXPECT_EQ(ask("/%61%2Bb"), "\"plus\"\n");
    EXPECT_THAT(get("/A+B"), StartsWith("HTTP/1.1 404"));
    EXPECT_THAT(get("/a+b/"), StartsWith("HTTP/1.1 404"));
    EXPECT_THAT(get("/a+b%00"), StartsWith("HTTP/1.1 404"));
}

TEST_F(RemoteCommandServerTest, ArgumentsAreDecodedAndTheLastOfEqualKeysWins) {
    Arguments seen;
    server->registerHandler("/arguments", [&](auto*, auto*, const Arguments& arguments) {
        seen = arguments;
        return true;
    });
    start();
    const LogCapture log;
    EXPECT_EQ(get("/arguments?text=x&text=a+b&TEXT=c%2Bd&&=e&f=g=h&i=&%6A=k&bare&text%20=l"), RouteHead);
    settle();
    EXPECT_EQ(seen.size(), 7U);
    EXPECT_EQ(seen["text"], "a b");
    EXPECT_EQ(seen["TEXT"], "c+d");
    EXPECT_EQ(seen[""], "e");
    EXPECT_EQ(seen["f"], "g=h");
    EXPECT_EQ(seen["i"], "");
    EXPECT_EQ(seen["%6A"], "k") << "keys stand as they are";
    EXPECT_EQ(seen["text%20"], "l");
    EXPECT_THAT(log.text(), ContainsRegex("\\] Invalid query string: bare\n"));
    EXPECT_EQ(get("/arguments"), RouteHead);
    settle();
    EXPECT_EQ(seen.size(), 0U);
}

TEST(RemoteCommandServerArgumentsTest, AMissingKeyReadsAsOneEmptyText) {
    const Arguments arguments;
    EXPECT_EQ(arguments["none"], "");
    EXPECT_EQ(&arguments["none"], &arguments["other"]);
    EXPECT_EQ(arguments.size(), 0U);
}

TEST(RemoteCommandServerArgumentsTest, GetVarTakesTheFirstWhateverItsCase) {
    const auto var = [](const std::string& data, const char* name) {
        return RemoteCommandServer::get_var(data.data(), data.size(), name);
    };
    EXPECT_EQ(var("a=1&Text=x%20y+z&text=b", "tExt"), "x y z");
    EXPECT_EQ(var("text=b", "text"), "b");
    EXPECT_EQ(var("text=", "text"), "");
    EXPECT_EQ(var("context=b", "text"), "");
    EXPECT_EQ(var("textual=b&text", "text"), "");
    EXPECT_EQ(var("", "text"), "");
    EXPECT_EQ(RemoteCommandServer::get_var("text=ab", 6, "text"), "a") << "the size counts";
    EXPECT_EQ(RemoteCommandServer::get_var(nullptr, 0, "text"), "");
}

TEST_F(RemoteCommandServerTest, GetQsvarLooksAtTheQuery) {
    std::string seen;
    server->registerHandler("/var", [&](auto*, mg_connection* connection, const auto&) {
        seen = RemoteCommandServer::get_qsvar(connection, "A");
        return true;
    });
    start();
    EXPECT_EQ(get("/var?b=1&a=2+3"), RouteHead);
    settle();
    EXPECT_EQ(seen, "2 3");
    EXPECT_EQ(get("/var"), RouteHead);
    settle();
    EXPECT_EQ(seen, "");
}

TEST_F(RemoteCommandServerTest, ADummyResponseIsNull) {
    server->registerHandler("/dummy", [](auto*, mg_connection* connection, const auto&) {
        RemoteCommandServer::writeDummyResponse(connection);
        return true;
    });
    start();
    EXPECT_EQ(get("/dummy"), RouteHead + "null\n");
}

TEST_F(RemoteCommandServerTest, AHandlerThatFailsIsAWarningAndNothingMore) {
    server->registerHandler("/fails", [](auto*, auto*, const auto&) { return false; });
    start();
    const LogCapture log(zel::Notify::Warning);
    EXPECT_EQ(get("/fails"), RouteHead);
    settle();
    EXPECT_EQ(log.text(), "HTTP handler failed for uri  '/fails'\n");
}

TEST_F(RemoteCommandServerTest, WhatAHandlerThrowsIsTheAnswer) {
    server->registerHandler(
        "/bad", [](auto*, auto*, const auto&) -> bool { throw std::runtime_error("oops\x1b[2J\n"); });
    server->registerHandler("/worse", [](auto*, auto*, const auto&) -> bool { throw 1; });
    start();
    const LogCapture log;
    EXPECT_EQ(ask("/bad"), "{\"exception\":\"oops\\u001b[2J\\n\",\"uri\":\"/bad\"}\n");
    EXPECT_EQ(ask("/worse"), "{\"exception\":\"unknown exception\",\"uri\":\"/worse\"}\n");
    settle();
    EXPECT_THAT(log.text(),
                HasSubstr("] Uncaught exception in HTTP request handler for '/bad'. Description: "
                          "oops.[2J.\n"));
    EXPECT_THAT(log.text(), HasSubstr("for '/worse'. Description: unknown exception\n"));
}

/// Takes the bytes from the stack, and uses them.
[[gnu::noinline]] int useStack() {
    volatile char block[4 << 20];
    for (std::size_t i = 0; i < sizeof(block); i += 4096)
        block[i] = 1;
    return block[4096];
}

TEST_F(RemoteCommandServerTest, HandlersHaveRoomOnTheirStack) {
    int sum = 0;
    bool isKnown = false;
    server->registerHandler("/room", [&](auto*, auto*, const auto&) {
        sum += useStack();
        isKnown = zel::Thread::getCurrentThread() != nullptr;
        return true;
    });
    start();
    EXPECT_EQ(get("/room"), RouteHead);
    EXPECT_EQ(get("/room"), RouteHead);
    settle();
    EXPECT_EQ(sum, 2);
    EXPECT_TRUE(isKnown);
}

TEST_F(RemoteCommandServerTest, AnAnswerThatIsCutShortIsTold) {
    server->registerHandler("/big", sayText(std::string(200'000'000, 'x')));
    start();
    const LogCapture log;
    {
        RawClient client;
        client.limitReceived(4096);
        client.connect(server->getPort());
        client.resetAtEnd();
        client.send("GET /big HTTP/1.1\r\nHost: localhost\r\n\r\n");
        EXPECT_EQ(client.receiveOne(), 'H');
    }
    EXPECT_EQ(bodyOf(get("/")), "the page");
    settle();
    EXPECT_THAT(log.text(),
                ContainsRegex("Uncaught exception in HTTP request handler for '/big'. Description: .*"
                              "zelVerify failed: `numWritten == .int.responseString.size.*\n"));
    EXPECT_THAT(log.text(), HasSubstr("] Failed to send error message to client\n"));
}

// Callbacks of foreign scripts

TEST_F(RemoteCommandServerTest, TheCallbackStandsAheadOfTheStatusLine) {
    server->registerHandler("/mine", sayText("x"));
    start();
    EXPECT_EQ(get("/mine?callback=f"), "f(" + RouteHead + "\"x\"\n)");
    EXPECT_EQ(get("/mine?CALLBACK=_a$.b9"), "_a$.b9(" + RouteHead + "\"x\"\n)");
    EXPECT_EQ(get("/mine?callback=" + std::string(64, 'a')),
              std::string(64, 'a') + "(" + RouteHead + "\"x\"\n)");
    EXPECT_EQ(get("/index.html?callback=f"), "f()the page") << "with which the headers are over";
}

TEST_F(RemoteCommandServerTest, WhatIsNoNameOfAFunctionIsNoCallback) {
    server->registerHandler("/mine", sayText("x"));
    start();
    for (const std::string& name : {std::string(),
                                    std::string("alert(1)"),
                                    std::string("9a"),
                                    std::string(".a"),
                                    std::string("a-b"),
                                    std::string("a%3Cscript%3E"),
                                    std::string("a%0d%0aSet-Cookie:%20b"),
                                    std::string("a%00"),
                                    std::string("%c3%a4"),
                                    std::string("a+b"),
                                    std::string(65, 'a')})
        EXPECT_EQ(get("/mine?callback=" + name), RouteHead + "\"x\"\n") << name;
}

// Who may ask

TEST_F(RemoteCommandServerTest, WithoutATokenNoneIsAskedFor) {
    start();
    EXPECT_EQ(bodyOf(get("/")), "the page");
    EXPECT_EQ(bodyOf(get("/", "Token: any\r\n")), "the page");
}

TEST_F(RemoteCommandServerTest, WithATokenEvenThePageNeedsIt) {
    server->setAuthenticationToken("abc");
    EXPECT_EQ(server->getAuthenticationToken(), "abc");
    start();
    const LogCapture log;
    for (const char* const headers : {"",
                                      "Token: abd\r\n",
                                      "Token: ab\r\n",
                                      "Token: abcd\r\n",
                                      "Token: ABC\r\n",
                                      "Token:\r\n",
                                      "Tokens: abc\r\n",
                                      "Cookie: Token=abc\r\n",
                                      "Token: abd\r\nToken: abc\r\n"})
        for (const char* const uri : {"/index.html", "/", "/zelRemote/Command?text=", "/missing"}) {
            const std::string answer = get(uri, headers);
            EXPECT_THAT(answer, StartsWith("HTTP/1.1 403")) << uri << headers;
            EXPECT_THAT(answer, HasSubstr("Authentication token mismatch!")) << uri << headers;
            EXPECT_THAT(answer, Not(HasSubstr("the page"))) << uri << headers;
        }
    settle();
    EXPECT_THAT(log.text(), HasSubstr("] Authentication token mismatch!\n"));
    EXPECT_EQ(bodyOf(get("/", "Token: abc\r\n")), "the page");
    EXPECT_EQ(bodyOf(get("/", "token: abc\r\n")), "the page");
    server->setAuthenticationToken("");
    EXPECT_EQ(bodyOf(get("/")), "the page") << "from the next request on";
}

TEST_F(RemoteCommandServerTest, OnlyOneAddressIsLocal) {
    start();
    const std::string request = "GET / HTTP/1.1\r\nHost: localhost\r\n";
    const std::string text = "Rejecting non-local request from client127.0.0.2";
    const LogCapture log;
    const StreamCapture output(std::cout);
    const std::string answer = exchangeHttp(server->getPort(), request + "\r\n", 0x7F000002);
    EXPECT_THAT(answer, StartsWith("HTTP/1.1 403"));
    EXPECT_THAT(answer, HasSubstr(text));
    EXPECT_THAT(answer, Not(HasSubstr("the page")));
    settle();
    EXPECT_EQ(output.text(), text + "\n");
    EXPECT_THAT(log.text(), HasSubstr("] HTTP request '/' from client 127.0.0.2\n"));

    server->setAuthenticationToken("abc");
    EXPECT_THAT(exchangeHttp(server->getPort(), request + "\r\n", 0x7F000002),
                HasSubstr("Authentication token mismatch!"))
        << "the token comes first";
    EXPECT_THAT(exchangeHttp(server->getPort(), request + "Token: abc\r\n\r\n", 0x7F000002), HasSubstr(text));
}

TEST_F(RemoteCommandServerTest, RemoteClientsMayBeAllowed) {
    start(true);
    EXPECT_EQ(
        bodyOf(exchangeHttp(server->getPort(), "GET / HTTP/1.1\r\nHost: localhost\r\n\r\n", 0x7F000002)),
        "the page");
}

TEST_F(RemoteCommandServerTest, ForeignPagesAreRefusedWhateverIsAllowed) {
    start(true);
    const std::string refusal = "Rejecting non-local request from client127.0.0.1";
    const StreamCapture output(std::cout);
    for (const char* const headers : {"",
                                      "Host: evil.example\r\n",
                                      "Host: localhost.evil.example\r\n",
                                      "Host: 127.0.0.1.evil.example\r\n",
                                      "Host: localhost\r\nOrigin: http://evil.example\r\n",
                                      "Host: localhost\r\nOrigin: null\r\n",
                                      "Host: localhost\r\nSec-Fetch-Site: cross-site\r\n"})
        for (const char* const uri : {"/", "/zelRemote/Command?text="}) {
            const std::string answer = requestHttp(server->getPort(), uri, headers);
            EXPECT_THAT(answer, StartsWith("HTTP/1.1 403")) << headers;
            EXPECT_THAT(answer, HasSubstr(refusal)) << headers;
            EXPECT_THAT(answer, Not(HasSubstr("Access-Control"))) << headers;
        }
    for (const char* const headers : {"Host: 192.0.2.1:80\r\n",
                                      "Host: [::1]:80\r\n",
                                      "Host: localhost:1\r\nOrigin: http://localhost:2\r\n",
                                      "Host: localhost\r\nSec-Fetch-Site: same-origin\r\n"})
        EXPECT_EQ(bodyOf(requestHttp(server->getPort(), "/", headers)), "the page") << headers;
    server->setAuthenticationToken("abc");
    EXPECT_THAT(requestHttp(server->getPort(), "/", "Host: evil.example\r\n"),
                HasSubstr("Authentication token mismatch!"))
        << "the token comes first";
    const char* const known = "Host: command.example\r\nToken: abc\r\n";
    EXPECT_THAT(requestHttp(server->getPort(), "/", known), HasSubstr(refusal));
    zelNet::allowHost("command.example");
    EXPECT_EQ(bodyOf(requestHttp(server->getPort(), "/", known)), "the page");
}

// The log

// The compiler wants to see the formats.
#define TEN(x) x x x x x x x x x x
#define THOUSAND(x) TEN(TEN(TEN(x)))

TEST_F(RemoteCommandServerTest, LogsWithTheTimeAtLevelDebug) {
    const LogCapture log;
    server->log("%s is %d", "x", 5);
    ASSERT_EQ(log.texts().size(), 1U);
    EXPECT_THAT(log.text(), MatchesRegex("\\[[^]]*[0-9]+[^]]*\\] x is 5\n"));
    EXPECT_EQ(log.levels().front(), static_cast<int>(zel::Notify::Debug));
}

TEST_F(RemoteCommandServerTest, AFormatOfTheLogHas4096BytesWithTheTime) {
    const LogCapture log;
    server->log(THOUSAND("xxxx"));
    EXPECT_THAT(log.text(), testing::EndsWith("] " + std::string(4000, 'x') + "\n"));
    const std::string argument(10000, 'y');
    server->log("%s", argument.c_str());
    EXPECT_THAT(log.text(), testing::EndsWith("] " + argument + "\n")) << "arguments are not counted";
}

TEST(RemoteCommandServerDeathTest, AnEndlessFormatOfTheLogIsFatal) {
    zelCore::init();
    EXPECT_DEATH(RemoteCommandServer::instance()->log(THOUSAND("xxxxx")),
                 "zelVerify failed: `numPrinted < FORMAT_BUFFER_SIZE'");
    zelCore::shutdown();
}

TEST(RemoteCommandServerDeathTest, ACallbackWithoutItsServerIsFatal) {
    EXPECT_DEATH(RemoteCommandServer::mgAuthCallback(nullptr, nullptr), "zelVerify failed: `commandServer'");
    EXPECT_DEATH(RemoteCommandServer::mgRequestCallback(nullptr, nullptr),
                 "zelVerify failed: `commandServer'");
}

} // namespace

} // namespace zelTest
