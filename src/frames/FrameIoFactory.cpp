#include <zel/Verify.h>
#include <zelData/FrameIoFactory.h>

namespace zelData {

namespace {

JournalArchive* journalOf(const JournalArchive::Session* session) {
    zelVerify(session);
    zelVerifyN(session->getJournal() != nullptr,
               "the session '%s' belongs to no journal",
               session->getName().c_str());
    return session->getJournal();
}

} // namespace

FrameReader* FrameIoFactory::createFrameReader(JournalArchive::Session* session) {
    return journalOf(session)->createFrameReader(session);
}

FrameWriter* FrameIoFactory::createFrameWriter(JournalArchive::Session* session) {
    return journalOf(session)->createFrameWriter(session);
}

} // namespace zelData
