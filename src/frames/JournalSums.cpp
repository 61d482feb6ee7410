#include "JournalSums.h"

#include "files/DiskFile.h"

#include <zelIO/FileSystem.h>

#include <sys/stat.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <vector>

namespace zelData {

using zel::uint32;
using zel::uint64;
using zelIO::DiskFile;
using zelIO::FileSystem;

namespace {

constexpr std::array<char, 16> SumsTag{'Z', 'e', 'l', 'S', 'u', 'm', 's', '\0', 1}; // and the version
using SumRecord = JournalSums::Record;

uint32 sumOf(const SumRecord& record) {
    return JournalSums::add(0, &record, offsetof(SumRecord, sum));
}

/// All records of the file, whether they are whole or not; none if it is no such file.
std::vector<SumRecord> readRecords(DiskFile& file) {
    std::array<char, SumsTag.size()> tag{};
    uint64 size = 0;
    if (!file.size(size) || size < SumsTag.size() || !file.readAt(0, tag.data(), tag.size()) ||
        tag != SumsTag)
        return {};
    std::vector<SumRecord> records((size - SumsTag.size()) / sizeof(SumRecord));
    uint64 numBytes = 0;
    if (!file.readSomeAt(SumsTag.size(), records.data(), records.size() * sizeof(SumRecord), numBytes))
        return {};
    records.resize(numBytes / sizeof(SumRecord));
    return records;
}

/// To open anything else may wait for ever.
bool isFile(const zel::String& path) {
    struct ::stat data {};
    return FileSystem::stat(path, data) && S_ISREG(data.st_mode);
}

bool isWhole(const SumRecord& record) {
    return record.sum == sumOf(record) && record.padding == 0;
}

} // namespace

uint32 JournalSums::add(uint32 sum, const void* bytes, uint64 numBytes) {
    return static_cast<uint32>(crc32_z(sum, static_cast<const Bytef*>(bytes), numBytes));
}

bool JournalSums::exists() const {
    return FileSystem::exists(m_path);
}

void JournalSums::load() {
    if (!isFile(m_path))
        return;
    DiskFile file(m_path, DiskFile::Mode::Read);
    if (file.isOpen())
        for (const SumRecord& record : readRecords(file))
            if (isWhole(record))
                m_records.insert(record.offset, record);
}

const SumRecord* JournalSums::find(uint64 offset) const {
    const auto entry = m_records.find(offset);
    return entry == m_records.end() ? nullptr : &entry->value;
}

bool JournalSums::cut(uint64 offset) const {
    if (!exists())
        return true;
    if (!isFile(m_path))
        return false;
    DiskFile file(m_path, DiskFile::Mode::ReadWrite);
    if (!file.isOpen())
        return false;
    const std::vector<SumRecord> records = readRecords(file);
    const auto first = std::find_if(records.begin(), records.end(), [offset](const SumRecord& record) {
        return isWhole(record) && record.offset >= offset;
    });
    const auto numKept = static_cast<uint64>(first - records.begin());
    return file.cut(records.empty() ? 0 : SumsTag.size() + numKept * sizeof(SumRecord)) && file.close();
}

bool JournalSums::append(SumRecord record) const {
    record.sum = sumOf(record);
    record.padding = 0;
    if (exists() && !isFile(m_path))
        return false;
    DiskFile file(m_path, DiskFile::Mode::Create);
    uint64 size = 0;
    if (!file.isOpen() || !file.size(size))
        return false;
    if (size < SumsTag.size()) {
        if (!file.writeAt(0, SumsTag.data(), SumsTag.size()))
            return false;
        size = SumsTag.size();
    }
    const uint64 end = size - (size - SumsTag.size()) % sizeof(SumRecord); // a record may be cut off
    if (file.writeAt(end, &record, sizeof(record)) && file.close())
        return true;
    if (file.isOpen())
        static_cast<void>(file.cut(end));
    return false;
}

void JournalSums::remove() const {
    if (exists())
        FileSystem::remove(m_path, false);
}

} // namespace zelData
