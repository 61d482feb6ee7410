#include "RawHttp.h"
#include "support/LogCapture.h"
#include "support/StreamCapture.h"
#include "support/TempDirectory.h"

#include <zelIO/Environment.h>
#include <zelNet/WebDebuggerServer.h>

#include <gmock/gmock.h>
#include <netdb.h>
#include <sys/stat.h>

#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <vector>

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using zelIO::Environment;
using zelNet::zelWebServer::WebDebuggerServer;
using zelTest::bodyOf;
using zelTest::exchangeHttp;
using zelTest::LogCapture;
using zelTest::RawClient;
using zelTest::requestHttp;
using zelTest::StreamCapture;
using zelTest::TempDirectory;
using zelTest::waitUntil;

namespace {

class WebDebuggerServerTest : public testing::Test {
protected:
    void SetUp() override {
        directory.write("root/index.html", "the page");
        directory.write("root/sub/index.html", "the page below");
        directory.write("root/data.txt", "0123456789");
        directory.write("root.txt", "secret");
        directory.write("root2/index.html", "secret");
        server = std::make_unique<WebDebuggerServer>(0, directory / "root");
    }
    void start() { ASSERT_TRUE(server->start()); }
    [[nodiscard]] std::uint16_t port() const { return static_cast<std::uint16_t>(server->getPort()); }
    [[nodiscard]] std::string get(const std::string& uri, const std::string& headers = "") const {
        return requestHttp(port(), uri, "Host: localhost\r\n" + headers);
    }

