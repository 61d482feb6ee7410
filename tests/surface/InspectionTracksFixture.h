#pragma once

#include "InspectionFixture.h"

#include <zel/Vec.h>
#include <zelData/EntityPtr.h>
#include <zelData/FileFrameWriter.h>
#include <zelData/FileJournal.h>
#include <zelData/Frame.h>
#include <zelData/FrameCapture.h>
#include <zelIO/Environment.h>
#include <zelIO/FilePathContainer.h>

#include <support/StreamCapture.h>
#include <support/TempDirectory.h>

#include <filesystem>
#include <initializer_list>
#include <sstream>
#include <string>
#include <vector>

namespace zelTest {

/// Recordings of a small pond, in a tree of its own, for a service that inspects another one.
class InspectionTracksFixture : public InspectionFixture {
protected:
    /// In frame i, of the time i / 10: "level" is i / 2, "wind" (i, 2 i, 3 i), "label" the text "frame i",
    /// of "depths" the elements 0, 10 + i, 20 and 30, and of "weather.heat" -i. There are three "fish" of
    /// mass 100 id + i, which lead to the first one; the one of the id 1 dies in frame 3, and another one
    /// gets its id in frame 6.
    class Pond {
    public:
        /// The journal is made anew.
        Pond(const std::string& file, zelData::EntityModel* fishes, const std::string& session)
            : m_fish(new zelData::EntityStorage(fishes, "fish"))
            , m_capture(new zelData::FrameCapture(m_root.get())) {
            const zel::ref_ptr<zel::Component> weather(new zel::Component("weather"));
            for (zel::Object* object : std::initializer_list<zel::Object*>{
                     m_level.get(), m_wind.get(), m_label.get(), m_depths.get(), m_fish.get(), weather.get()})
                m_root->addObject(object);
            weather->addObject(m_heat.get());
            m_depths->resize(4);
            for (int i = 0; i < 4; ++i)
                m_depths->data<double>()[i] = 10.0 * i;
            m_fish->createInstances(3);
            m_capture->setKeyFrameInterval(4);
            std::filesystem::remove(file);
            const StreamCapture quiet(std::cout);
            m_journal = new zelData::FileJournal(file);
            zelData::FileJournal::Session* of = m_journal->createNewFileSession(session);
            std::istringstream scene;
            of->packSceneData(scene);
            m_writer = new zelData::FileFrameWriter(of);
        }
        ~Pond() { close(); }
        void write(int numFrames) {
            for (int i = 0; i < numFrames; ++i)
                write(0.1 * static_cast<double>(m_frame));
        }
        void write(double time) {
            const auto i = static_cast<double>(m_frame);
            m_level->set(i / 2);
            m_wind->set(zel::Vec3d(i, 2 * i, 3 * i));
            m_label->set("frame " + std::to_string(m_frame));
            m_heat->set(m_warmer - i);
            m_depths->data<double>()[1] = 10 + i;
            m_depths->commit();
            if (m_frame == 3)
                m_fish->destroyInstance(1);
            if (m_frame == 6)
                m_fish->createInstance();
            for (zel::uint32 k = 0; k < m_fish->size(); ++k) {
                m_fish->getBuffer("mass")->data<double>()[k] = 100.0 * m_fish->getId(k) + i;
                m_fish->getBuffer("leader")->data<zelData::EntityPtr>()[k] =
                    zelData::EntityPtr(m_fish.get(), 0);
                m_fish->getBuffer("title")->data<zel::String>()[k] = "fish " + std::to_string(k);
            }
            m_writer->writeFrame(m_capture->capture(m_frame, time, 0.1).get());
            ++m_frame;
        }
        /// A frame of the number.
        void writeAs(zel::uint64 index, double time) {
            m_frame = index;
            write(time);
        }
        /// Goes on from the frame, which is a key frame then, with heats above what they were.
        void goBackTo(zel::uint64 frame, double warmer) {
            close();
            const zel::ref_ptr<zelData::FileJournal> journal(
                new zelData::FileJournal(m_journal->getPath(), zelData::FileJournal::Tolerant));
            auto* session = zelData::FileJournal::downcastSession(journal->getSessions().front());
            session->setFrameHead(session->getFrameInfo(frame)->headerOffset);
            m_journal = journal;
            m_writer = new zelData::FileFrameWriter(session);
            m_capture->requestKeyFrame();
            m_frame = frame;
            m_warmer = warmer;
        }
        /// No fish is left.
        void catchAll() {
            while (!m_fish->empty())
                m_fish->destroyInstance(m_fish->getId(0));
        }
        void close() {
            if (m_writer.get() != nullptr)
                m_writer->endOfStream();
            m_writer = nullptr;
        }

