#include "JournalMeta.h"
#include "JournalSums.h"
#include "files/DiskFile.h"

#include <zel/Exception.h>
#include <zel/Log.h>
#include <zel/Verify.h>
#include <zelData/FileFrameReader.h>
#include <zelData/FileFrameWriter.h>
#include <zelData/FileJournal.h>
#include <zelIO/FileSystem.h>

#include <stdexcept>

namespace zelData {

using zel::uint64;
using zelIO::DiskFile;
using zelIO::FileSystem;

FileJournal::FileJournal(const zel::String& path, OpenMode mode) : m_mode(mode) {
    const zel::String native = FileSystem::convertToNativeFilePath(path);
    const zel::size_t end = native.find_last_not_of('/');
    const zel::String absolute = FileSystem::getAbsolutePath(
        end == zel::String::npos ? native : zel::String(native.substr(0, end + 1)));
    setName(FileSystem::getFileWithoutExtension(absolute));
    setPath(absolute);
    if (FileSystem::exists(absolute))
        readJournalContent();
    else
        JournalMeta().write(absolute);
}

FileJournal::~FileJournal() = default;

void FileJournal::readJournalContent() {
    const zel::ref_ptr<Session> session(new Session(getName(), getPath(), m_mode));
    JournalMeta meta;
    meta.read(getPath(), false);
    bool isLoaded = false;
    try {
        meta.readSessionHeader(getPath());
        if (const TiXmlElement* root = meta.document.RootElement()) {
            session->load(root);
            isLoaded = true;
        }
    } catch (const std::runtime_error& error) {
        if (m_mode != Tolerant)
            throw;
        ZEL_LOG_WARNING("Journal '" << getPath() << "': the session header at offset "
                                    << meta.sessionHeaderOffset << " can not be read: " << error.what());
    }
    if (isLoaded) {
        session->refuseOtherByteOrder();
        const TiXmlElement* root = meta.document.RootElement();
        try {
            session->readPlotData(root->FirstChildElement("Plots")); // the frames end ahead of them
            session->readExtraData(root->FirstChildElement("ExtraData"));
        } catch (const std::runtime_error&) { // which has been logged
            if (m_mode != Tolerant)
                throw;
        }
    } else if (m_mode == Tolerant && meta.hasSessionHeader()) {
        session->recoverHeader();
    } else {
        ZEL_LOG_WARNING("No session header in journal " << getPath() << "!");
        return;
    }
    session->createFrameTable();
    registerSession(session.get());
}

bool FileJournal::hasSessionInFile() const {
    JournalMeta meta;
    if (FileSystem::exists(getPath()))
        meta.read(getPath(), false);
    return meta.hasSessionHeader();
}

JournalArchive::Session* FileJournal::createNewSession(const zel::Name& name) {
    return createNewFileSession(name);
}

FileJournal::Session* FileJournal::createNewFileSession(const zel::Name& name) {
    zelVerify(!this->getSession(name));
    if (getNumSessions() != 0 || hasSessionInFile())
        ZEL_THROW(std::runtime_error, "Journal '" + getPath() + "' already contains a session!");
    const zel::ref_ptr<Session> session(Session::create(name, getPath()));
    session->m_mode = m_mode;
    registerSession(session.get());
    return session.get();
}

bool FileJournal::removeSession(JournalArchive::Session* session) {
    const zel::ref_ptr<JournalArchive::Session> keep(session);
    if (!isOwnerOf(session))
        return false;
    JournalMeta meta; // without a session
    meta.write(getPath());
    DiskFile file(getPath(), DiskFile::Mode::ReadWrite);
    if (!file.isOpen() || !file.cut(JournalMeta::JournalHeaderSize) || !file.close())
        ZEL_THROW(std::runtime_error, "Failed to write journal header '" + getPath() + "'.");
    JournalSums(getPath()).remove();
    return unregisterSession(session);
}

bool FileJournal::renameSession(JournalArchive::Session* session, const zel::Name& name) {
    const zel::ref_ptr<Session> own(downcastSession(session));
    if (!own || !isOwnerOf(session) || getSession(name) != nullptr)
        return false;
    const zel::Name former = own->getName();
    unregisterSession(session);
    own->setName(name);
    try {
        own->requireWritableHeader("the session", name.c_str());
        own->writeHeader();
    } catch (...) {
        own->setName(former);
        registerSession(session);
        throw;
    }
    return registerSession(session);
}

zel::String FileJournal::getCustomFilesPath(bool create) {
    return zel::ref_ptr<Session>(new Session(getName(), getPath(), m_mode))->getCustomFilesPath(create);
}

zel::String FileJournal::getCustomFilesPath(const zel::Name& /*name*/, bool create) {
    return getCustomFilesPath(create);
}

FrameReader* FileJournal::createFrameReader(JournalArchive::Session* session) {
    return new FileFrameReader(session);
}

FrameWriter* FileJournal::createFrameWriter(JournalArchive::Session* session) {
    return new FileFrameWriter(session);
}

JournalArchive::Session* FileJournal::makeCopy(JournalArchive::Session* /*session*/) {
    zelAbort("The session of journal '%s' lies in one file with it and can not be copied", getPath().c_str());
}

FileJournal::Session* FileJournal::getFileSession(const zel::Name& name) const {
    return downcastSession(getSession(name));
}

FileJournal::Session* FileJournal::downcastSession(JournalArchive::Session* session) {
    return dynamic_cast<Session*>(session);
}

bool FileJournal::isFileJournal(const zel::String& path) {
    /// Lets what is thrown meanwhile be told to nobody who does not ask for all.
    struct QuietScope {
        QuietScope() : level(zel::setExceptionNotifyLevel(zel::Notify::Debug)) {}
        QuietScope(const QuietScope&) = delete;
        QuietScope& operator=(const QuietScope&) = delete;
        ~QuietScope() { zel::setExceptionNotifyLevel(level); }
        int level;
    };
    const QuietScope scope;
    try {
        JournalMeta().read(path, true);
        return true;
    } catch (const std::runtime_error&) {
        return false;
    }
}

bool FileJournal::parseSessionPath(const zel::String& path,
                                   zel::String& journalPath,
                                   zel::String& sessionName) {
    const zel::String separator =
        zel::String::format("%sSessions%s", FileSystem::PATH_SEPARATOR, FileSystem::PATH_SEPARATOR);
    const zel::size_t at = path.rfind(separator);
    if (at == zel::String::npos || at == 0 || at + separator.size() == path.size())
        return false;
    const zel::String name = path.substr(at + separator.size());
    if (name.find('/') != zel::String::npos)
        return false;
    journalPath = path.substr(0, at);
    sessionName = name;
    return true;
}

} // namespace zelData
