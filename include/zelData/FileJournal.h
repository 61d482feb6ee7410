#pragma once

#include <zel/Export.h>
#include <zel/HashTable.h>
#include <zel/InvalidIndex.h>
#include <zel/String.h>
#include <zel/Vector.h>
#include <zel/Xml.h>
#include <zel/ref_ptr.h>
#include <zelData/BinaryData.h>
#include <zelData/JournalArchive.h>
#include <zelData/SerializedFrame.h>

#include <memory>

namespace zelData {

/// A journal in one file, with one session at most: its header, the packed scene, the frames and the plots.
/// docs/journal-format.md tells the layout.
///
///     const zel::ref_ptr<FileJournal> journal(new FileJournal("run.journal"));
///     FileJournal::Session* session = journal->createNewFileSession("run");
///     std::istringstream scene;
///     session->packSceneData(scene); // also where there is none: the frames begin behind it
///     const zel::ref_ptr<FileFrameWriter> writer(new FileFrameWriter(session));
///
/// A frame is in the file when writeFrame returns, so that a journal outlives a crash of the process that
/// writes it: when it is opened, the frames are found by walking from one to the next.
/// @threads external lock
class ZEL_CORE_API FileJournal : public JournalArchive {
public:
    class Session;

    /// What becomes of a journal that is damaged. Strict ends the process, or throws; a last frame that was
    /// cut off stands in the session, and fails when it is read. Tolerant keeps the frames ahead of the first
    /// fault, with a warning that tells its offset; a session whose header cannot be read is made anew from
    /// its frames, and frames that cannot be read throw a std::runtime_error.
    enum OpenMode : zel::uint8 { Strict, Tolerant };

    /// Where a frame lies in the file.
    struct FrameInfo {
        zel::uint64 index;
        SerializedFrame::BinaryHeader::Frame meta; ///< as it stands in the file
        zel::uint64 headerOffset;
        zel::uint64 dataOffset;
        zel::uint64 position; ///< among the frames of the session
    };

    /// Where a plot lies in the file: its JSON text, and its bytes behind that.
    struct PlotEntry {
        zel::uint64 offset;
        zel::uint64 headerSize;
        zel::uint64 dataSize;
    };

    /// Opens the journal, or makes a file without session. A journal that cannot be written is read all the
    /// same.
    /// @throws std::runtime_error  for a file that is no journal, or cannot be read or made, and for a
    /// session
    ///     of the other byte order
    explicit FileJournal(const zel::String& path, OpenMode mode = Strict);
    ~FileJournal() override;

    /// As createNewFileSession.
    JournalArchive::Session* createNewSession(const zel::Name& name) override;
    using JournalArchive::removeSession;
    /// Leaves a journal without session: all else in the file goes.
    bool removeSession(JournalArchive::Session* session) override;
    bool renameSession(JournalArchive::Session* session, const zel::Name& name) override;
    /// "<path without extension>.files" beside the journal, for the session as well.
    [[nodiscard]] zel::String getCustomFilesPath(bool create) override;
    [[nodiscard]] zel::String getCustomFilesPath(const zel::Name& name, bool create) override;
    [[nodiscard]] FrameReader* createFrameReader(JournalArchive::Session* session) override;
    [[nodiscard]] FrameWriter* createFrameWriter(JournalArchive::Session* session) override;
    /// A session of a file cannot be copied or moved: this ends the process.
    [[nodiscard]] JournalArchive::Session* makeCopy(JournalArchive::Session* session) override;

    /// Makes the session, for which the file is made anew.
    /// @return the session, which the journal owns
    /// @throws std::runtime_error  "Journal '%s' already contains a session!", with all left as it is
    Session* createNewFileSession(const zel::Name& name);
    /// Null if there is none.
    [[nodiscard]] Session* getFileSession(const zel::Name& name) const;
    /// Null for a session of another kind of journal.
    [[nodiscard]] static Session* downcastSession(JournalArchive::Session* session);

    [[nodiscard]] OpenMode getOpenMode() const noexcept { return m_mode; }

    /// Whether the file begins as a journal and its session header can be read.
    [[nodiscard]] static bool isFileJournal(const zel::String& path);
    /// Takes "<journal>/Sessions/<session>" apart.
    /// @return whether the path has this form
    static bool parseSessionPath(const zel::String& path, zel::String& journalPath, zel::String& sessionName);

private:
    void readJournalContent();
    [[nodiscard]] bool hasSessionInFile() const;

