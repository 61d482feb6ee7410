#pragma once

#include "JournalFixture.h"

#include <zelData/PlainJournal.h>

#include <filesystem>
#include <string>
#include <vector>

namespace zelTest {

/// Journals of the model, which are then damaged.
class DamageFixture : public JournalFixture {
protected:
    using PlainJournal = zelData::PlainJournal;

    /// So many frames at random, every fourth of them a key frame.
    void
    recordModel(zel::size_t numFrames, bool isClosed = true, bool hasSums = false, const char* scene = "") {
        std::mt19937 random(7);
        clearModel();
        std::filesystem::remove(path());
        make(scene);
        beginWriting();
        writer->setChecksums(hasSums);
        for (zel::size_t i = 0; i < numFrames; ++i)
            writer->writeFrame(makeAtRandom(random, i % 4 == 0).get());
        if (isClosed)
            writer->endOfStream();
        table.clear();
        for (const auto& info : session->getFrameTable())
            table.push_back(info);
        whole = bytes();
    }
    [[nodiscard]] zel::uint64 endOf(zel::size_t place) const {
        return table[place].dataOffset + table[place].meta.dataSize;
    }
    [[nodiscard]] std::string newPath() const { return directory.path("new.journal"); }
    /// The bytes of a frame's header and data.
    template <typename Entry>
    static std::string blocksOf(const PlainJournal& plain, const Entry& entry) {
        const auto header = plain.readHeader(entry);
        const auto data = plain.readSegment(entry);
        std::string blocks(reinterpret_cast<const char*>(header->getData()), header->getSize());
        return blocks.append(reinterpret_cast<const char*>(data->getData()), data->getSize());
    }
    [[nodiscard]] std::string recordedBlocks(zel::size_t place) const {
        return whole.substr(table[place].headerOffset, table[place].meta.headerSize) +
               whole.substr(table[place].dataOffset, table[place].meta.dataSize);
    }
    /// Whether the journal holds these of the frames that were recorded, byte for byte.
    void expectRecorded(const std::string& file, const std::vector<zel::size_t>& places) {
        const PlainJournal plain(file);
        ASSERT_EQ(plain.getFrames().size(), places.size());
        for (zel::size_t i = 0; i < places.size(); ++i)
            EXPECT_TRUE(blocksOf(plain, plain.getFrames()[i]) == recordedBlocks(places[i])) << places[i];
    }

    std::vector<FileJournal::FrameInfo> table;
    std::string whole;
};

} // namespace zelTest