    TempDirectory directory;
    std::unique_ptr<WebDebuggerServer> server;
};

TEST_F(WebDebuggerServerTest, Port0BecomesTheRealOne) {
    EXPECT_EQ(server->getPort(), 0);
    EXPECT_FALSE(server->isRunning());
    start();
    EXPECT_TRUE(server->isRunning());
    EXPECT_GT(server->getPort(), 0);
    EXPECT_EQ(bodyOf(get("/data.txt")), "0123456789");
}

TEST_F(WebDebuggerServerTest, ServesThePageForTheRoot) {
    start();
    EXPECT_EQ(bodyOf(get("/")), "the page");
    EXPECT_EQ(bodyOf(get("/index.html")), "the page");
    EXPECT_EQ(bodyOf(get("/?a=%00")), "the page") << "the query is no name";
    EXPECT_THAT(get("/"), HasSubstr("Content-Type: text/html"));
    EXPECT_THAT(get("/"), Not(HasSubstr("Access-Control-Allow")));
}

TEST_F(WebDebuggerServerTest, ServesTheIndexOfADirectory) {
    directory.write("root/empty/data.txt", "data");
    start();
    EXPECT_EQ(bodyOf(get("/sub")), "the page below");
    EXPECT_EQ(bodyOf(get("/sub/")), "the page below");
    EXPECT_THAT(get("/empty/"), StartsWith("HTTP/1.1 404"));
    EXPECT_THAT(get("/empty/"), Not(HasSubstr("data.txt")));
}

TEST_F(WebDebuggerServerTest, ScriptsAndModulesHaveTheTypesThatBrowsersRun) {
    for (const char* const name : {"a.js", "a.mjs", "a.wasm", "a.unknown", "a.css", "a.JSX"})
        directory.write(std::string("root/") + name, "x");
    start();
    EXPECT_THAT(get("/a.js"), HasSubstr("Content-Type: text/javascript\r\n"));
    EXPECT_THAT(get("/a.mjs"), HasSubstr("Content-Type: text/javascript\r\n"));
    EXPECT_THAT(get("/a.wasm"), HasSubstr("Content-Type: application/wasm\r\n"));
    EXPECT_THAT(get("/a.unknown"), HasSubstr("Content-Type: text/plain\r\n"));
    EXPECT_THAT(get("/a.css"), HasSubstr("Content-Type: text/css\r\n"));
    EXPECT_THAT(get("/a.JSX"), HasSubstr("Content-Type: text/plain\r\n"));
}

TEST_F(WebDebuggerServerTest, AMissingFileIsNotFound) {
    start();
    EXPECT_THAT(get("/missing.html"), StartsWith("HTTP/1.1 404"));
    EXPECT_THAT(get("/data.txt/more"), StartsWith("HTTP/1.1 404"));
    EXPECT_THAT(get("/" + std::string(5000, 'a')), StartsWith("HTTP/1.1 404"));
}

TEST_F(WebDebuggerServerTest, HeadGivesTheHeadersOnly) {
    start();
    const std::string answer = requestHttp(port(), "/data.txt", "Host: localhost\r\n", "HEAD");
    EXPECT_THAT(answer, StartsWith("HTTP/1.1 200"));
    EXPECT_THAT(answer, HasSubstr("Content-Length: 10\r\n"));
    EXPECT_EQ(bodyOf(answer), "");
    EXPECT_THAT(requestHttp(port(), "/../root.txt", "Host: localhost\r\n", "HEAD"),
                StartsWith("HTTP/1.1 404"));
}

TEST_F(WebDebuggerServerTest, ServesARangeOfAFile) {
    start();
    const std::string answer = get("/data.txt", "Range: bytes=2-4\r\n");
    EXPECT_THAT(answer, StartsWith("HTTP/1.1 206"));
    EXPECT_EQ(bodyOf(answer), "234");
}

TEST_F(WebDebuggerServerTest, RefusesAllMethodsThatCouldChangeOrListFiles) {
    start();
    for (const char* const method : {"PUT", "DELETE", "PROPFIND", "OPTIONS", "POST", "PATCH", "MKCOL"}) {
        EXPECT_THAT(requestHttp(port(), "/data.txt", "Host: localhost\r\nContent-Length: 0\r\n", method),
                    StartsWith("HTTP/1.1 405"))
            << method;
        EXPECT_THAT(requestHttp(port(), "/", "Host: evil.example\r\nContent-Length: 0\r\n", method),
                    StartsWith("HTTP/1.1 405"))
            << method;
    }
    EXPECT_EQ(directory.read("root/data.txt"), "0123456789");
}

TEST_F(WebDebuggerServerTest, ServesNothingOutsideItsDirectory) {
    start();
    for (const std::string& uri : {std::string("/../root.txt"),
                                   std::string("/sub/../../root.txt"),
                                   std::string("/%2e%2e/root.txt"),
                                   std::string("/%2E%2E%2Froot.txt"),
                                   std::string("/..%2froot.txt"),
                                   std::string("/..%5croot.txt"),
                                   std::string("/%252e%252e/root.txt"),
                                   std::string("/../root2/"),
                                   std::string("/../root2/index.html"),
                                   "/" + (directory / "root.txt"),
                                   "//" + (directory / "root.txt"),
                                   "/%2f" + (directory / "root.txt")}) {
        const std::string answer = get(uri);
        EXPECT_THAT(answer, StartsWith("HTTP/1.1 40")) << uri;
        EXPECT_THAT(answer, Not(HasSubstr("secret"))) << uri;
    }
}

TEST_F(WebDebuggerServerTest, ServesLinksOnlyWithinItsDirectory) {
    namespace fs = std::filesystem;
    fs::create_symlink("data.txt", directory / "root/inside.txt");
    fs::create_symlink("../root.txt", directory / "root/outside.txt");
    fs::create_directory_symlink("../root2", directory / "root/outside");
    fs::create_symlink("loop.txt", directory / "root/loop.txt");
    start();
    EXPECT_EQ(bodyOf(get("/inside.txt")), "0123456789");
    for (const char* const uri : {"/outside.txt", "/outside/", "/outside/index.html", "/loop.txt"})
        EXPECT_THAT(get(uri), StartsWith("HTTP/1.1 404")) << uri;
}

TEST_F(WebDebuggerServerTest, ServesADirectoryThatIsReachedByALink) {
    std::filesystem::create_directory_symlink("root", directory / "link");
    WebDebuggerServer linked(0, directory / "link/");
    ASSERT_TRUE(linked.start());
    EXPECT_EQ(bodyOf(requestHttp(static_cast<std::uint16_t>(linked.getPort()), "/")), "the page");
}

TEST_F(WebDebuggerServerTest, ANameWithNulIsNotFound) {
    start();
    EXPECT_THAT(get("/data.txt%00"), StartsWith("HTTP/1.1 404"));
    EXPECT_THAT(get("/data.txt%00.html"), StartsWith("HTTP/1.1 404"));
    EXPECT_THAT(get("/%00"), StartsWith("HTTP/1.1 404"));
}

TEST_F(WebDebuggerServerTest, NamesAreDecodedOnce) {
    directory.write("root/a b+\xc3\xa4.txt", "odd");
    directory.write("root/%41.txt", "percent");
    start();
    EXPECT_EQ(bodyOf(get("/a%20b+%c3%A4.txt")), "odd");
    EXPECT_EQ(bodyOf(get("/%2541.txt")), "percent");
    EXPECT_THAT(get("/%41.txt"), StartsWith("HTTP/1.1 404"));
    EXPECT_EQ(bodyOf(get("/sub/%2e%2e/data.txt")), "0123456789");
}

TEST_F(WebDebuggerServerTest, APipeDoesNotKeepTheWorker) {
    ASSERT_EQ(::mkfifo((directory / "root/pipe.txt").c_str(), 0600), 0);
    start();
    EXPECT_THAT(get("/pipe.txt"), StartsWith("HTTP/1.1 404"));
    EXPECT_EQ(bodyOf(get("/")), "the page");
}

TEST_F(WebDebuggerServerTest, ForeignHostsAndPagesAreRefused) {
    start();
    const std::string refused = "Rejecting non-local request from client127.0.0.1";
    for (const char* const headers : {"",
                                      "Host: evil.example\r\n",
                                      "Host: localhost.evil.example\r\n",
                                      "Host: localhost\r\nOrigin: http://evil.example\r\n",
                                      "Host: localhost\r\nOrigin: null\r\n",
                                      "Host: localhost\r\nSec-Fetch-Site: cross-site\r\n"}) {
        const std::string answer = requestHttp(port(), "/", headers);
        EXPECT_THAT(answer, StartsWith("HTTP/1.1 403")) << headers;
        EXPECT_THAT(answer, HasSubstr(refused)) << headers;
        EXPECT_THAT(answer, Not(HasSubstr("the page"))) << headers;
    }
    for (const char* const headers : {"Host: 192.0.2.1:80\r\n",
                                      "Host: [::1]:80\r\n",
                                      "Host: localhost:1\r\nOrigin: http://localhost:2\r\n",
                                      "Host: localhost\r\nSec-Fetch-Site: same-origin\r\n"})
        EXPECT_EQ(bodyOf(requestHttp(port(), "/", headers)), "the page") << headers;
}

TEST_F(WebDebuggerServerTest, RubbishGetsNoFile) {
    start();
    for (const char* const bytes : {"\r\n\r\n",
                                    "GET\r\n\r\n",
                                    "GET / HTTP/9.9\r\nHost: localhost\r\n\r\n",
                                    "TRACE / HTTP/1.1\r\nHost: localhost\r\n\r\n",
                                    "CONNECT a:1 HTTP/1.1\r\nHost: localhost\r\n\r\n",
                                    "\x16\x03\x01\x02\r\n\r\n",
                                    "GET data.txt HTTP/1.1\r\nHost: localhost\r\n\r\n"})
        EXPECT_THAT(exchangeHttp(port(), bytes), Not(HasSubstr("HTTP/1.1 200"))) << bytes;
    EXPECT_EQ(bodyOf(get("/")), "the page");
}

TEST_F(WebDebuggerServerTest, AConnectionServesMoreThanOneRequest) {
    start();
    const std::string request = "GET /data.txt HTTP/1.1\r\nHost: localhost\r\n\r\n";
    const std::string answer = exchangeHttp(port(), request + request);
    const std::size_t first = answer.find("0123456789");
    ASSERT_NE(first, std::string::npos);
    EXPECT_NE(answer.find("0123456789", first + 10), std::string::npos);
}

TEST_F(WebDebuggerServerTest, ASlowClientIsDroppedSoThatOthersAreServed) {
    start();
    RawClient slow;
    slow.connect(port());
    slow.send("GET / HTTP/1.1\r\nHost: loc");
    EXPECT_EQ(bodyOf(get("/")), "the page");
}

TEST_F(WebDebuggerServerTest, StopsWithClientsConnected) {
    start();
    RawClient silent;
    RawClient slow;
    silent.connect(port());
    slow.connect(port());
    slow.send("GET /da");
    server->stop();
    server->join();
    EXPECT_FALSE(server->isRunning());
}

TEST_F(WebDebuggerServerTest, StartsAgainOnTheSamePortAfterJoin) {
    start();
    const int first = server->getPort();
    EXPECT_TRUE(server->start()) << "it runs already";
    EXPECT_EQ(server->getPort(), first);
    server->stop();
    EXPECT_TRUE(waitUntil([&] { return !server->isRunning(); }));
    EXPECT_EQ(server->getPort(), first);
    server->join();
    server->join();
    start();
    EXPECT_EQ(server->getPort(), first);
    EXPECT_EQ(bodyOf(get("/")), "the page");
}

TEST_F(WebDebuggerServerTest, StopBeforeStartDoesNothing) {
    server->stop();
    server->join();
    start();
    EXPECT_EQ(bodyOf(get("/")), "the page");
}

TEST_F(WebDebuggerServerTest, TwoServersServeTheirOwnFiles) {
    WebDebuggerServer other(0, directory / "root2");
    start();
    ASSERT_TRUE(other.start());
    EXPECT_NE(server->getPort(), other.getPort());
    EXPECT_EQ(bodyOf(get("/")), "the page");
    EXPECT_EQ(bodyOf(requestHttp(static_cast<std::uint16_t>(other.getPort()), "/")), "secret");
    other.stop();
    other.join();
    EXPECT_EQ(bodyOf(get("/")), "the page");
}

TEST_F(WebDebuggerServerTest, ABusyPortFailsAfterTheTimeAndIsTold) {
    auto taken = std::make_unique<RawClient>();
    WebDebuggerServer busy(taken->listen(), directory / "root");
    {
        const StreamCapture errors(std::cerr);
        const LogCapture log(zel::Notify::Warning);
        EXPECT_FALSE(busy.start());
        EXPECT_EQ(log.text(), "Failed to start server - server not running after timeout\n");
        EXPECT_THAT(errors.text(), StartsWith("WebDebuggerServer exception: "));
    }
    EXPECT_FALSE(busy.isRunning());
    taken = nullptr;
    const LogCapture log(zel::Notify::Warning);
    EXPECT_FALSE(busy.start()) << "the ended thread is still there";
    busy.join();
    EXPECT_TRUE(busy.start());
}

TEST_F(WebDebuggerServerTest, TellsWhyADirectoryCannotBeServed) {
    const LogCapture log(zel::Notify::Warning);
    EXPECT_FALSE(WebDebuggerServer(0, directory / "missing").start());
    EXPECT_FALSE(WebDebuggerServer(0, directory / "root.txt").start());
    EXPECT_EQ(
        log.text(),
        "Unable to start WebDebuggerServer, specified directory does not exist: " + (directory / "missing") +
            "\nUnable to start WebDebuggerServer, specified path is not a directory: " +
            (directory / "root.txt") + "\n");
}

TEST_F(WebDebuggerServerTest, TellsThatItsOwnPageIsMissing) {
    auto& path = Environment::instance()->getFilePath(Environment::PluginPath);
    const auto directories = path.getFilePathList();
    path.setFilePath(directory.path());
    const LogCapture log(zel::Notify::Warning);
    EXPECT_FALSE(WebDebuggerServer(0, "").start());
    EXPECT_EQ(log.text(), "Unable to start WebDebuggerServer, could not locate index.html\n");
    path.setFilePathList(directories);
}

TEST_F(WebDebuggerServerTest, WithoutADirectoryItServesItsOwnPageWithAllThatItNames) {
    WebDebuggerServer own(0, "");
    ASSERT_TRUE(own.start());
    const auto fetch = [&own](const std::string& uri) {
        return requestHttp(static_cast<std::uint16_t>(own.getPort()), uri);
    };
    const std::string page = bodyOf(fetch("/"));
    EXPECT_THAT(page, StartsWith("<!DOCTYPE html>"));
    EXPECT_THAT(page, HasSubstr("src=\"protocol.js\""));
    for (const char* const fromElsewhere : {"http:", "https:", "\"//", "@import", "url("})
        EXPECT_THAT(page, Not(HasSubstr(fromElsewhere)));
    const std::map<std::string, std::string> types{
        {".js", "text/javascript"}, {".css", "text/css"}, {".svg", "image/svg+xml"}};
    const std::regex name("(?:src|href)=\"([^\"]+?(\\.[a-z]+))\"");
    int numFiles = 0;
    for (std::sregex_iterator found(page.begin(), page.end(), name), end; found != end; ++found, ++numFiles) {
        const std::string answer = fetch("/" + (*found)[1].str());
        EXPECT_THAT(answer, StartsWith("HTTP/1.1 200")) << (*found)[1];
        EXPECT_THAT(answer, HasSubstr("Content-Type: " + types.at((*found)[2]) + "\r\n")) << (*found)[1];
    }
    EXPECT_GT(numFiles, 10);
}

TEST(WebDebuggerServerAddressTest, IsTheFirstAddressOfTheNameThatIsNoLoopback) {
    char name[256] = {};
    ASSERT_EQ(::gethostname(name, sizeof(name) - 1), 0);
    addrinfo hints{};
    hints.ai_family = AF_INET;
    addrinfo* found = nullptr;
    std::vector<std::string> addresses;
    if (::getaddrinfo(name, nullptr, &hints, &found) == 0) {
        for (const addrinfo* info = found; info != nullptr; info = info->ai_next) {
            char text[INET_ADDRSTRLEN];
            addresses.emplace_back(::inet_ntop(
                AF_INET, &reinterpret_cast<const sockaddr_in*>(info->ai_addr)->sin_addr, text, sizeof(text)));
        }
        ::freeaddrinfo(found);
    }
    std::string expected = addresses.empty() ? "127.0.0.1" : addresses.front();
    for (const std::string& address : addresses)
        if (!address.starts_with("127.")) {
            expected = address;
            break;
        }
    EXPECT_EQ(WebDebuggerServer::getLocalIP(), expected);
}

} // namespace
