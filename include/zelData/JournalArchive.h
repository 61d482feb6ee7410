#pragma once

#include <zel/Date.h>
#include <zel/Export.h>
#include <zel/HashTable.h>
#include <zel/InvalidIndex.h>
#include <zel/Name.h>
#include <zel/Referenced.h>
#include <zel/String.h>
#include <zel/Vector.h>
#include <zel/observer_ptr.h>
#include <zel/ref_ptr.h>
#include <zelData/Frame.h>
#include <zelData/SerializedFrame.h>

#include <json/forwards.h>

#include <iosfwd>

namespace zel {
class Component;
} // namespace zel

namespace zelNet {
class StructuredMessage;
} // namespace zelNet

namespace zelData {

class FrameIO;
class FrameReader;
class FrameWriter;

/// A named set of sessions, each the frames of one run with what belongs to them.
///
/// Owned through ref_ptr; owns its sessions.
/// @threads external lock
class ZEL_CORE_API JournalArchive : public zel::Referenced {
public:
    class Session;

    explicit JournalArchive(const zel::String& name = {}) : m_name(name) {}
    ~JournalArchive() override;

    /// @return the new session, which the journal owns
    virtual Session* createNewSession(const zel::Name& name) = 0;
    /// @return whether it was a session of the journal
    virtual bool removeSession(Session* session) = 0;
    virtual bool renameSession(Session* session, const zel::Name& name) = 0;
    /// Where files that belong to the journal lie.
    /// @param create  whether to make the folder
    [[nodiscard]] virtual zel::String getCustomFilesPath(bool create) = 0;
    /// The same for one session.
    [[nodiscard]] virtual zel::String getCustomFilesPath(const zel::Name& name, bool create) = 0;
    /// @return a new reader without owner
    [[nodiscard]] virtual FrameReader* createFrameReader(Session* session) = 0;
    /// @return a new writer without owner
    [[nodiscard]] virtual FrameWriter* createFrameWriter(Session* session) = 0;
    /// @return a copy of the session for another journal
    [[nodiscard]] virtual Session* makeCopy(Session* session) = 0;

    [[nodiscard]] const zel::String& getName() const noexcept { return m_name; }
    [[nodiscard]] const zel::String& getPath() const noexcept { return m_path; }
    void setName(const zel::String& name) { m_name = name; }
    void setPath(const zel::String& path) { m_path = path; }

    /// In alphabetical order, as the sessions themselves.
    [[nodiscard]] zel::Vector<zel::Name> listSessionNames() const;
    [[nodiscard]] zel::Vector<Session*> getSessions() const;
    /// Null if there is none.
    [[nodiscard]] Session* getSession(const zel::Name& name) const;
    bool removeSession(const zel::Name& name);
    [[nodiscard]] zel::size_t getNumSessions() const noexcept { return m_sessions.size(); }
    /// Enters a session under its name.
    /// @return whether the name was free
    bool registerSession(Session* session);
    /// @return whether it was a session of the journal
    bool unregisterSession(Session* session);
    /// Whether the session is one of the journal. Table and session must agree, which is verified.
    [[nodiscard]] bool isOwnerOf(const Session* session) const;
    /// Makes a copy of a session of this journal in the other one.
    /// @return false, with a warning, where that cannot be
    bool copySession(Session* session, JournalArchive* target);
    /// Moves a session of this journal to the other one.
    bool transferSession(Session* session, JournalArchive* target);

private:
    zel::String m_name;
    zel::String m_path;
    zel::HashTable<zel::Name, zel::ref_ptr<Session>> m_sessions;
};

/// The frames of one run, and what is known of it. Of times, the unit is that of the simulation.
class ZEL_CORE_API JournalArchive::Session : public zel::Referenced {
public:
    /// Of the present library and machine, with the present date.
    explicit Session(const zel::Name& name, JournalArchive* journal = nullptr);
    ~Session() override;

    [[nodiscard]] virtual zel::String getPath() const = 0;
    /// Drops the frame of the index and all behind it; the last one stays.
    virtual bool truncate(zel::uint64 frameIndex) = 0;
    [[nodiscard]] virtual zel::String getScenePath(bool create) = 0;
    virtual bool unpackSceneFile() = 0;
    virtual void packSceneData(std::stringstream& stream) = 0;
    virtual bool unpackSceneData(std::stringstream& stream) = 0;
    virtual void packSceneData(std::istream& stream) = 0;
    virtual bool unpackSceneData(std::ostream& stream) = 0;
    [[nodiscard]] virtual zel::String getCustomFilesPath(bool create) = 0;
    virtual void recordExtraData(const zel::String& key, const zel::String& value) = 0;
    /// Empty for an unknown key.
    [[nodiscard]] virtual zel::String retrieveExtraData(const zel::String& key) const = 0;
    /// Of an unknown frame: the index InvalidIndex, step and stamp -1, the id 0xFFFFFFFF, no key frame.
    [[nodiscard]] virtual Frame::Header getFrameHeader(zel::uint64 frameIndex) const = 0;
    virtual void savePlot(const zelNet::StructuredMessage* message) = 0;
    virtual bool removePlot(const zel::String& name) = 0;
    /// @return a new message without owner; null if there is none
    [[nodiscard]] virtual zelNet::StructuredMessage* getPlot(const zel::String& name) const = 0;
    virtual void getAllPlots(zel::Vector<zel::ref_ptr<zelNet::StructuredMessage>>& plots) const = 0;
    virtual void getPlotList(zel::Vector<zel::String>& names) const = 0;
    /// The index of the frame so many places further on; InvalidIndex for an unknown frame and past the ends.
    [[nodiscard]] virtual zel::uint64 getNextFrameIndex(zel::uint64 frameIndex, zel::int64 step) const = 0;
    virtual void writeHeader() = 0;
    virtual void finalizeHeader() = 0;
    virtual void transferDiskData(JournalArchive* target) = 0;
    virtual void copyDiskData(JournalArchive* target) = 0;
    /// What is told of the simulation that is recorded: components and values by name.
    virtual void setSimulationHeader(zel::Component* header);

