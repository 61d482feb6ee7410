#include "CommandServerFixture.h"

#include <sys/stat.h>

#include <filesystem>
#include <vector>

using testing::AllOf;
using testing::AnyOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using zelIO::RemoteCommandServer;

namespace zelTest {

namespace {

/// Clients that mean no good.
class RemoteCommandServerMaliciousTest : public CommandServerFixture {
protected:
    void SetUp() override {
        CommandServerFixture::SetUp();
        directory.write("secret.txt", "secret");
        directory.write("Web2/index.html", "secret");
        directory.write("Web/data.txt", "data");
        start();
    }
    void TearDown() override {
        EXPECT_EQ(bodyOf(get("/")), "the page") << "it serves as before";
        EXPECT_EQ(directory.read("Web/data.txt"), "data");
        CommandServerFixture::TearDown();
    }
    [[nodiscard]] std::string exchange(const std::string& bytes) const {
        return exchangeHttp(server->getPort(), bytes);
    }
};

TEST_F(RemoteCommandServerMaliciousTest, AllMethodsButTwoAreRefused) {
    bool isCalled = false;
    server->registerHandler("/mine", [&](auto*, auto*, const auto&) { return isCalled = true; });
    const std::string headers = "Host: localhost\r\nContent-Length: 4\r\n";
    for (const char* const method :
         {"POST", "PUT", "DELETE", "OPTIONS", "PROPFIND", "PATCH", "MKCOL", "REPORT"})
        for (const char* const uri : {"/data.txt", "/new.txt", "/", "/mine", "/zelRemote/Script?text=x"}) {
            const std::string answer =
                exchange(std::string(method) + " " + uri + " HTTP/1.1\r\n" + headers + "\r\nbody");
            EXPECT_THAT(answer, StartsWith("HTTP/1.1 405")) << method << uri;
            EXPECT_THAT(answer, HasSubstr("Only GET and HEAD are allowed")) << method << uri;
        }
    for (const char* const method : {"TRACE", "CONNECT", "get", "GETS", "LOCK", ""})
        EXPECT_THAT(exchange(std::string(method) + " /mine HTTP/1.1\r\nHost: localhost\r\n\r\n"),
                    Not(HasSubstr("HTTP/1.1 200")))
            << method;
    // What a browser asks ahead of a foreign page's request.
    EXPECT_THAT(
        exchange("OPTIONS /mine HTTP/1.1\r\nHost: localhost\r\nOrigin: http://evil.example\r\n"
                 "Access-Control-Request-Method: GET\r\nAccess-Control-Request-Headers: Token\r\n\r\n"),
        AllOf(StartsWith("HTTP/1.1 405"), Not(HasSubstr("Access-Control-Allow"))));
    settle();
    EXPECT_FALSE(isCalled);
    EXPECT_FALSE(std::filesystem::exists(directory / "Web/new.txt"));
}

TEST_F(RemoteCommandServerMaliciousTest, HeadGivesTheHeadersOnlyAndCallsNoHandler) {
    bool isCalled = false;
    server->registerHandler("/mine", [&](auto*, auto*, const auto&) { return isCalled = true; });
    const auto head = [&](const std::string& uri) {
        return exchange("HEAD " + uri + " HTTP/1.1\r\nHost: localhost\r\n\r\n");
    };
    EXPECT_EQ(head("/mine?callback=f"), RouteHead);
    EXPECT_EQ(head("/zelRemote/Command?text="), RouteHead);
    settle();
    EXPECT_FALSE(isCalled);
    EXPECT_THAT(head("/data.txt"), AllOf(StartsWith("HTTP/1.1 200"), HasSubstr("Content-Length: 4\r\n")));
    EXPECT_EQ(bodyOf(head("/data.txt")), "");
    EXPECT_THAT(head("/../secret.txt"), StartsWith("HTTP/1.1 404"));
}

TEST_F(RemoteCommandServerMaliciousTest, NothingOutsideOfThePageIsServed) {
    namespace fs = std::filesystem;
    fs::create_symlink("../secret.txt", directory / "Web/outside.txt");
    fs::create_directory_symlink("../Web2", directory / "Web/outside");
    fs::create_directory_symlink("/", directory / "Web/all");
    fs::create_symlink("loop.txt", directory / "Web/loop.txt");
    ASSERT_EQ(::mkfifo((directory / "Web/pipe.txt").c_str(), 0600), 0);
    for (const std::string& uri : {std::string("/../secret.txt"),
                                   std::string("/./../secret.txt"),
                                   std::string("/%2e%2e/secret.txt"),
                                   std::string("/%2E%2E%2Fsecret.txt"),
                                   std::string("/..%2fsecret.txt"),
                                   std::string("/..%5csecret.txt"),
                                   std::string("/..\\secret.txt"),
                                   std::string("/%252e%252e/secret.txt"),
                                   std::string("/%c0%ae%c0%ae/secret.txt"),
                                   std::string("/....//secret.txt"),
                                   std::string("/../Web2/"),
                                   std::string("/../Web2/index.html"),
                                   std::string("/outside.txt"),
                                   std::string("/outside"),
                                   std::string("/outside/index.html"),
                                   std::string("/all/etc/passwd"),
                                   std::string("/loop.txt"),
                                   std::string("/pipe.txt"),
                                   std::string("/data.txt%00"),
                                   std::string("/data.txt%00.html"),
                                   std::string("/%00"),
                                   std::string("/%"),
                                   std::string("/%zz"),
                                   std::string("/data.txt/"),
                                   std::string("//etc/passwd"),
                                   std::string("/%2fetc%2fpasswd"),
                                   "/" + (directory / "secret.txt"),
                                   "//" + (directory / "secret.txt"),
                                   std::string("file:///etc/passwd")}) {
        const std::string answer = get(uri);
        EXPECT_THAT(answer, AnyOf(StartsWith("HTTP/1.1 40"), "")) << uri;
        EXPECT_THAT(answer, Not(AnyOf(HasSubstr("secret\n"), HasSubstr("root:")))) << uri;
    }
}

TEST_F(RemoteCommandServerMaliciousTest, OtherProtocolsGetNoFile) {
    for (const char* const headers :
         {"Upgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
          "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n",
          "Upgrade: h2c\r\nConnection: Upgrade, HTTP2-Settings\r\nHTTP2-Settings: AAMAAABkAAQAAP__\r\n"}) {
        std::filesystem::remove(directory / "Web/outside.txt");
        std::filesystem::create_symlink("../secret.txt", directory / "Web/outside.txt");
        EXPECT_THAT(get("/outside.txt", headers), Not(HasSubstr("secret"))) << headers;
        EXPECT_THAT(exchange(std::string("GET / HTTP/1.1\r\nHost: evil.example\r\n") + headers + "\r\n"),
                    Not(HasSubstr("the page")))
            << headers;
        server->setAuthenticationToken("abc");
        EXPECT_THAT(get("/", headers), Not(HasSubstr("the page"))) << headers;
        server->setAuthenticationToken("");
    }
}

TEST_F(RemoteCommandServerMaliciousTest, RubbishGetsNoFile) {
    for (const std::string& bytes :
         {std::string("\r\n\r\n"),
          std::string("GET\r\n\r\n"),
          std::string("GET / HTTP/9.9\r\nHost: localhost\r\n\r\n"),
          std::string("GET data.txt HTTP/1.1\r\nHost: localhost\r\n\r\n"),
          std::string("GET /") + '\0' + "data.txt HTTP/1.1\r\nHost: localhost\r\n\r\n",
          std::string("\x16\x03\x01\x02\x00\x01\r\n\r\n", 10),
          std::string("PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n"),
          "GET /" + std::string(100'000, 'a') + " HTTP/1.1\r\nHost: localhost\r\n\r\n",
          "GET / HTTP/1.1\r\nHost: localhost\r\n" + std::string(100'000, 'a') + ": b\r\n\r\n",
          "GET / HTTP/1.1\r\nHost: " + std::string(100'000, 'a') + "\r\n\r\n"}) {
        RawClient client;
        client.connect(server->getPort());
        client.sendSome(bytes);
        EXPECT_THAT(client.receive(), Not(HasSubstr("HTTP/1.1 200"))) << bytes.substr(0, 40);
    }
}

TEST_F(RemoteCommandServerMaliciousTest, AnAddressInTheRequestLineIsCheckedAsWell) {
    EXPECT_THAT(exchange("GET http://evil.example/ HTTP/1.1\r\nHost: evil.example\r\n\r\n"),
                Not(HasSubstr("the page")));
    EXPECT_THAT(exchange("GET http://localhost/../secret.txt HTTP/1.1\r\nHost: localhost\r\n\r\n"),
                Not(HasSubstr("secret\n")));
}

TEST_F(RemoteCommandServerMaliciousTest, LongAndOddArgumentsReachTheHandler) {
    std::string seen;
    server->registerHandler("/text", [&](auto*, auto*, const auto& arguments) {
        seen = arguments["text"];
        return true;
    });
    const std::string text(15'000, 'x');
    EXPECT_EQ(get("/text?text=" + text), RouteHead);
    settle();
    EXPECT_EQ(seen, text);
    EXPECT_EQ(get("/text?text=%00%ff%zz%4"), RouteHead);
    EXPECT_THAT(get("/zelRemote/Command?text=%ff%fe" + text), StartsWith(RouteHead + "{\"success\":false}"));
    EXPECT_THAT(get("/zelRemote/AutoComplete?text=%ff%00." + text),
                StartsWith(RouteHead + "{\"hasMatch\":false"));
    std::string parts;
    for (int i = 0; i < 3000; ++i)
        parts += "a&=";
    EXPECT_EQ(get("/text?" + parts), RouteHead);
    settle();
}

TEST_F(RemoteCommandServerMaliciousTest, WhatIsLoggedAndPrintedSteersNoTerminal) {
    const LogCapture log;
    const StreamCapture output(std::cout);
    for (const char* const uri : {"/%1b[2J%0a%07",
                                  "/zelRemote/Command?text=%1b[2J%0a",
                                  "/zelRemote/AutoComplete?text=%1b[2J%0a",
                                  "/zelComponent/Read?path=%1b%0a",
                                  "/zelRemote/Script?%1b"})
        static_cast<void>(get(uri));
    settle();
    EXPECT_THAT(log.text() + output.text(), Not(AnyOf(HasSubstr("\x1b"), HasSubstr("\x07"))));
    EXPECT_THAT(log.text(), HasSubstr("] HTTP request '/.[2J..' from client 127.0.0.1\n"));
    EXPECT_THAT(output.text(), HasSubstr("command: .[2J.\n"));
}

TEST_F(RemoteCommandServerMaliciousTest, ASlowClientIsDroppedSoThatOthersAreServed) {
    RawClient slow;
    slow.connect(server->getPort());
    slow.send("GET / HTTP/1.1\r\nHost: loc");
    EXPECT_EQ(bodyOf(get("/")), "the page");
}

TEST_F(RemoteCommandServerMaliciousTest, ConnectionsThatEndAtAnyPointDoNoHarm) {
    const std::string request = "GET /zelRemote/Command?text= HTTP/1.1\r\nHost: localhost\r\n\r\n";
    for (std::size_t size = 0; size <= request.size(); size += 5)
        for (const bool withReset : {false, true}) {
            RawClient client;
            client.connect(server->getPort());
            client.send(request.substr(0, size));
            if (withReset)
                client.resetAtEnd();
        }
}

TEST_F(RemoteCommandServerMaliciousTest, ManyConnectionsAreServedInTurn) {
    std::vector<RawClient> clients(100);
    for (RawClient& client : clients) {
        client.connect(server->getPort());
        client.send("GET /data.txt HTTP/1.1\r\nHost: localhost\r\n\r\n");
    }
    for (RawClient& client : clients)
        EXPECT_EQ(bodyOf(client.receive()), "data");
}

TEST_F(RemoteCommandServerMaliciousTest, GuessesOfTheTokenAllFail) {
    const std::string token = "0123456789abcdef";
    server->setAuthenticationToken(token);
    for (std::size_t i = 0; i < token.size(); ++i) {
        std::string guess = token;
        guess[i] = 'x';
        EXPECT_THAT(get("/", "Token: " + guess + "\r\n"), StartsWith("HTTP/1.1 403")) << guess;
        EXPECT_THAT(get("/", "Token: " + token.substr(0, i) + "\r\n"), StartsWith("HTTP/1.1 403"));
    }
    for (std::size_t i = 0; i < 1000; ++i) // of all lengths, and with each first character that a token has
        ASSERT_THAT(get("/", "Token: " + (token + token).substr(i % 16, i % 31) + "g\r\n"),
                    StartsWith("HTTP/1.1 403"));
    EXPECT_EQ(bodyOf(get("/", "Token: " + token + "\r\n")), "the page");
    server->setAuthenticationToken("");
}

} // namespace

} // namespace zelTest
