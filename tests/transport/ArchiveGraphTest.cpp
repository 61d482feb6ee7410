#include "ArchiveGraph.h"

#include <zelStream/XMLInputArchive.h>
#include <zelStream/XMLOutputArchive.h>

#include <support/Soak.h>

#include <memory>

using zelStream::InputArchive;
using zelStream::OutputArchive;
using zelTest::Graph;
using zelTest::RestoredGraph;

// Random graphs of objects come back as they were: shared, round about, by value and by reference, null, off,
// put off, and removed while they are restored.

namespace {

struct ArchiveForm {
    const char* name;
    std::unique_ptr<OutputArchive> (*makeOutput)();
    std::unique_ptr<InputArchive> (*makeInput)();
    bool isLittleEndian;
};

template <typename Archive, typename Base>
std::unique_ptr<Base> makeArchive() {
    return std::make_unique<Archive>();
}

class ArchiveGraphSoakTest : public zelTest::ArchiveFixture, public testing::WithParamInterface<ArchiveForm> {
protected:
    static void expectRestored(std::mt19937& random) {
        const Graph graph(random);
        std::stringstream stream;
        const auto output = GetParam().makeOutput();
        output->setLittleEndian(GetParam().isLittleEndian);
        output->open(stream, "graph");
        graph.store(*output);
        output->write(zel::int32{4711});
        output->close();

        const auto input = GetParam().makeInput();
        input->open(stream);
        RestoredGraph restored(graph);
        restored.restore(*input);
        zel::int32 end = 0;
        input->read(end);
        EXPECT_EQ(end, 4711);
        EXPECT_TRUE(input->isAtEnd());
        EXPECT_EQ(input->getNumObjectsRead(), output->getNumObjectsWritten());
        EXPECT_EQ(restored.difference(), "");
        input->close();
        EXPECT_EQ(restored.difference(), "");
    }
    static void expectManyRestored(unsigned seed, int count) {
        std::mt19937 random(seed);
        for (int i = 0; i < count && !HasFailure(); ++i) {
            SCOPED_TRACE(i);
            expectRestored(random);
        }
    }
};

class ArchiveGraphTest : public ArchiveGraphSoakTest {};

TEST_P(ArchiveGraphTest, RandomGraphsComeBackAsTheyWere) {
    expectManyRestored(zelTest::stressSeed(), 200);
}

TEST_P(ArchiveGraphTest, TheWalkSeesWhatDiffers) {
    std::mt19937 random(1);
    int numSeen = 0;
    for (int i = 0; i < 20; ++i) {
        const Graph graph(random);
        std::stringstream stream;
        const auto output = GetParam().makeOutput();
        output->open(stream);
        graph.store(*output);
        output->close();
        for (const auto& node : graph.nodes())
            node->label += '!';
        const auto input = GetParam().makeInput();
        input->open(stream);
        RestoredGraph restored(graph);
        restored.restore(*input);
        if (input->getNumObjectsRead() != 0) {
            EXPECT_NE(restored.difference(), "");
            ++numSeen;
        }
    }
    EXPECT_GT(numSeen, 10);
}

TEST_P(ArchiveGraphSoakTest, DISABLED_RandomGraphsComeBackAsTheyWere) {
    zelTest::soak([](unsigned seed) { expectManyRestored(seed, 1000); }, 10);
}

const auto ArchiveForms = testing::Values(
    ArchiveForm{
        "Little", makeArchive<OutputArchive, OutputArchive>, makeArchive<InputArchive, InputArchive>, true},
    ArchiveForm{
        "Big", makeArchive<OutputArchive, OutputArchive>, makeArchive<InputArchive, InputArchive>, false},
    ArchiveForm{"Xml",
                makeArchive<zelStream::XMLOutputArchive, OutputArchive>,
                makeArchive<zelStream::XMLInputArchive, InputArchive>,
                true});

std::string nameOfForm(const testing::TestParamInfo<ArchiveForm>& form) {
    return form.param.name;
}

INSTANTIATE_TEST_SUITE_P(Forms, ArchiveGraphTest, ArchiveForms, nameOfForm);
INSTANTIATE_TEST_SUITE_P(Forms, ArchiveGraphSoakTest, ArchiveForms, nameOfForm);

} // namespace
