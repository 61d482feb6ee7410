#include "data/JsonText.h"

#include <zel/Component.h>
#include <zel/Log.h>
#include <zel/String.h>
#include <zel/Verify.h>
#include <zelCore/Version.h>
#include <zelData/FrameIO.h>
#include <zelData/JournalArchive.h>

#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>

#include <algorithm>
#include <bit>
#include <memory>

namespace zelData {

JournalArchive::~JournalArchive() {
    for (const auto& entry : m_sessions)
        entry.value->m_journal = nullptr;
}

zel::Vector<zel::Name> JournalArchive::listSessionNames() const {
    zel::Vector<zel::Name> names;
    for (const auto& entry : m_sessions)
        names.push_back(entry.key);
    std::sort(
        names.begin(), names.end(), [](const zel::Name& a, const zel::Name& b) { return a.str() < b.str(); });
    return names;
}

zel::Vector<JournalArchive::Session*> JournalArchive::getSessions() const {
    zel::Vector<Session*> sessions;
    for (const zel::Name& name : listSessionNames())
        sessions.push_back(getSession(name));
    return sessions;
}

JournalArchive::Session* JournalArchive::getSession(const zel::Name& name) const {
    const auto entry = m_sessions.find(name);
    return entry == m_sessions.end() ? nullptr : entry->value.get();
}

bool JournalArchive::removeSession(const zel::Name& name) {
    Session* session = getSession(name);
    return session != nullptr && removeSession(session);
}

bool JournalArchive::registerSession(Session* session) {
    const zel::ref_ptr<Session> keep(session);
    if (m_sessions.contains(session->getName()))
        return false;
    m_sessions.insert(session->getName(), keep);
    session->m_journal = this;
    return true;
}

bool JournalArchive::unregisterSession(Session* session) {
    if (!isOwnerOf(session))
        return false;
    session->m_journal = nullptr;
    m_sessions.erase(session->getName());
    return true;
}

bool JournalArchive::isOwnerOf(const Session* session) const {
    const bool inTable = getSession(session->getName()) == session;
    const bool isBackPointer = session->getJournal() == this;
    zelVerifyNAs(inTable == isBackPointer,
                 "inTable == isBackPointer",
                 "A session and a journal was not in agreement of who the owner of the session is.");
    return inTable;
}

bool JournalArchive::copySession(Session* session, JournalArchive* target) {
    if (!isOwnerOf(session)) {
        ZEL_LOG_WARNING("JournalArchive: Asked to copy a session that isn't part of the archive.");
        return false;
    }
    if (target->getSession(session->getName()) != nullptr) {
        ZEL_LOG_WARNING("JournalArchive: Asked to copy a session into a journal that already has a session "
                        "with the same name.");
        return false;
    }
    const zel::ref_ptr<Session> copy(makeCopy(session));
    copy->copyDiskData(target);
    return target->registerSession(copy.get());
}

bool JournalArchive::transferSession(Session* session, JournalArchive* target) {
    if (!isOwnerOf(session)) {
        ZEL_LOG_WARNING("JournalArchive: Asked to transfer a session that isn't part of the archive.");
        return false;
    }
    if (target->getSession(session->getName()) != nullptr) {
        ZEL_LOG_WARNING("JournalArchive: Asked to transfer a session into a journal that already has a "
                        "session with the same name.");
        return false;
    }
    const zel::ref_ptr<Session> keep(session);
    session->transferDiskData(target);
    zelVerifyNAs(unregisterSession(session),
                 "this->unregisterSession(session)",
                 "JournalArchive: The session being transfered has been modified from somewhere else. Are "
                 "there multiple threads modifying this session simultaneously?");
    zelVerifyNAs(target->registerSession(session),
                 "target->registerSession(session)",
                 "JournalArchive: The journal that the session is being transfered into has been modified "
                 "from somewhere else. Are there multiple threads modifying this");
    return true;
}

// Session

JournalArchive::Session::Session(const zel::Name& name, JournalArchive* journal)
    : m_journal(journal)
    , m_name(name)
    , m_date(zel::Date::now())
    , m_is64BitArchitecture(sizeof(void*) == 8)
    , m_isLittleEndian(std::endian::native == std::endian::little)
    , m_versionString(zelCore::zelGetVersion(true))
    , m_versionNumber(zelCore::zelGetVersionNumber()) {}

JournalArchive::Session::~Session() = default;

bool JournalArchive::Session::copyTo(JournalArchive* target) {
    return m_journal != nullptr && m_journal->copySession(this, target);
}

bool JournalArchive::Session::transferTo(JournalArchive* target) {
    return m_journal != nullptr && m_journal->transferSession(this, target);
}

bool JournalArchive::Session::rename(const zel::Name& name) {
    return m_journal != nullptr && m_journal->renameSession(this, name);
}

void JournalArchive::Session::recordExtraDataAsJSon(const zel::String& key, const Json::Value& value) {
    Json::Value json;
    json["name"] = std::string(key);
    json["value"] = value;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    recordExtraData(key, Json::writeString(builder, json));
}

bool JournalArchive::Session::retrieveExtraDataAsJSon(const zel::String& key, Json::Value& value) const {
    const zel::String text = retrieveExtraData(key);
    Json::Value json;
    try {
        const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
        if (text.empty() || !readJson(*reader, text, json) || !json.isObject() || !json.isMember("value"))
            return false;
    } catch (const Json::Exception&) { // nested too deep
        return false;
    }
    value = json["value"];
    return true;
}

zel::String JournalArchive::Session::generateNameFromCurrentDate() {
    const zel::Date now = zel::Date::now();
    return zel::String::format(
        "%s-%06u", now.toStringDateAndTime().c_str(), static_cast<unsigned>(now.getMicroSeconds()));
}

void JournalArchive::Session::setFrameIO(FrameIO* frameIO) {
    m_frameIO = frameIO;
}

void JournalArchive::Session::setSimulationHeader(zel::Component* header) {
    m_simulationHeader = header;
}

} // namespace zelData