    [[nodiscard]] const zel::Name& getName() const noexcept { return m_name; }
    [[nodiscard]] JournalArchive* getJournal() const noexcept { return m_journal; }
    bool copyTo(JournalArchive* target);
    bool transferTo(JournalArchive* target);
    bool rename(const zel::Name& name);
    /// Records a value of any kind as JSON, with the members "name" and "value".
    void recordExtraDataAsJSon(const zel::String& key, const Json::Value& value);
    /// @return whether there is such a value
    bool retrieveExtraDataAsJSon(const zel::String& key, Json::Value& value) const;
    /// "2024-05-31 17:03:59-000123": the present time with its microseconds.
    [[nodiscard]] static zel::String generateNameFromCurrentDate();

    [[nodiscard]] const zel::Date& getDate() const noexcept { return m_date; }
    [[nodiscard]] bool is64BitReal() const noexcept { return m_is64BitReal; }
    [[nodiscard]] bool is64BitArchitecture() const noexcept { return m_is64BitArchitecture; }
    [[nodiscard]] bool isLittleEndian() const noexcept { return m_isLittleEndian; }
    [[nodiscard]] zel::uint64 getNumFrames() const noexcept { return m_numFrames; }
    /// How far apart the indices of neighbouring frames are.
    [[nodiscard]] zel::uint64 getFrameStride() const noexcept { return m_frameStride; }
    [[nodiscard]] zel::uint64 getFirstFrameIndex() const noexcept { return m_firstFrameIndex; }
    [[nodiscard]] double getFirstFrameTimeStamp() const noexcept { return m_firstFrameTimeStamp; }
    /// InvalidIndex until the session is closed.
    [[nodiscard]] zel::uint64 getLastFrameIndex() const noexcept { return m_lastFrameIndex; }
    [[nodiscard]] double getLastFrameTimeStamp() const noexcept { return m_lastFrameTimeStamp; }
    /// Between two indices.
    [[nodiscard]] double getTimeStep() const noexcept { return m_timeStep; }
    [[nodiscard]] const zel::String& getZelVersionString() const noexcept { return m_versionString; }
    [[nodiscard]] zel::uint32 getZelVersionNumber() const noexcept { return m_versionNumber; }
    [[nodiscard]] SerializedFrame::HeaderFormat getHeaderFormat() const noexcept { return m_headerFormat; }
    /// In seconds.
    [[nodiscard]] double getComputationTime() const noexcept { return m_computationTime; }
    /// The reader or writer that stands on the session; null without one.
    [[nodiscard]] FrameIO* getFrameIO() const noexcept { return m_frameIO.get(); }
    [[nodiscard]] zel::Component* getSimulationHeader() const noexcept { return m_simulationHeader.get(); }

    void setDate(const zel::Date& date) noexcept { m_date = date; }
    void set64BitReal(bool flag) noexcept { m_is64BitReal = flag; }
    void set64BitArchitecture(bool flag) noexcept { m_is64BitArchitecture = flag; }
    void setLittleEndian(bool flag) noexcept { m_isLittleEndian = flag; }
    void setNumFrames(zel::uint64 n) noexcept { m_numFrames = n; }
    void setFrameStride(zel::uint64 stride) noexcept { m_frameStride = stride; }
    void setFirstFrameIndex(zel::uint64 index) noexcept { m_firstFrameIndex = index; }
    void setFirstFrameTimeStamp(double timeStamp) noexcept { m_firstFrameTimeStamp = timeStamp; }
    void setLastFrameIndex(zel::uint64 index) noexcept { m_lastFrameIndex = index; }
    void setLastFrameTimeStamp(double timeStamp) noexcept { m_lastFrameTimeStamp = timeStamp; }
    void setTimeStep(double timeStep) noexcept { m_timeStep = timeStep; }
    void setZelVersionString(const zel::String& version) { m_versionString = version; }
    void setZelVersionNumber(zel::uint32 version) noexcept { m_versionNumber = version; }
    void setHeaderFormat(SerializedFrame::HeaderFormat format) noexcept { m_headerFormat = format; }
    void setComputationTime(double seconds) noexcept { m_computationTime = seconds; }
    void setFrameIO(FrameIO* frameIO);

protected:
    void setName(const zel::Name& name) { m_name = name; }

private:
    friend class JournalArchive; // keeps the back pointer

    JournalArchive* m_journal;
    zel::Name m_name;
    zel::Date m_date;
    bool m_is64BitReal = true;
    bool m_is64BitArchitecture;
    bool m_isLittleEndian;
    zel::uint64 m_numFrames = 0;
    zel::uint64 m_frameStride = 1;
    zel::uint64 m_firstFrameIndex = 0;
    double m_firstFrameTimeStamp = 0;
    zel::uint64 m_lastFrameIndex = zel::InvalidIndex;
    double m_lastFrameTimeStamp = 0;
    double m_timeStep = 0;
    zel::String m_versionString;
    zel::uint32 m_versionNumber;
    SerializedFrame::HeaderFormat m_headerFormat = SerializedFrame::INVALID;
    double m_computationTime = 0;
    zel::observer_ptr<FrameIO> m_frameIO;
    zel::ref_ptr<zel::Component> m_simulationHeader;
};

} // namespace zelData
