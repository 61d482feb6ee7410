#include <zelData/JournalCheck.h>

#include <algorithm>
#include <exception>

namespace zelData {

JournalReport verifyJournal(const zel::String& path) {
    JournalReport report;
    try {
        const PlainJournal journal(path, PlainJournal::Search::Scan);
        report.isJournal = journal.beginsAsJournal();
        report.isClosed = journal.isClosed();
        report.fileSize = journal.getFileSize();
        report.numFrames = journal.getFrames().size();
        report.numKeyFrames = static_cast<zel::uint64>(
            std::count_if(journal.getFrames().begin(), journal.getFrames().end(), [](const auto& entry) {
                return entry.record.isKeyFrame != 0;
            }));
        report.totals = journal.getTotals();
        report.faults = journal.getFaults();
    } catch (const std::exception& error) { // a file that cannot be read, or has no room in memory
        report.faults.push_back({0, error.what()});
    }
    return report;
}

} // namespace zelData
