// Journals that are looked at, recovered, cut and compared: whatever the bytes are, these end with a report
// or a std::runtime_error, and what they write is whole.
#include "Support.h"

#include <zelData/JournalCheck.h>
#include <zelData/JournalDiff.h>
#include <zelData/JournalRecovery.h>
#include <zelData/PlainElements.h>
#include <zelData/PlainJournal.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace {

using zelData::PlainFrame;

// NOLINTNEXTLINE(misc-no-recursion): frames are 512 deep at most
std::size_t look(const PlainFrame::Node& node) {
    const zelData::PlainElements elements(node);
    std::size_t length = 0;
    for (std::size_t i = 0; i < elements.size() && i < 4; ++i)
        length += elements.text(i).size();
    for (const PlainFrame::Node& child : node.children)
        length += look(child);
    return length;
}

void lookAtFrames(const std::string& path) {
    zelData::PlainJournal journal(path);
    for (std::size_t i = 0; i < journal.getFrames().size(); ++i) {
        const PlainFrame& frame = journal.readComplete(i);
        static_cast<void>(look(frame.getRoot()));
        const zel::ref_ptr<zelData::Frame> made(frame.createFrame([](const zel::String&) { return true; }));
    }
}

/// Runs what may throw for bytes that are wrong.
template <typename Function>
bool attempt(Function&& function) {
    try {
        function();
        return true;
    } catch (const std::runtime_error&) {
        return false;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zelFuzz::initQuietly();
    const zelFuzz::InputFile file(data, size);
    const std::string copy = "/tmp/zelFuzz-" + std::to_string(getpid()) + ".journal";
    std::remove(copy.c_str());
    const auto report = zelData::verifyJournal(file.path());
    attempt([&] { lookAtFrames(file.path()); });
    zelData::RecoveryReport recovered;
    const bool isRecovered = attempt([&] { recovered = zelData::recoverJournal(file.path(), copy); });
    if (isRecovered && (!recovered.check.isWhole() || recovered.check.numFrames != recovered.frames.size() ||
                        recovered.frames.size() != report.numFrames))
        std::abort();
    if (isRecovered && zelData::diffJournals(copy, copy).isDifferent)
        std::abort();
    std::remove(copy.c_str());
    if (attempt([&] { zelData::cutJournal(file.path(), copy, 1, 1000); }))
        attempt([&] { lookAtFrames(copy); });
    std::remove(copy.c_str());
    return 0;
}
