#include "Command.h"
#include "JournalText.h"

#include <zelData/JournalCheck.h>
#include <zelData/JournalRecovery.h>

#include <iostream>
#include <limits>

// zel journal verify, recover and cut.

namespace tool {

using zelData::JournalReport;
using zelData::PlainJournal;

namespace {

void printFaults(const std::vector<PlainJournal::Fault>& faults) {
    for (const PlainJournal::Fault& fault : faults)
        std::cout << "  at offset " << fault.offset << ": " << printable(fault.text) << '\n';
}

/// "0 to 4, 6, 8 to 9".
std::string rangesOf(const std::vector<zel::uint64>& numbers) {
    std::string text;
    for (std::size_t i = 0; i < numbers.size();) {
        std::size_t end = i + 1;
        while (end < numbers.size() && numbers[end] == numbers[end - 1] + 1)
            ++end;
        text += (text.empty() ? "" : ", ") + std::to_string(numbers[i]) +
                (end - i > 1 ? " to " + std::to_string(numbers[end - 1]) : "");
        i = end;
    }
    return text;
}

void print(const JournalReport& report) {
    std::cout << "Looked at " << sizeOf(report.fileSize) << ": " << counted(report.numFrames, "frame") << ", "
              << counted(report.numKeyFrames, "key frame") << ", " << counted(report.totals.numNodes, "node")
              << ", " << counted(report.totals.numEvents, "event") << ", " << sizeOf(report.totals.numBytes)
              << " of elements, " << counted(report.totals.numSums, "frame") << " with a checksum.\n";
    if (report.isJournal && !report.isClosed)
        std::cout << "The session was never closed.\n";
    if (report.faults.empty()) {
        std::cout << "No fault was found.\n";
        return;
    }
    std::cout << counted(report.faults.size(), "fault") << ":\n";
    printFaults(report.faults);
}

} // namespace

int verify(const Arguments& arguments) {
    const std::string& path = arguments.positional()[0];
    const JournalReport report = zelData::verifyJournal(path);
    if (report.fileSize == 0 && !report.isJournal && report.faults.size() == 1)
        throw std::runtime_error(report.faults[0].text);
    print(report);
    return report.isWhole() ? Done : Differs;
}

int recover(const Arguments& arguments) {
    const auto& words = arguments.positional();
    const zelData::RecoveryReport report = zelData::recoverJournal(words[0], words[1]);
    std::cout << counted(report.frames.size(), "frame") << " came back: " << rangesOf(report.frames) << ".\n";
    if (!report.hasSession)
        std::cout << "The session header could not be read: scene and data of the session are gone.\n";
    if (!report.missingFrames.empty())
        std::cout << counted(report.missingFrames.size(), "frame")
                  << " missing of which a record was found:\n";
    for (const PlainJournal::MissingFrame& frame : report.missingFrames)
        std::cout << "  " << frame.index << ", at offset " << frame.offset << ": " << printable(frame.reason)
                  << '\n';
    if (!report.gaps.empty())
        std::cout << "Bytes that were left out:\n";
    for (const PlainJournal::Gap& gap : report.gaps)
        std::cout << "  " << gap.begin << " to " << gap.end << ": " << printable(gap.reason) << '\n';
    if (!report.faults.empty()) {
        std::cout << counted(report.faults.size(), "fault") << " of " << words[0] << ":\n";
        printFaults(report.faults);
    }
    std::cout << words[1] << ":\n";
    print(report.check);
    if (!report.check.isWhole())
        throw std::runtime_error("'" + words[1] + "' is not whole");
    return report.gaps.empty() && report.faults.empty() ? Done : Differs;
}

int cut(const Arguments& arguments) {
    const auto& words = arguments.positional();
    const unsigned long from = arguments.number("--from", 0);
    const unsigned long to = arguments.number("--to", std::numeric_limits<unsigned long>::max());
    if (from > to)
        throw UsageError("--from is above --to");
    const unsigned long count = zelData::cutJournal(words[0], words[1], from, to);
    std::cout << "Wrote " << counted(count, "frame") << " to " << words[1] << ".\n";
    return Done;
}

} // namespace tool
