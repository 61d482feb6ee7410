#include "FrameRecord.h"
#include "JournalSums.h"
#include "files/DiskFile.h"

#include <zelData/PlainJournal.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>

// The frames of a journal in which something is wrong.

namespace zelData {

using zel::uint64;

namespace {

const char* const NoKeyFrame = "it builds on frames that are gone";

} // namespace

zel::String PlainJournal::examineRecord(uint64 offset, FrameEntry& entry) const {
    entry.offset = offset;
    if (m_limit - offset < sizeof(entry.record) ||
        !m_file->readAt(offset, &entry.record, sizeof(entry.record))) {
        entry.record = {};
        entry.record.index = zel::InvalidIndex;
        return "the file is cut off within the record of a frame";
    }
    if (const char* fault = faultOf(entry.record))
        return zel::String("the file ") + fault;
    FrameExtent extent{};
    if (!extentOf(entry.record, offset, extent))
        return "the record tells sizes that no file has";
    entry.dataOffset = extent.dataOffset;
    return extent.end > m_limit ? "the file is cut off within the frame" : "";
}

zel::String PlainJournal::examineStructure(const FrameEntry& entry) const {
    try {
        return faultOfLength(entry, PlainFrame::withoutNames(readHeader(entry).get()));
    } catch (const std::runtime_error& error) {
        return error.what();
    }
}

zel::String PlainJournal::examineAll(const FrameEntry& entry) {
    try {
        const auto header = readHeader(entry);
        const auto segment = readSegment(entry);
        const PlainFrame frame(header.get(), segment.get(), m_names);
        zel::String fault = faultOfLength(entry, frame);
        if (fault.empty())
            fault = frame.findFault();
        if (!fault.empty())
            return fault;
        const JournalSums::Record* sum = m_sums->find(entry.offset);
        if (sum != nullptr) {
            if (sum->index != entry.record.index)
                return "the index is not that of its checksum";
            if (JournalSums::add(0, header->getData(), header->getSize()) != sum->header)
                return "the checksum of the header differs";
            if (JournalSums::add(0, segment->getData(), segment->getSize()) != sum->data)
                return "the checksum of the data differs";
            ++m_totals.numSums;
        }
        m_state.merge(frame, getMaxBytes());
        m_totals.numNodes += frame.getNumNodes();
        m_totals.numEvents += frame.getNumEvents();
        m_totals.numBytes += entry.record.dataSize;
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return {};
}

zel::String PlainJournal::faultOfLength(const FrameEntry& entry, const PlainFrame& frame) const {
    const bool isLong = entry.record.dataSize > frame.getEndOfElements();
    return isLong && entry.end() != m_limit && !isFollowed(entry.end())
               ? "the data segment is longer than its elements, and leads to no other frame"
               : "";
}

bool PlainJournal::isFollowed(uint64 offset) const {
    FrameRecord record{};
    return m_limit - offset >= sizeof(record) && m_file->readAt(offset, &record, sizeof(record)) &&
           faultOf(record) == nullptr;
}

void PlainJournal::addGap(uint64 begin, uint64 end, const zel::String& reason) {
    if (begin == end)
        return;
    if (!m_gaps.empty() && m_gaps.back().end == begin && m_gaps.back().reason == reason)
        m_gaps.back().end = end;
    else
        m_gaps.push_back({begin, end, reason});
}

/// The careful way: a frame stands if all of it can be read. Behind one that can not, the next place is
/// sought that can be a frame; increments stand again from the next key frame on.
void PlainJournal::scan() {
    JournalSums sums(m_path);
    sums.load();
    m_sums = &sums;
    bool isGroupWhole = false;
    for (uint64 offset = m_begin; offset < m_limit;) {
        FrameEntry entry{};
        zel::String fault = examineRecord(offset, entry);
        if (fault.empty()) {
            const bool stands = isGroupWhole || entry.record.isKeyFrame != 0;
            fault = stands ? examineAll(entry) : examineStructure(entry);
            if (fault.empty() && stands) {
                isGroupWhole = true;
                m_frames.push_back(entry);
            } else if (stands) { // it may hold many others, each of which reads as far as this one did
                m_searchBudget -= std::min(m_searchBudget, entry.end() - offset);
            } else if (fault.empty()) {
                m_missing.push_back({entry.record.index, offset, NoKeyFrame});
                addGap(offset, entry.end(), NoKeyFrame);
            }
        }
        if (fault.empty()) {
            offset = entry.end();
            continue;
        }
        isGroupWhole = false;
        if (entry.record.endTag == SerializedFrame::BinaryHeader::EndTag &&
            entry.record.index != zel::InvalidIndex)
            m_missing.push_back({entry.record.index, offset, fault});
        const uint64 next = findNextFrame(offset + 1);
        addFault(offset, fault);
        addGap(offset, next, fault);
        offset = next;
    }
    m_sums = nullptr;
    m_state = PlainFrame();
    m_names.clear();
    dropDoubtfulFrames();
    dropFramesBehindTheEnd();
    m_endOfFrames = m_frames.empty() ? m_begin : m_frames.back().end();
}

/// The next place that can be a frame; the limit if there is none.
uint64 PlainJournal::findNextFrame(uint64 offset) {
    for (;;) {
        offset = findFrameRecord(*m_file, offset, m_limit);
        if (offset == zel::InvalidIndex)
            return m_limit;
        FrameEntry entry{};
        const zel::String fault = examineRecord(offset, entry);
        // A file may be made so that each of its bytes seems to begin a header as long as the file.
        if (fault.empty() && entry.record.headerSize > m_searchBudget) {
            addFault(offset, "so much lies within each other that no frame is sought from here on");
            return m_limit;
        }
        if (fault.empty()) {
            m_searchBudget -= entry.record.headerSize;
            if (examineStructure(entry).empty())
                return offset;
        }
        ++offset;
    }
}

/// Indices rise. Where they fall, the frame ahead lies if its neighbours would fit, else the one behind; what
/// builds on a frame that lies can not stand either.
void PlainJournal::dropDoubtfulFrames() {
    std::vector<FrameEntry> kept;
    const auto drop = [this](const FrameEntry& entry, const zel::String& reason) {
        m_missing.push_back({entry.record.index, entry.offset, reason});
        addGap(entry.offset, entry.end(), reason);
    };
    bool isGroupWhole = false;
    for (zel::size_t i = 0; i < m_frames.size(); ++i) {
        const FrameEntry& entry = m_frames[i];
        const uint64 index = entry.record.index;
        const bool falls = !kept.empty() && index <= kept.back().record.index;
        const bool isAbove = i + 1 < m_frames.size() && index >= m_frames[i + 1].record.index &&
                             (kept.empty() || m_frames[i + 1].record.index > kept.back().record.index);
        if (falls || isAbove) {
            const char* reason = "its index does not stand between those of its neighbours";
            addFault(entry.offset, "the frame has the index " + std::to_string(index) + ", and " + reason);
            drop(entry, reason);
            isGroupWhole = false;
        } else if (entry.record.isKeyFrame != 0 || isGroupWhole) {
            isGroupWhole = true;
            kept.push_back(entry);
        } else {
            drop(entry, NoKeyFrame);
        }
    }
    m_frames = std::move(kept);
}

/// Of a closed session, what was dropped from it may still lie behind its last frame. The headers are
/// believed where both of their numbers agree with the frames.
void PlainJournal::dropFramesBehindTheEnd() {
    if (!m_isClosed)
        return;
    const uint64 numTold = m_session->getNumFrames();
    const auto last = findFrame(m_session->getLastFrameIndex());
    const bool isDamaged = !m_gaps.empty();
    const bool agrees = last ? (*last + 1 == numTold || (isDamaged && *last + 1 < numTold))
                             : numTold == 0 && m_session->getLastFrameIndex() == 0;
    if (!agrees || (m_frames.size() != numTold && isDamaged && !last)) {
        addFault(
            0,
            zel::String::format("the session header tells %llu frames up to index %llu, and there are %zu",
                                static_cast<unsigned long long>(numTold),
                                static_cast<unsigned long long>(m_session->getLastFrameIndex()),
                                m_frames.size()));
        return;
    }
    const zel::size_t numKept = last ? *last + 1 : 0;
    const uint64 end = numKept == 0 ? m_begin : m_frames[numKept - 1].end();
    m_frames.resize(numKept);
    // Behind the end nothing counts.
    std::erase_if(m_gaps, [end](const Gap& gap) { return gap.begin >= end; });
    std::erase_if(m_missing, [end](const MissingFrame& frame) { return frame.offset >= end; });
    std::erase_if(m_faults,
                  [end, this](const Fault& fault) { return fault.offset >= end && fault.offset >= m_begin; });
}

} // namespace zelData
