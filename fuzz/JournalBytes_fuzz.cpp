// Journals that are opened tolerantly: whatever the bytes are, their frames, plots and scene are read, or a
// std::runtime_error tells why not; and where a writer goes on, what results is opened without a fault.
#include "Support.h"

#include <zel/ref_ptr.h>
#include <zelData/FileFrameReader.h>
#include <zelData/FileFrameWriter.h>
#include <zelData/FileJournal.h>
#include <zelData/Frame.h>
#include <zelNet/StructuredMessage.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

namespace {

using zelData::FileJournal;
using zelData::Frame;

void readAll(FileJournal::Session* session) {
    const zel::ref_ptr<zelData::FileFrameReader> reader(new zelData::FileFrameReader(session));
    for (const auto& info : session->getFrameTable()) {
        try {
            const zel::ref_ptr<Frame> frame(reader->readFrame(info.index));
            if (frame->getNumBytes() != Frame::calculateNumBytes(frame.get()))
                std::abort();
        } catch (const std::runtime_error&) {
            continue;
        }
    }
    try {
        zel::Vector<zel::ref_ptr<zelNet::StructuredMessage>> plots;
        session->getAllPlots(plots);
        std::ostringstream scene;
        session->unpackSceneData(scene);
    } catch (const std::runtime_error&) {
        return;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zelFuzz::initQuietly();
    const zelFuzz::InputFile file(data, size);
    try {
        const zel::ref_ptr<FileJournal> journal(new FileJournal(file.path(), FileJournal::Tolerant));
        if (journal->getNumSessions() == 0)
            return 0;
        auto* session = FileJournal::downcastSession(journal->getSessions().front());
        readAll(session);
        if (session->getFrameHead() == zel::InvalidIndex)
            return 0;
        const std::uint64_t index =
            session->getFrameTable().empty() ? 0 : session->getFrameTable().back().index + 1;
        const zel::ref_ptr<zelData::FileFrameWriter> writer(new zelData::FileFrameWriter(session));
        const zel::ref_ptr<Frame> frame(new Frame(index, 0, 0));
        frame->setKeyFrame(true);
        writer->writeFrame(frame.get());
        writer->endOfStream();
    } catch (const std::runtime_error&) {
        return 0;
    }
    const zel::ref_ptr<FileJournal> again(new FileJournal(file.path()));
    if (FileJournal::downcastSession(again->getSessions().front())->getFrameTable().empty())
        std::abort();
    return 0;
}
