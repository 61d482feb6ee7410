#pragma once

#include "FrameModelFixture.h"
#include "MemoryJournal.h"

#include <zelData/FileFrameReader.h>
#include <zelData/FileFrameWriter.h>
#include <zelData/FileJournal.h>

#include <support/StreamCapture.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace zelTest {

/// Lets the process go without what root may, as long as it lives.
class WithoutPrivileges {
public:
    /// @param directory  stays within reach
    explicit WithoutPrivileges(const std::string& directory) : m_user(geteuid()) {
        EXPECT_TRUE(m_user != 0 || (chmod(directory.c_str(), 0755) == 0 && seteuid(65534) == 0));
    }
    WithoutPrivileges(const WithoutPrivileges&) = delete;
    WithoutPrivileges& operator=(const WithoutPrivileges&) = delete;
    ~WithoutPrivileges() { EXPECT_TRUE(m_user != 0 || seteuid(m_user) == 0); }

private:
    uid_t m_user;
};

/// No file grows above the limit while it lives.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t size) : m_handler(std::signal(SIGXFSZ, SIG_IGN)) {
        EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &m_former), 0);
        const rlimit limit{size, m_former.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;
    ~FileSizeLimit() {
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &m_former), 0);
        std::signal(SIGXFSZ, m_handler);
    }

private:
    rlimit m_former{};
    void (*m_handler)(int);
};

/// Journals in files of a directory of the test's own.
class JournalFixture : public FrameModelFixture {
protected:
    using FileJournal = zelData::FileJournal;
    using Session = zelData::FileJournal::Session;
    using FileFrameReader = zelData::FileFrameReader;
    using FileFrameWriter = zelData::FileFrameWriter;
    using Contents = std::vector<std::pair<zel::uint64, double>>; // index and value of each frame

    /// Where the frames begin in a journal whose scene is empty.
    static constexpr zel::uint64 FirstFrame = 34 + 10240;

    void TearDown() override {
        reader = nullptr;
        writer = nullptr;
        session = nullptr;
        journal = nullptr;
        FrameModelFixture::TearDown();
    }

    [[nodiscard]] std::string path() const { return directory.path("run.journal"); }
    [[nodiscard]] std::string bytes() const { return directory.read("run.journal"); }
    void putBytes(const std::string& content) const { directory.write("run.journal", content); }
    template <typename T>
    static T at(const std::string& content, zel::size_t offset) {
        T value{};
        std::memcpy(&value, content.data() + offset, sizeof(T));
        return value;
    }
    template <typename T>
    static void put(std::string& content, zel::size_t offset, T value) {
        std::memcpy(content.data() + offset, &value, sizeof(T));
    }

    /// The session header of the file.
    [[nodiscard]] std::string headerText() const {
        const std::string content = bytes();
        return content.substr(34, at<zel::uint64>(content, 26));
    }
    void putHeaderText(const std::string& text) const {
        std::string content = bytes();
        content.replace(34, 10240, text + std::string(10240 - text.size(), '\0'));
        put<zel::uint64>(content, 26, text.size());
        putBytes(content);
    }
    /// Puts something else in the place of a part of the header.
    void replaceInHeader(const std::string& what, const std::string& with) const {
        std::string changed = headerText();
        const auto place = changed.find(what);
        ASSERT_NE(place, std::string::npos) << what;
        putHeaderText(changed.replace(place, what.size(), with));
    }
    /// An element of the header, with its tags.
    [[nodiscard]] std::string elementOfHeader(const std::string& name) const {
        const std::string all = headerText();
        const auto begin = all.find("<" + name + ">");
        const auto end = all.find("</" + name + ">", begin);
        EXPECT_NE(end, std::string::npos) << name;
        return all.substr(begin, end - begin + name.size() + 3);
    }
    void replaceElement(const std::string& name, const std::string& text) const {
        replaceInHeader(elementOfHeader(name), "<" + name + ">" + text + "</" + name + ">");
    }

    /// A journal with a session; the scene is packed if one is given.
    void make(const char* scene = "") {
        const StreamCapture quiet(std::cout);
        journal = new FileJournal(path());
        session = journal->createNewFileSession("run");
        if (scene == nullptr)
            return;
        std::istringstream stream(scene);
        session->packSceneData(stream);
    }
    /// The journal as another process would see it.
    void open(FileJournal::OpenMode mode = FileJournal::Strict) {
        reader = nullptr;
        writer = nullptr;
        session = nullptr;
        journal = new FileJournal(path(), mode);
        const auto sessions = journal->getSessions();
        session = sessions.empty() ? nullptr : FileJournal::downcastSession(sessions.front());
    }
    void beginWriting() { writer = new FileFrameWriter(session.get()); }
    void beginReading() { reader = new FileFrameReader(session.get()); }
    void write(zel::uint64 index, double content, bool isKeyFrame = true) {
        writer->writeFrame(frameOf(index, content, isKeyFrame).get());
    }
    /// A journal of so many key frames, closed, whose values are their indices.
    void record(zel::uint64 numFrames, const char* scene = "") {
        make(scene);
        beginWriting();
        for (zel::uint64 i = 0; i < numFrames; ++i)
            write(i, static_cast<double>(i));
        writer->endOfStream();
    }
    /// The same of a process that died.
    void recordWithoutEnd(zel::uint64 numFrames) {
        make();
        beginWriting();
        for (zel::uint64 i = 0; i < numFrames; ++i)
            write(i, static_cast<double>(i));
    }
    zel::ref_ptr<zelData::Frame> read() { return zel::ref_ptr<zelData::Frame>(reader->readFrame()); }
    zel::ref_ptr<zelData::Frame> read(zel::uint64 index) {
        return zel::ref_ptr<zelData::Frame>(reader->readFrame(index));
    }
    /// The frames of the session, each with the value that it holds.
    Contents contents() {
        Contents all;
        beginReading();
        for (const auto& info : session->getFrameTable())
            all.emplace_back(info.index, contentOf(read(info.index)->findObject("value")));
        return all;
    }
    /// Opens tolerantly and reads all that there is.
    /// @return how many frames were read
    zel::size_t readAll() {
        open(FileJournal::Tolerant);
        if (!session)
            return 0;
        beginReading();
        zel::size_t count = 0;
        for (const auto& info : session->getFrameTable())
            try {
                count += read(info.index) ? 1U : 0U;
            } catch (const std::runtime_error&) {
                // as it must be told
            }
        return count;
    }
    std::vector<zel::uint64> indicesInTable() const {
        std::vector<zel::uint64> all;
        for (const auto& info : session->getFrameTable())
            all.push_back(info.index);
        return all;
    }

    zel::ref_ptr<FileJournal> journal;
    zel::ref_ptr<Session> session;
    zel::ref_ptr<FileFrameWriter> writer;
    zel::ref_ptr<FileFrameReader> reader;
};

} // namespace zelTest