    OpenMode m_mode;
};

class JournalMeta;
class PlainJournal;

/// The session of a journal in one file.
/// @threads external lock; while a writer or reader on a track uses it, that track's
class ZEL_CORE_API FileJournal::Session : public JournalArchive::Session {
public:
    /// The session header takes so many bytes of the file, and its text no more.
    static constexpr zel::uint64 MaxHeaderSize = 10240;

    ~Session() override;

    /// Makes the file anew, whatever it held, with the session.
    /// @return a new session without owner
    /// @throws std::runtime_error  where the file cannot be written, or the name does not fit into the header
    [[nodiscard]] static Session* create(const zel::Name& name, const zel::String& path);
    /// Takes over what the element "Session" tells. On a throw all is as before.
    /// @throws std::runtime_error with file and row, for elements that lack or cannot be read
    void load(const TiXmlElement* element);

    /// Of the journal's file.
    [[nodiscard]] zel::String getPath() const override;
    /// Drops all plots, and the frame of the index with all behind it; the last frame alone stays. The file
    /// keeps its length until the next frame is written.
    /// @return false, with a warning, for an index outside of the session
    bool truncate(zel::uint64 frameIndex) override;
    [[nodiscard]] zel::String getScenePath(bool create) override;
    /// Writes the scene to getScenePath(true).
    bool unpackSceneFile() override;
    /// The scene is packed once, ahead of the first frame, which is verified.
    /// @throws std::runtime_error  with nothing changed
    void packSceneData(std::stringstream& stream) override;
    /// @return false if none was packed
    bool unpackSceneData(std::stringstream& stream) override;
    void packSceneData(std::istream& stream) override;
    bool unpackSceneData(std::ostream& stream) override;
    [[nodiscard]] zel::String getCustomFilesPath(bool create) override;
    /// Goes into the file with the next writeHeader.
    /// @param key    a name as XML elements have
    /// @param value  UTF-8, not empty
    /// @throws std::runtime_error  for any other, and where it does not fit, with nothing changed
    void recordExtraData(const zel::String& key, const zel::String& value) override;
    [[nodiscard]] zel::String retrieveExtraData(const zel::String& key) const override;
    /// In alphabetical order.
    void getExtraDataKeys(zel::Vector<zel::String>& keys) const;
    [[nodiscard]] Frame::Header getFrameHeader(zel::uint64 frameIndex) const override;
    /// Writes the plot, which has a member "name" in its header, behind all else in the file, in place of one
    /// of this name. Its bytes stay in the file even so, and when it is removed.
    /// @throws std::runtime_error  with nothing changed
    void savePlot(const zelNet::StructuredMessage* message) override;
    bool removePlot(const zel::String& name) override;
    /// @throws std::runtime_error  where it cannot be read
    [[nodiscard]] zelNet::StructuredMessage* getPlot(const zel::String& name) const override;
    /// By the member "id" of their headers, ascending.
    void getAllPlots(zel::Vector<zel::ref_ptr<zelNet::StructuredMessage>>& plots) const override;
    /// In the order in which they lie in the file.
    void getPlotList(zel::Vector<zel::String>& names) const override;
    [[nodiscard]] zel::uint64 getNextFrameIndex(zel::uint64 frameIndex, zel::int64 step) const override;
    /// @throws std::runtime_error  where the file cannot be written
    void writeHeader() override;
    /// Writes the header and looks for the frames anew.
    void finalizeHeader() override;
    /// These two end the process.
    void transferDiskData(JournalArchive* target) override;
    void copyDiskData(JournalArchive* target) override;
    /// @param header  its names are such as XML elements have
    /// @throws std::runtime_error  for any other, and where it does not fit, with nothing changed
    void setSimulationHeader(zel::Component* header) override;

