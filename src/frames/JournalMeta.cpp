#include "JournalMeta.h"

#include "files/DiskFile.h"
#include "tree/XmlDocument.h"

#include <zel/Exception.h>
#include <zel/Log.h>
#include <zel/Verify.h>
#include <zelCore/Version.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

namespace zelData {

namespace {

using zel::uint64;
using zelIO::DiskFile;

constexpr std::string_view Tag = "ZelJournal";

[[noreturn]] void fail(const zel::String& message) {
    ZEL_THROW(std::runtime_error, message);
}

[[noreturn]] void failToRead(const zel::String& path) {
    fail("Failed to read journal header from '" + path + "'.");
}

[[noreturn]] void failToWrite(const zel::String& path) {
    fail("Failed to write journal header '" + path + "'.");
}

/// Why it failed, ahead of the exception itself.
void tellReason(const zel::String& path, const zel::String& reason) {
    ZEL_LOG(static_cast<zel::Notify::NotifyLevel>(zel::getExceptionNotifyLevel()),
            "Journal '" << path << "': " << reason);
}

constexpr uint64 LargestText = uint64{64} << 20;

} // namespace

void JournalMeta::read(const zel::String& path, bool withSessionHeader) {
    DiskFile file(path, DiskFile::Mode::Read);
    if (!file.isOpen()) {
        tellReason(path, file.getReason());
        fail("Could not open journal '" + path + "'.");
    }
    std::array<char, JournalHeaderSize> bytes{};
    uint64 count = 0;
    if (!file.size(fileSize) || !file.readSomeAt(0, bytes.data(), bytes.size(), count)) {
        tellReason(path, file.getReason());
        failToRead(path);
    }
    if (count < Tag.size())
        failToRead(path);
    if (std::string_view(bytes.data(), Tag.size()) != Tag)
        fail("Invalid journal header '" + path + "'");
    if (count < bytes.size())
        failToRead(path);
    const char* head = bytes.data() + Tag.size();
    for (uint64* field : {&version, &sessionHeaderOffset, &sessionHeaderSize}) {
        std::memcpy(field, head, sizeof(*field));
        head += sizeof(*field);
    }
    if (withSessionHeader)
        readSessionHeader(path);
}

void JournalMeta::readSessionHeader(const zel::String& path) {
    document.Clear();
    if (!hasSessionHeader())
        return;
    DiskFile file(path, DiskFile::Mode::Read);
    const bool isInside = sessionHeaderOffset >= JournalHeaderSize && sessionHeaderOffset <= fileSize &&
                          sessionHeaderSize <= fileSize - sessionHeaderOffset;
    if (!file.isOpen() || !isInside)
        failToRead(path);
    // The length may be of another text than the one that stands there, where a crash came in between.
    const uint64 inFile = std::min(fileSize - sessionHeaderOffset, LargestText);
    std::string text(std::min(std::max(sessionHeaderSize, MaxHeaderSize), inFile), '\0');
    uint64 count = 0;
    if (!file.readSomeAt(sessionHeaderOffset, text.data(), text.size(), count)) {
        tellReason(path, file.getReason());
        failToRead(path);
    }
    text.resize(std::min<uint64>(count, text.find('\0')));
    if (text.empty())
        return;
    zel::XmlFileError error;
    const auto parsed = zel::parseXmlText(text, path, error);
    if (!parsed) {
        tellReason(path,
                   "the session header can not be read, row " + std::to_string(error.row) + ": " +
                       error.reason);
        failToRead(path);
    }
    document = *parsed;
}

void JournalMeta::write(const zel::String& path) {
    DiskFile file(path, DiskFile::Mode::Create);
    if (!file.isOpen()) {
        tellReason(path, file.getReason());
        fail("Could not write journal header '" + path + "'.");
    }
    zel::String headerString;
    if (document.RootElement() != nullptr) {
        headerString = print(document);
        zelVerifyN(headerString.size() <= MaxHeaderSize,
                   "FileJournal: Session header is too large! It is %u bytes, max is %u",
                   static_cast<unsigned>(headerString.size()),
                   static_cast<unsigned>(MaxHeaderSize));
        if (!hasSessionHeader()) {
            if (!file.size(sessionHeaderOffset)) {
                tellReason(path, file.getReason());
                failToWrite(path);
            }
            sessionHeaderOffset = std::max(sessionHeaderOffset, JournalHeaderSize);
        }
        sessionHeaderSize = headerString.size();
        headerString.resize(MaxHeaderSize, '\0');
    } else {
        sessionHeaderOffset = zel::InvalidIndex;
        sessionHeaderSize = 0;
    }
    version = ZEL_GET_VERSION();

    std::string bytes(Tag);
    for (const uint64 field : {version, sessionHeaderOffset, sessionHeaderSize})
        bytes.append(reinterpret_cast<const char*>(&field), sizeof(field));
    // In one piece, so that a crash leaves the old header or the new one.
    const bool isApart = hasSessionHeader() && sessionHeaderOffset != JournalHeaderSize;
    if (!isApart)
        bytes += headerString;
    const bool written =
        !isApart || file.writeAt(sessionHeaderOffset, headerString.data(), headerString.size());
    ::iovec part{bytes.data(), bytes.size()};
    uint64 numWritten = 0;
    if (!written || !file.writeAt(0, &part, 1, numWritten) || !file.close()) {
        tellReason(path, file.getReason());
        // These words stand for the tag that could not be written.
        if (written && numWritten < Tag.size())
            failToRead(path);
        failToWrite(path);
    }
}

zel::String JournalMeta::print(const TiXmlNode& node) {
    TiXmlPrinter printer;
    printer.SetIndent("  ");
    node.Accept(&printer);
    return printer.Str();
}

TiXmlElement* JournalMeta::childOfRoot(const char* name) {
    TiXmlElement* eSession = document.RootElement();
    zelVerify(eSession);
    if (TiXmlElement* child = eSession->FirstChildElement(name))
        return child;
    return eSession->LinkEndChild(new TiXmlElement(name))->ToElement();
}

} // namespace zelData
