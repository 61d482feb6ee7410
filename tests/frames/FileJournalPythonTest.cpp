#include "CaptureFixture.h"
#include "FrameRandomTree.h"

#include <zelData/FileFrameWriter.h>
#include <zelData/FileJournal.h>

#include <support/Stress.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <string>

// The reader in Python against the tree that was recorded.

namespace {

class FileJournalPythonTest : public zelTest::FrameFixture {
protected:
    /// Records a random tree; beside the journal lies a line for each object of each frame.
    void record(zelData::EntityModel* model, const std::string& name, unsigned seed) {
        std::mt19937 random(seed);
        zelTest::RandomTree tree(model);
        for (const char* object : zelTest::RandomTreeNames)
            tree.add(object);
        const zel::ref_ptr<zelData::FrameCapture> capture(new zelData::FrameCapture(tree.root.get()));
        capture->setKeyFrameInterval(seed % 3 == 0 ? 0 : 7);
        const std::string path = directory.path() + "/" + name;
        const zel::ref_ptr<zelData::FileJournal> journal(new zelData::FileJournal(path + ".journal"));
        zelData::FileJournal::Session* session = journal->createNewFileSession("random");
        std::istringstream scene;
        session->packSceneData(scene);
        const zel::ref_ptr<zelData::FileFrameWriter> writer(new zelData::FileFrameWriter(session));
        std::ofstream expected(path + ".expected");
        zelTest::RandomChanger changer(tree, random);
        for (zel::uint64 step = 0; step < 30; ++step) {
            changer.step();
            for (const auto& [object, text] : tree.snapshot())
                expected << step << '\t' << object << '\t' << text << '\n';
            writer->writeFrame(capture->capture(step, 0.5 * static_cast<double>(step), 0.5).get());
        }
        // The last one stays open, as that of a program that was killed.
        if (seed % 2 == 0)
            writer->endOfStream();
        ASSERT_TRUE(expected.flush());
    }
};

} // namespace

TEST_F(FileJournalPythonTest, ReadsEachFrameOfARandomTree) {
    zelData::EntityModel* model = entity("Replayed", zelTest::RandomTreeAttributes);
    const unsigned seed = zelTest::stressSeed();
    for (unsigned i = 0; i < 8 && !HasFailure(); ++i)
        record(model, std::to_string(i), seed + i);
    // Not each interpreter has numpy; the system's own has what script/bootstrap installs.
    const std::string command = "for python in python3 /usr/bin/python3; do \"$python\" -c 'import numpy' "
                                "2>/dev/null && break; done; "
                                "exec \"$python\" " ZEL_TEST_SOURCES "/frames/compareJournals.py " +
                                directory.path();
    EXPECT_EQ(std::system(command.c_str()), 0)
        << "seed " << seed; // NOLINT(cert-env33-c,concurrency-mt-unsafe)
}