    /// Where the next frame goes; InvalidIndex until the scene is packed.
    [[nodiscard]] zel::uint64 getFrameHead() const noexcept { return m_frameHead; }
    void setFrameHead(zel::uint64 offset) noexcept { m_frameHead = offset; }
    /// Null for an unknown frame; valid until frames are added or dropped.
    [[nodiscard]] const FrameInfo* getFrameInfo(zel::uint64 frameIndex) const;
    /// In the order of the file.
    [[nodiscard]] const zel::Vector<FrameInfo>& getFrameTable() const noexcept { return m_frameTable; }
    [[nodiscard]] zel::uint64 getSceneDataOffset() const noexcept { return m_sceneDataOffset; }
    [[nodiscard]] zel::uint64 getSceneDataSize() const noexcept { return m_sceneDataSize; }
    [[nodiscard]] zel::uint64 getFrameDataOffset() const noexcept { return m_frameDataOffset; }
    [[nodiscard]] OpenMode getOpenMode() const noexcept { return m_mode; }
    /// Whether the header tells that no frame follows. A writer that was killed leaves it open for ever.
    [[nodiscard]] bool isClosed() const noexcept { return m_isClosed; }
    /// Finds the frames in the file, from the first one on. A session that was never closed gets its numbers
    /// from them.
    void createFrameTable();
    /// Takes in what has been written to the file since, by another process or through another journal of the
    /// same path: frames, plots, and the end of the session. A frame that is not complete yet is left for the
    /// next time. Where frames were dropped meanwhile, all are found anew. Does nothing while a writer of its
    /// own is at work.
    /// @return the number of frames that are new
    /// @throws std::runtime_error  where the file is gone
    zel::uint64 refresh();
    /// Takes date, versions, stride, computation time, extra data and what was told of the simulation from a
    /// session of another file.
    /// @throws std::runtime_error  where it does not fit into the header
    void copyDescription(const Session& other);
    /// Prints sizes on the standard output stream.
    void printFileStatistics() const;

private:
    friend class FileJournal;
    friend class FileFrameWriter;
    friend class PlainJournal; // reads the header without the frames

    Session(const zel::Name& name, const zel::String& path, OpenMode mode);

    // The header
    [[nodiscard]] JournalMeta readMeta() const;
    [[nodiscard]] std::unique_ptr<TiXmlElement> generateHeader() const;
    void readExtraData(const TiXmlElement* root);
    void readPlotData(const TiXmlElement* root);
    /// @throws std::runtime_error  where the header does not fit, or would not be read back
    void requireWritableHeader(const char* what, const zel::String& name) const;
    void refuseOtherByteOrder() const;

    // The frames
    /// Takes in the frames from the offset on, and leaves frameHead behind the last one.
    /// @param quiet  whether what is not complete yet is no fault
    void walkFrames(zel::uint64 offset, zel::uint64 limit, bool quiet);
    void enterFrame(const SerializedFrame::BinaryHeader::Frame& meta,
                    zel::uint64 headerOffset,
                    zel::uint64 dataOffset);
    void clearFrames();
    /// Takes the frames whose headers lie at the offset or behind it out of the table.
    void dropFramesFrom(zel::uint64 offset);
    /// Sets the numbers of the session from the table.
    void describeFrames();
    void recoverHeader();
    /// The offset at which the frames of an open session end at the latest.
    [[nodiscard]] zel::uint64 limitOfPlots() const;

    // The writer's side
    /// Makes the end of the frames that of the file, and tells in the header that frames follow. Plots are
    /// kept in memory until endWriting.
    void beginWriting(const SerializedFrame::BinaryHeader::Frame& first, zel::uint64 stride);
    void endWriting();

    // Plots
    struct SavedPlot {
        zel::String name;
        zel::ref_ptr<BinaryData> text;
        zel::ref_ptr<BinaryData> data;
    };
    [[nodiscard]] SavedPlot readPlot(const zel::String& name, const PlotEntry& entry) const;
    void appendPlot(const SavedPlot& plot);
    void takePlots();
    [[nodiscard]] zel::Vector<zel::String> plotNames() const;

    zel::String m_path;
    OpenMode m_mode;
    bool m_isClosed = false;
    bool m_isRecovered = false; // from the frames, since the header could not be read
    zel::uint64 m_sceneDataOffset = zel::InvalidIndex;
    zel::uint64 m_sceneDataSize = 0;
    zel::uint64 m_frameDataOffset = zel::InvalidIndex;
    zel::uint64 m_frameHead = zel::InvalidIndex;
    zel::Vector<FrameInfo> m_frameTable;
    zel::HashTable<zel::uint64, zel::uint64> m_frameLookup; // from the index to the position
    zel::HashTable<zel::String, zel::String> m_extraData;
    zel::HashTable<zel::String, PlotEntry> m_plots;
    zel::Vector<SavedPlot> m_savedPlots;           // whose bytes were written over by frames
    std::unique_ptr<TiXmlElement> m_foreignHeader; // what the loaded header had beside that; may be null
};

} // namespace zelData