    private:
        zel::ref_ptr<zel::Component> m_root{new zel::Component("pond")};
        zel::ref_ptr<zelData::ValueT<double>> m_level{new zelData::ValueT<double>("level", 0)};
        zel::ref_ptr<zelData::ValueT<zel::Vec3d>> m_wind{
            new zelData::ValueT<zel::Vec3d>("wind", zel::Vec3d())};
        zel::ref_ptr<zelData::ValueT<zel::String>> m_label{
            new zelData::ValueT<zel::String>("label", zel::String())};
        zel::ref_ptr<zelData::ValueT<double>> m_heat{new zelData::ValueT<double>("heat", 0)};
        zel::ref_ptr<zelData::Buffer> m_depths{new zelData::Buffer("depths", zelData::getFormat("Real"))};
        zel::ref_ptr<zelData::EntityStorage> m_fish;
        zel::ref_ptr<zelData::FrameCapture> m_capture;
        zel::ref_ptr<zelData::FileJournal> m_journal;
        zel::ref_ptr<zelData::FileFrameWriter> m_writer;
        zel::uint64 m_frame = 0;
        double m_warmer = 0;
    };

    void SetUp() override {
        InspectionFixture::SetUp();
        zelIO::Environment::instance()
            ->getFilePath(zelIO::Environment::PluginPath)
            .pushfrontPath(directory.path());
        directory.write("Fish.zelComponent",
                        "<Entity.Model name='Fish'><Attribute.Scalar name='mass' type='Real'/>"
                        "<Attribute.Scalar name='leader' type='EntityPtr'/>"
                        "<Attribute.Scalar name='title' type='String'/>"
                        "<Attribute.Scalar name='spots' type='UInt:32bit' numElements='2'/></Entity.Model>");
        fishes = zelData::getEntity(zel::Path("Fish"));
        client = connect();
    }
    void TearDown() override {
        client = {};
        InspectionFixture::TearDown();
    }

    [[nodiscard]] std::string pathOf(const std::string& name) const { return directory.path(name); }
    /// A journal of so many frames, which is closed.
    std::string record(const std::string& name, int numFrames) {
        Pond(pathOf(name), fishes, "run").write(numFrames);
        return pathOf(name);
    }
    /// A track of such a journal, opened.
    zel::uint64 addTrack(int numFrames, const char* name = "pond") {
        const zel::uint64 id = service->addJournal(record(std::string(name) + ".journal", numFrames), name);
        service->openJournal(id);
        return id;
    }

    /// The header of the request that drives the track.
    static std::string controls(zel::uint64 id, const std::string& action, const std::string& members = "") {
        return "{'id':" + std::to_string(id) + ",'action':'" + action + "'" +
               (members.empty() ? "" : "," + members) + "}";
    }
    /// The track as it is then.
    Json::Value control(zel::uint64 id, const std::string& action, const std::string& members = "") {
        const Json::Value answer = ask(client, "Track.Control", controls(id, action, members)).header;
        EXPECT_EQ(answer["success"], true) << text(answer);
        return answer["track"];
    }
    std::string controlRefusal(zel::uint64 id, const std::string& action, const std::string& members = "") {
        return refusal(client, "Track.Control", controls(id, action, members));
    }
    Json::Value trackOf(zel::uint64 id) {
        return ask(client, "Track.List").header["tracks"][static_cast<Json::ArrayIndex>(id)];
    }
    Json::Value valueOf(const std::string& path) {
        return ask(client, "Object.Describe", "{'path':'" + path + "','depth':0}").header["value"];
    }
    template <typename T = double>
    std::vector<T> bufferAt(const std::string& path) {
        const Message answer = ask(client, "Buffer.Read", "{'path':'" + path + "'}");
        EXPECT_EQ(answer.header["success"], true) << text(answer.header);
        return answer.elements<T>(answer.header);
    }
    std::vector<std::string> textsAt(const std::string& path) {
        std::vector<std::string> texts;
        const Message answer = ask(client, "Buffer.Read", "{'path':'" + path + "'}");
        for (const Json::Value& entry : answer.header["texts"])
            texts.push_back(entry.asString());
        return texts;
    }
    std::vector<std::string> childrenOf(const std::string& path) {
        std::vector<std::string> names;
        const Message answer = ask(client, "Object.Describe", "{'path':'" + path + "'}");
        for (const Json::Value& entry : answer.header["children"])
            names.push_back(entry["name"].asString());
        return names;
    }

    TempDirectory directory;
    zelData::EntityModel* fishes = nullptr;
    Client client;
};

} // namespace zelTest
