#include "CommandServerFixture.h"

#include <zelIO/Environment.h>

#include <json/reader.h>
#include <json/value.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <sstream>
#include <utility>

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using zelIO::Environment;

namespace zelTest {

namespace {

namespace fs = std::filesystem;

class RemoteCommandServerFilesTest : public CommandServerFixture {
protected:
    void SetUp() override {
        CommandServerFixture::SetUp();
        start();
    }
    [[nodiscard]] std::string read(const std::string& path) const {
        return ask("/zelComponent/Read?path=" + path);
    }
};

// Component files

TEST_F(RemoteCommandServerFilesTest, ReadsSevenKindsOfFilesOfThePlugInPath) {
    for (const std::string extension :
         {"vert", "frag", "zelEntity", "zelComponent", "zelKernel", "zelTask", "zelType"}) {
        directory.write("a b/some.x." + extension, "it is " + extension);
        EXPECT_EQ(read("a+b/some.x." + extension), "it is " + extension);
        EXPECT_EQ(read(directory / ("a%20b/some.x." + extension)), "it is " + extension);
    }
    directory.write("Components/zel/own.zelTask", std::string("a\0b\r\n", 5));
    EXPECT_EQ(read("own.zelTask"), std::string("a\0b\r\n", 5));
    fs::create_symlink("a b/some.x.frag", directory / "link.vert");
    EXPECT_EQ(read("link.vert"), "it is frag");
}

TEST_F(RemoteCommandServerFilesTest, OtherKindsOfFilesAreRefusedInTheLog) {
    const std::string file = directory.write("foo.json", "secret");
    const LogCapture log;
    EXPECT_EQ(get("/zelComponent/Read?path=foo.json"), RouteHead);
    settle();
    EXPECT_THAT(log.text(), HasSubstr("]   Client requesting component foo.json, found " + file + "\n"));
    EXPECT_THAT(log.text(), HasSubstr("]   File extension '.json' is NOT allowed! File: " + file + "\n"));
    EXPECT_THAT(log.text(), HasSubstr("HTTP handler failed for uri  '/zelComponent/Read'\n"));
    for (const char* const name : {"a.FRAG", "a.frag~", "a.fra", "a.fragment"}) {
        directory.write(name, "secret");
        EXPECT_EQ(read(name), "") << name;
    }
}

TEST_F(RemoteCommandServerFilesTest, NothingButRegularFilesOfThePlugInPathIsRead) {
    const TempDirectory outside;
    outside.write("out.frag", "secret");
    directory.write("foo.json", "secret");
    directory.write("in.frag", "shader");
    directory.write("noextension", "secret");
    directory.write("point.", "secret");
    directory.write("folder.frag/file", "secret");
    fs::create_symlink(outside / "out.frag", directory / "out.frag");
    fs::create_symlink("foo.json", directory / "json.frag");
    fs::create_directory_symlink(outside.path(), directory / "outside");
    fs::create_symlink("loop.frag", directory / "loop.frag");
    ASSERT_EQ(::mkfifo((directory / "pipe.frag").c_str(), 0600), 0);
    directory.write("large.frag");
    fs::resize_file(directory / "large.frag", zelIO::RemoteCommandServer::MaxReadSize + 1);
    const std::string name = fs::path(outside.path()).filename();
    for (const std::string& path : {std::string(),
                                    std::string("missing.frag"),
                                    std::string("noextension"),
                                    std::string("point."),
                                    std::string("folder.frag"),
                                    std::string("folder.frag/"),
                                    std::string("out.frag"),
                                    std::string("json.frag"),
                                    std::string("outside/out.frag"),
                                    std::string("loop.frag"),
                                    std::string("pipe.frag"),
                                    std::string("large.frag"),
                                    outside / "out.frag",
                                    "../" + name + "/out.frag",
                                    "%2e%2e%2f" + name + "%2fout.frag",
                                    "in.frag/../../" + name + "/out.frag",
                                    std::string("in.frag%00"),
                                    std::string("in.frag%00.frag"),
                                    std::string("foo.json%00.frag"),
                                    std::string("/etc/passwd"),
                                    std::string("/dev/zero"),
                                    std::string("."),
                                    std::string("/"),
                                    std::string("%ff%fe.frag"),
                                    std::string(5000, 'a') + ".frag"})
        EXPECT_EQ(read(path), "") << path;
    EXPECT_EQ(read("in.frag"), "shader");
}

TEST_F(RemoteCommandServerFilesTest, AFileOfTheGreatestSizeIsReadWhole) {
    directory.write("large.frag");
    fs::resize_file(directory / "large.frag", zelIO::RemoteCommandServer::MaxReadSize);
    EXPECT_EQ(read("large.frag").size(), zelIO::RemoteCommandServer::MaxReadSize);
}

/// Takes the process all descriptors from the message on that tells of a request.
class Exhaustion : public zel::NotifyCallback {
public:
    Exhaustion() { ::getrlimit(RLIMIT_NOFILE, &m_limit); }
    void message(const std::string& message, int) override {
        const rlimit none{3, m_limit.rlim_max};
        if (message.find("Client requesting component") != std::string::npos)
            ::setrlimit(RLIMIT_NOFILE, &none);
        if (message.find("Unable to read file") != std::string::npos)
            ::setrlimit(RLIMIT_NOFILE, &m_limit);
        text += message;
    }
    std::string text;

private:
    rlimit m_limit{};
};

TEST_F(RemoteCommandServerFilesTest, AFileThatCanNotBeReadIsTold) {
    const std::string file = directory.write("in.frag", "shader");
    const zel::ref_ptr<Exhaustion> exhaustion(new Exhaustion);
    zel::Notify::instance()->addCallback(exhaustion.get(), zel::Notify::Debug);
    const std::string answer = read("in.frag");
    zel::Notify::instance()->removeCallback(exhaustion.get());
    EXPECT_EQ(answer, "");
    settle();
    EXPECT_THAT(exhaustion->text, HasSubstr("]   Unable to read file '" + file + "'\n"));
    EXPECT_EQ(read("in.frag"), "shader");
}

TEST_F(RemoteCommandServerFilesTest, NothingIsWritten) {
    const LogCapture log;
    EXPECT_EQ(get("/zelComponent/Write?path=a.frag&text=x"), RouteHead);
    settle();
    EXPECT_THAT(log.text(), HasSubstr("] writeComponent not implemented! Need authentication...\n"));
    EXPECT_THAT(log.text(), HasSubstr("HTTP handler failed for uri  '/zelComponent/Write'\n"));
    EXPECT_FALSE(fs::exists(directory / "a.frag"));
}

// Configurations of journals

TEST_F(RemoteCommandServerFilesTest, ListsTheConfigurationsOfJournals) {
    auto& path = Environment::instance()->getFilePath(Environment::ResourcePath);
    const auto directories = path.getFilePathList();
    path.setFilePath(directory.path());
    EXPECT_EQ(ask("/zelJournal/ConfigurationList"), "{}\n") << "there is no directory";

    directory.write("JournalConfigurations/plain.json", "{\"a\": 1.5, \"FilePath\": \"wrong\"}");
    directory.write("JournalConfigurations/two.points.json", "{}");
    directory.write("JournalConfigurations/list.json", "[1]");
    directory.write("JournalConfigurations/broken.json", "{\"a\": ");
    directory.write("JournalConfigurations/deep.json", std::string(100'000, '['));
    directory.write("JournalConfigurations/folder.json/x.json", "{}");
    directory.write("JournalConfigurations/other.txt", "{}");
    ASSERT_EQ(::mkfifo((directory / "JournalConfigurations/pipe.json").c_str(), 0600), 0);
    std::istringstream answer(ask("/zelJournal/ConfigurationList"));
    path.setFilePathList(directories);
    Json::Value list;
    answer >> list;
    EXPECT_THAT(
        list.getMemberNames(),
        testing::UnorderedElementsAre("plain", "two.points", "list", "broken", "deep", "folder", "pipe"));
    for (const std::string& name : list.getMemberNames())
        EXPECT_EQ(list[name]["FilePath"].asString(), directory / ("JournalConfigurations/" + name + ".json"));
    EXPECT_EQ(list["plain"]["a"].asDouble(), 1.5);
    EXPECT_FALSE(list["plain"].isMember("ParseError"));
    EXPECT_EQ(list["two.points"].size(), 1U);
    EXPECT_EQ(list["list"]["ParseError"].asString(), "Invalid syntax, top level value must be an object");
    EXPECT_THAT(list["broken"]["ParseError"].asString(), StartsWith("* Line 1, Column 7\n"));
    for (const char* const name : {"deep", "folder", "pipe"})
        EXPECT_THAT(list[name]["ParseError"].asString(), Not(IsEmpty())) << name;
}

// The page

TEST_F(RemoteCommandServerFilesTest, ServesThePageAndItsFiles) {
    directory.write("Web/sub/index.html", "the page below");
    directory.write("Web/a b+\xc3\xa4.txt", "odd");
    directory.write("Web/empty/data.txt", "data");
    fs::create_symlink("index.html", directory / "Web/inside.html");
    for (const char* const uri : {"/", "/index.html", "/?text=x", "/sub/../index.html", "/inside.html"})
        EXPECT_EQ(bodyOf(get(uri)), "the page") << uri;
    EXPECT_EQ(bodyOf(get("/sub")), "the page below");
    EXPECT_EQ(bodyOf(get("/sub/")), "the page below");
    EXPECT_EQ(bodyOf(get("/a%20b+%c3%A4.txt")), "odd");
    EXPECT_THAT(get("/"), HasSubstr("Content-Type: text/html"));
    EXPECT_THAT(get("/"), Not(HasSubstr("Access-Control-Allow")));
    EXPECT_THAT(get("/empty/"), StartsWith("HTTP/1.1 404")) << "directories are not listed";
    EXPECT_THAT(get("/missing.html"), StartsWith("HTTP/1.1 404"));
    EXPECT_EQ(bodyOf(get("/index.html", "Range: bytes=4-7\r\n")), "page");
}

TEST(RemoteCommandServerPageTest, TheOwnPageNeedsNoOtherHost) {
    zelCore::init();
    const StreamCapture output(std::cout);
    ASSERT_TRUE(zelIO::RemoteCommandServer::instance()->start(0, false));
    const std::string answer = requestHttp(zelIO::RemoteCommandServer::instance()->getPort(), "/");
    EXPECT_THAT(bodyOf(answer), StartsWith("<!DOCTYPE html>"));
    EXPECT_THAT(bodyOf(answer), HasSubstr("/zelJournal/NavigationTree"));
    for (const char* const fromElsewhere : {"http:", "https:", "src=", "href=", "@import", "url("})
        EXPECT_THAT(bodyOf(answer), Not(HasSubstr(fromElsewhere)));
    zelCore::shutdown();
}

// Scripts of the page

class RemoteCommandServerScriptTest : public CommandServerFixture {
protected:
    void SetUp() override {
        CommandServerFixture::SetUp();
        const char* const path = std::getenv("PATH"); // NOLINT(concurrency-mt-unsafe)
        m_path = path == nullptr ? "" : path;
        setenv("PATH", ((directory / "bin") + ":" + m_path).c_str(), 1); // NOLINT(concurrency-mt-unsafe)
        start();
    }
    void TearDown() override {
        setenv("PATH", m_path.c_str(), 1); // NOLINT(concurrency-mt-unsafe)
        CommandServerFixture::TearDown();
    }
    /// Puts a compiler in place: lines of a shell, of which $1 is the source.
    void makeCompiler(const std::string& lines) {
        const std::string file = directory.write("bin/tsc",
                                                 "#!/bin/sh\nprintf '%s\\n' \"$#\" \"$1\" >> '" +
                                                     (directory / "calls") + "'\n" + lines);
        fs::permissions(file, fs::perms::owner_all);
    }
    void makeWorkingCompiler() { makeCompiler("printf compiled > \"${1%ts}js\"\n"); }
    /// Writes a file of the page.
    std::string write(const std::string& name, const std::string& content, int hoursAgo) {
        std::string file = directory.write("Web/" + name, content);
        fs::last_write_time(file, fs::file_time_type::clock::now() - std::chrono::hours(hoursAgo));
        return file;
    }
    /// The number of arguments and the first one, of each call.
    [[nodiscard]] std::string calls() const { return directory.read("calls"); }

private:
    std::string m_path;
};

TEST_F(RemoteCommandServerScriptTest, WithoutASourceAScriptIsServedAsItIs) {
    makeWorkingCompiler();
    write("plain.js", "plain();", 2);
    const StreamCapture output(std::cout);
    EXPECT_EQ(bodyOf(get("/plain.js")), "plain();");
    EXPECT_THAT(get("/plain.js"), HasSubstr("Content-Type: text/javascript\r\n"));
    EXPECT_THAT(get("/missing.js"), StartsWith("HTTP/1.1 404"));
    settle();
    EXPECT_EQ(output.text(), "");
    EXPECT_EQ(calls(), "");
}

TEST_F(RemoteCommandServerScriptTest, AScriptThatIsOlderThanItsSourceIsCompiled) {
    makeWorkingCompiler();
    write("a.js", "old", 2);
    const std::string source = write("a.ts", "source", 1);
    {
        const StreamCapture output(std::cout);
        EXPECT_EQ(bodyOf(get("/a.js")), "compiled");
        settle();
        EXPECT_EQ(output.text(), "==> Recompiling modified TypeScript file: " + source + "\n... done!\n");
    }
    EXPECT_THAT(get("/a.js"), HasSubstr("Cache-Control: no-cache"));
    EXPECT_EQ(bodyOf(get("/a.js")), "compiled");
    EXPECT_EQ(calls(), "1\n" + source + "\n") << "once";
    EXPECT_EQ(bodyOf(get("/a.ts")), "source");
}

TEST_F(RemoteCommandServerScriptTest, AScriptThatIsMissingIsCompiledAndAYoungerOneIsNot) {
    makeWorkingCompiler();
    const std::string source = write("sub/a.ts", "source", 1);
    write("b.js", "young", 1);
    write("b.ts", "source", 2);
    const StreamCapture output(std::cout);
    EXPECT_EQ(bodyOf(get("/sub/a.js")), "compiled");
    EXPECT_EQ(bodyOf(get("/b.js")), "young");
    EXPECT_EQ(calls(), "1\n" + source + "\n");
}

TEST_F(RemoteCommandServerScriptTest, WhatCanNotBeCompiledIsServedAsItIs) {
    write("a.js", "old", 2);
    const std::string source = write("a.ts", "source", 1);
    const std::string told =
        "==> Recompiling modified TypeScript file: " + source + "\nFailed calling: tsc " + source + "\n";
    makeCompiler("exit 1\n");
    {
        const StreamCapture output(std::cout);
        EXPECT_EQ(bodyOf(get("/a.js")), "old");
        settle();
        EXPECT_EQ(output.text(), told);
    }
    fs::remove(directory / "bin/tsc");
    setenv("PATH", (directory / "bin").c_str(), 1); // NOLINT(concurrency-mt-unsafe)
    const StreamCapture output(std::cout);
    EXPECT_EQ(bodyOf(get("/a.js")), "old");
    settle();
    EXPECT_EQ(output.text(), told) << "there is no compiler";
}

TEST_F(RemoteCommandServerScriptTest, ACompilerThatTakesTooLongIsEnded) {
    makeCompiler("sleep 1000\n");
    server->setCompileLimit(std::chrono::milliseconds(50));
    write("a.js", "old", 2);
    write("a.ts", "source", 1);
    const StreamCapture output(std::cout);
    EXPECT_EQ(bodyOf(get("/a.js")), "old");
    settle();
    EXPECT_THAT(output.text(), HasSubstr("Failed calling: tsc "));
}

TEST_F(RemoteCommandServerScriptTest, StopEndsTheCompiler) {
    makeCompiler("sleep 1000\n");
    write("a.ts", "source", 1);
    const StreamCapture output(std::cout);
    RawClient client;
    client.connect(server->getPort());
    client.send("GET /a.js HTTP/1.1\r\nHost: localhost\r\n\r\n");
    ASSERT_TRUE(waitUntil([&] { return !calls().empty(); }));
    server->stop();
    EXPECT_THAT(output.text(), HasSubstr("Failed calling: tsc "));
}

TEST_F(RemoteCommandServerScriptTest, NamesReachTheCompilerAsTheyAre) {
    makeWorkingCompiler();
    std::string expected;
    const StreamCapture output(std::cout);
    for (const auto& [uri, name] : std::initializer_list<std::pair<std::string, std::string>>{
             {"/a;touch%20x.js", "a;touch x.ts"},
             {"/$(touch%20x).js", "$(touch x).ts"},
             {"/%60touch%20x%60.js", "`touch x`.ts"},
             {"/'a'%22b%22%20%7C%26%3E.js", "'a'\"b\" |&>.ts"},
             {"/-h%20--out.js", "-h --out.ts"},
             {"/%0aline.js", "\nline.ts"},
             {"/*.js", "*.ts"}}) {
        expected += "1\n" + write(name, "source", 1) + "\n";
        EXPECT_EQ(bodyOf(get(uri)), "compiled") << uri;
    }
    EXPECT_EQ(calls(), expected);
    settle();
    EXPECT_THAT(output.text(), HasSubstr("Web/.line.ts\n")) << "printed without control characters";
    EXPECT_FALSE(fs::exists("x"));
    EXPECT_FALSE(fs::exists(directory / "Web/x"));
}

TEST_F(RemoteCommandServerScriptTest, NothingOutsideOfThePageIsCompiled) {
    makeWorkingCompiler();
    directory.write("outside.ts", "secret");
    directory.write("outside.js", "secret");
    fs::create_symlink("../outside.ts", directory / "Web/source.ts");
    write("script.ts", "source", 1);
    fs::create_symlink("../outside.js", directory / "Web/script.js");
    fs::last_write_time(directory / "outside.js", fs::file_time_type::clock::now() - std::chrono::hours(2));
    for (const char* const uri : {"/../outside.js",
                                  "/%2e%2e/outside.js",
                                  "/..%2foutside.js",
                                  "/source.js",
                                  "/script.js",
                                  "/script%00.js",
                                  "/script.ts%00.js"})
        EXPECT_THAT(get(uri), StartsWith("HTTP/1.1 404")) << uri;
    EXPECT_EQ(calls(), "");
    EXPECT_EQ(directory.read("outside.js"), "secret");
}

} // namespace

} // namespace zelTest
