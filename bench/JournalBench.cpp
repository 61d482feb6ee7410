// Journals in files: writing large and small frames, reading them at random and opening, each beside the same
// system calls by hand. The files lie in the directory for temporary files.
#include <zelCore/zelCore.h>
#include <zelData/Buffer.h>
#include <zelData/FileFrameReader.h>
#include <zelData/FileFrameWriter.h>
#include <zelData/FileJournal.h>
#include <zelData/Frame.h>
#include <zelData/FrameNodes.h>
#include <zelData/FrameView.h>
#include <zelData/SerializedFrame.h>
#include <zelData/Type.h>
#include <zelData/ValueT.h>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#ifdef ZEL_BENCH_HDF5
#include <hdf5.h>
#endif

#include <array>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

using zel::ref_ptr;
using zel::uint64;
using zelData::FileFrameReader;
using zelData::FileFrameWriter;
using zelData::FileJournal;
using zelData::Frame;

constexpr uint64 NumLargeFrames = 100;
constexpr uint64 NumColumns = 19;
constexpr uint64 ColumnSize = 50'000; // 19 columns of doubles are 7.6 MB
constexpr uint64 NumSmallFrames = 2'000;
constexpr uint64 NumFramesToOpen = 100'000;
constexpr uint64 NumRandomReads = 200;

void require(bool good) {
    if (!good)
        std::abort();
}

/// A file of the benchmark's own.
class ScratchFile {
public:
    ScratchFile()
        : m_path((std::filesystem::temp_directory_path() / ("zelJournalBench-" + std::to_string(getpid())))
                     .string()) {}
    ScratchFile(const ScratchFile&) = delete;
    ScratchFile& operator=(const ScratchFile&) = delete;
    ~ScratchFile() { unlink(m_path.c_str()); }
    [[nodiscard]] const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

ref_ptr<Frame> makeLargeFrame() {
    ref_ptr<Frame> frame(new Frame(0, 0, 0.1));
    frame->setKeyFrame(true);
    for (uint64 i = 0; i < NumColumns; ++i) {
        const zel::Name name("column" + std::to_string(i));
        const ref_ptr<zelData::Buffer> buffer(new zelData::Buffer(name, zelData::getFormat("Real:64bit")));
        buffer->resize(ColumnSize);
        frame->addBuffer(buffer.get(), name);
    }
    return frame;
}

/// 50 values.
ref_ptr<Frame> makeSmallFrame() {
    ref_ptr<Frame> frame(new Frame(0, 0, 0.1));
    frame->setKeyFrame(true);
    for (int i = 0; i < 50; ++i) {
        const zel::Name name("value" + std::to_string(i));
        frame->addValue(ref_ptr<zelData::Value>(new zelData::ValueT<double>(name, i)).get(), name);
    }
    return frame;
}

struct Recording {
    explicit Recording(const std::string& path) {
        unlink(path.c_str());
        std::ostringstream quiet;
        auto* const former = std::cout.rdbuf(quiet.rdbuf()); // each new journal tells of the file it replaces
        journal = new FileJournal(path);
        session = journal->createNewFileSession("bench");
        std::cout.rdbuf(former);
        std::istringstream scene;
        session->packSceneData(scene);
        writer = new FileFrameWriter(session);
    }
    void write(Frame* frame, uint64 numFrames, uint64 keyEvery = 100) {
        for (uint64 i = 0; i < numFrames; ++i) {
            frame->setIndex(i);
            frame->setKeyFrame(i % keyEvery == 0);
            writer->writeFrame(frame);
        }
        writer->endOfStream();
    }
    ref_ptr<FileJournal> journal;
    FileJournal::Session* session = nullptr;
    ref_ptr<FileFrameWriter> writer;
};

/// The same bytes by hand: for each frame the file is opened, written at its end in one gathered write,
/// closed.
class Plain {
public:
    explicit Plain(const Frame* frame)
        : m_serialized(new zelData::SerializedFrame(frame)), m_header(m_serialized->writeBinaryHeader()) {}

    void write(const std::string& path, uint64 numFrames) {
        off_t offset = 10274;
        std::vector<iovec> parts;
        for (uint64 i = 0; i < numFrames; ++i) {
            const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
            require(file >= 0);
            parts.clear();
            parts.push_back({m_header->getData(), m_header->getSize()});
            for (const auto& segment : m_serialized->getSegments())
                parts.push_back({segment.data->getData(), segment.data->getSize()});
            const ssize_t count = pwritev(file, parts.data(), static_cast<int>(parts.size()), offset);
            require(count > 0);
            offset += count;
            require(close(file) == 0);
        }
    }

private:
    ref_ptr<zelData::SerializedFrame> m_serialized;
    ref_ptr<zelData::BinaryData> m_header;
};

void zelWriteFrames(benchmark::State& state, const ref_ptr<Frame>& frame, uint64 numFrames) {
    const ScratchFile file;
    for (auto _ : state) {
        state.PauseTiming();
        Recording recording(file.path());
        state.ResumeTiming();
        recording.write(frame.get(), numFrames);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * numFrames));
}

void plainWriteFrames(benchmark::State& state, const ref_ptr<Frame>& frame, uint64 numFrames) {
    const ScratchFile file;
    Plain plain(frame.get());
    for (auto _ : state) {
        state.PauseTiming();
        unlink(file.path().c_str());
        state.ResumeTiming();
        plain.write(file.path(), numFrames);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * numFrames));
}

void zelWrite(benchmark::State& state) {
    zelWriteFrames(state, makeLargeFrame(), NumLargeFrames);
}
BENCHMARK(zelWrite)->Name("BM_JournalWrite/zel")->Unit(benchmark::kMillisecond)->UseRealTime();

void plainWrite(benchmark::State& state) {
    plainWriteFrames(state, makeLargeFrame(), NumLargeFrames);
}
BENCHMARK(plainWrite)->Name("BM_JournalWrite/writev")->Unit(benchmark::kMillisecond)->UseRealTime();

void zelWriteSmall(benchmark::State& state) {
    zelWriteFrames(state, makeSmallFrame(), NumSmallFrames);
}
BENCHMARK(zelWriteSmall)->Name("BM_JournalWriteSmall/zel")->Unit(benchmark::kMillisecond)->UseRealTime();

void plainWriteSmall(benchmark::State& state) {
    plainWriteFrames(state, makeSmallFrame(), NumSmallFrames);
}
BENCHMARK(plainWriteSmall)->Name("BM_JournalWriteSmall/writev")->Unit(benchmark::kMillisecond)->UseRealTime();

// Reading

std::vector<uint64> randomIndices(uint64 numFrames) {
    std::mt19937 random(1); // NOLINT: the same in each run
    std::vector<uint64> indices(NumRandomReads);
    for (uint64& index : indices)
        index = random() % numFrames;
    return indices;
}

void zelRead(benchmark::State& state) {
    const ScratchFile file;
    Recording recording(file.path());
    recording.write(makeLargeFrame().get(), NumLargeFrames, 1); // each is read by itself
    const ref_ptr<FileFrameReader> reader(new FileFrameReader(recording.session));
    const auto readAll = [&] {
        for (const uint64 index : randomIndices(NumLargeFrames))
            benchmark::DoNotOptimize(ref_ptr<Frame>(reader->readFrame(index)));
    };
    readAll(); // pages that have just been written are slow for a while, and so is fresh memory
    for (auto _ : state)
        readAll();
}
BENCHMARK(zelRead)->Name("BM_JournalRead/zel")->Unit(benchmark::kMillisecond)->UseRealTime();

/// The bytes of the frame into memory of a block of its own: from the heap, which keeps its pages from frame
/// to frame, or fresh from the system.
template <bool IsFresh>
void plainRead(benchmark::State& state) {
    const ScratchFile file;
    Recording recording(file.path());
    recording.write(makeLargeFrame().get(), NumLargeFrames, 1); // each is read by itself
    const int descriptor = open(file.path().c_str(), O_RDONLY | O_CLOEXEC);
    require(descriptor >= 0);
    const auto read = [&](void* bytes, uint64 numBytes, uint64 offset) {
        require(pread(descriptor, bytes, numBytes, static_cast<off_t>(offset)) ==
                static_cast<ssize_t>(numBytes));
        benchmark::DoNotOptimize(bytes);
    };
    const auto readAll = [&] {
        for (const uint64 index : randomIndices(NumLargeFrames)) {
            const auto& info = *recording.session->getFrameInfo(index);
            const std::unique_ptr<char[]> header(new char[info.meta.headerSize]);
            read(header.get(), info.meta.headerSize, info.headerOffset);
            const uint64 size = info.meta.dataSize;
            if constexpr (IsFresh) {
                void* data = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
                require(data != MAP_FAILED);
                read(data, size, info.dataOffset);
                munmap(data, size);
            } else {
                const std::unique_ptr<char[]> data(new char[size]);
                read(data.get(), size, info.dataOffset);
            }
        }
    };
    readAll();
    for (auto _ : state)
        readAll();
    close(descriptor);
}
BENCHMARK(plainRead<false>)->Name("BM_JournalRead/pread_heap")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(plainRead<true>)->Name("BM_JournalRead/pread_fresh")->Unit(benchmark::kMillisecond)->UseRealTime();

// Jumping

/// A key frame and 100 increments, each with a hundredth of the elements of each column.
void recordIncrements(Recording& recording) {
    const ref_ptr<Frame> whole = makeLargeFrame();
    recording.writer->writeFrame(whole.get());
    std::mt19937 random(1); // NOLINT: the same in each run
    for (uint64 index = 1; index <= 100; ++index) {
        const ref_ptr<Frame> frame(new Frame(index, 0.1 * static_cast<double>(index), 0.1));
        for (uint64 i = 0; i < NumColumns; ++i) {
            const zel::Name name("column" + std::to_string(i));
            const uint64 count = ColumnSize / 100;
            const ref_ptr<Frame::PartialBuffer> part(
                new Frame::PartialBuffer(name, zelData::getFormat("Real:64bit"), count, ColumnSize));
            for (uint64 k = 0; k < count; ++k)
                part->getIndexBuffer()->data<uint64>()[k] = 100 * k + random() % 100;
            frame->addBuffer(part.get(), name);
        }
        recording.writer->writeFrame(frame.get());
    }
    recording.writer->endOfStream();
}

void zelJump(benchmark::State& state) {
    const ScratchFile file;
    Recording recording(file.path());
    recordIncrements(recording);
    const ref_ptr<FileFrameReader> reader(new FileFrameReader(recording.session));
    for (auto _ : state) {
        reader->jumpToFrame(100);
        const ref_ptr<Frame> frame(static_cast<zelData::DiskFrameReader&>(*reader).readFrame());
        require(frame && frame->getIndex() == 100);
        reader->jumpToFrame(0);
        benchmark::DoNotOptimize(ref_ptr<Frame>(static_cast<zelData::DiskFrameReader&>(*reader).readFrame()));
    }
}
BENCHMARK(zelJump)->Name("BM_JournalJump/zel")->Unit(benchmark::kMillisecond)->UseRealTime();

/// The frames in order, and nothing merged.
void plainJump(benchmark::State& state) {
    const ScratchFile file;
    Recording recording(file.path());
    recordIncrements(recording);
    const ref_ptr<FileFrameReader> reader(new FileFrameReader(recording.session));
    for (auto _ : state) {
        for (uint64 index = 0; index <= 100; ++index)
            benchmark::DoNotOptimize(ref_ptr<Frame>(reader->readFrame(index)));
        benchmark::DoNotOptimize(ref_ptr<Frame>(reader->readFrame(0)));
    }
}
BENCHMARK(plainJump)->Name("BM_JournalJump/loop")->Unit(benchmark::kMillisecond)->UseRealTime();

// Looking at frames where they lie

double sumOf(const double* elements, uint64 count) {
    double sum = 0;
    for (uint64 i = 0; i < count; ++i)
        sum += elements[i];
    return sum;
}

void zelView(benchmark::State& state) {
    const ScratchFile file;
    Recording recording(file.path());
    recording.write(makeLargeFrame().get(), NumLargeFrames, 1);
    std::vector<zel::Path> paths;
    for (uint64 i = 0; i < NumColumns; ++i)
        paths.emplace_back("column" + std::to_string(i));
    for (auto _ : state) {
        zelData::FrameView view(recording.session);
        for (const uint64 index : randomIndices(NumLargeFrames)) {
            view.show(index);
            for (const zel::Path& path : paths) {
                const auto elements = view.getElements<double>(path);
                benchmark::DoNotOptimize(sumOf(elements.data(), elements.size()));
            }
        }
    }
}
BENCHMARK(zelView)->Name("BM_JournalView/zel")->Unit(benchmark::kMillisecond)->UseRealTime();

void plainView(benchmark::State& state) {
    const ScratchFile file;
    Recording recording(file.path());
    recording.write(makeLargeFrame().get(), NumLargeFrames, 1);
    const int descriptor = open(file.path().c_str(), O_RDONLY | O_CLOEXEC);
    const uint64 size = std::filesystem::file_size(file.path());
    for (auto _ : state) {
        void* const bytes = mmap(nullptr, size, PROT_READ, MAP_SHARED, descriptor, 0);
        require(bytes != MAP_FAILED);
        for (const uint64 index : randomIndices(NumLargeFrames)) {
            const auto& info = *recording.session->getFrameInfo(index);
            const auto* elements =
                reinterpret_cast<const double*>(static_cast<const char*>(bytes) + info.dataOffset);
            for (uint64 i = 0; i < NumColumns; ++i)
                benchmark::DoNotOptimize(sumOf(elements + i * ColumnSize, ColumnSize));
        }
        munmap(bytes, size);
    }
    close(descriptor);
}
BENCHMARK(plainView)->Name("BM_JournalView/mmap")->Unit(benchmark::kMillisecond)->UseRealTime();

#ifdef ZEL_BENCH_HDF5

/// A data set for each column: a row for each frame, in chunks of one row.
class ChunkedFile {
public:
    ChunkedFile(const std::string& path, uint64 numFrames)
        : m_file(H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT)) {
        require(m_file >= 0);
        const std::array<hsize_t, 2> size{numFrames, ColumnSize};
        const std::array<hsize_t, 2> chunk{1, ColumnSize};
        const hid_t properties = H5Pcreate(H5P_DATASET_CREATE);
        require(H5Pset_chunk(properties, 2, chunk.data()) >= 0);
        require(H5Pset_fill_time(properties, H5D_FILL_TIME_NEVER) >= 0);
        const hid_t space = H5Screate_simple(2, size.data(), nullptr);
        for (uint64 i = 0; i < NumColumns; ++i)
            m_columns.push_back(H5Dcreate2(m_file,
                                           ("column" + std::to_string(i)).c_str(),
                                           H5T_NATIVE_DOUBLE,
                                           space,
                                           H5P_DEFAULT,
                                           properties,
                                           H5P_DEFAULT));
        H5Sclose(space);
        H5Pclose(properties);
    }
    ChunkedFile(const ChunkedFile&) = delete;
    ChunkedFile& operator=(const ChunkedFile&) = delete;
    ~ChunkedFile() {
        for (const hid_t column : m_columns)
            H5Dclose(column);
        H5Fclose(m_file);
    }

    void write(uint64 frame, const std::vector<double>& elements) {
        transfer(frame, H5Dwrite, elements.data());
    }
    void read(uint64 frame, double* elements) { transfer(frame, H5Dread, elements); }

private:
    template <typename Function, typename Elements>
    void transfer(uint64 frame, Function function, Elements* elements) {
        const std::array<hsize_t, 2> begin{frame, 0};
        const std::array<hsize_t, 2> count{1, ColumnSize};
        const hid_t memory = H5Screate_simple(1, &count[1], nullptr);
        for (uint64 i = 0; i < NumColumns; ++i) {
            const hid_t place = H5Dget_space(m_columns[i]);
            require(H5Sselect_hyperslab(
                        place, H5S_SELECT_SET, begin.data(), nullptr, count.data(), nullptr) >= 0);
            require(
                function(
                    m_columns[i], H5T_NATIVE_DOUBLE, memory, place, H5P_DEFAULT, elements + i * ColumnSize) >=
                0);
            H5Sclose(place);
        }
        H5Sclose(memory);
    }

    hid_t m_file;
    std::vector<hid_t> m_columns;
};

void hdf5Write(benchmark::State& state) {
    const ScratchFile scratch;
    const std::vector<double> elements(NumColumns * ColumnSize);
    for (auto _ : state) {
        state.PauseTiming();
        unlink(scratch.path().c_str());
        state.ResumeTiming();
        ChunkedFile file(scratch.path(), NumLargeFrames);
        for (uint64 i = 0; i < NumLargeFrames; ++i)
            file.write(i, elements);
    }
}
BENCHMARK(hdf5Write)->Name("BM_JournalWrite/hdf5")->Unit(benchmark::kMillisecond)->UseRealTime();

void hdf5Read(benchmark::State& state) {
    const ScratchFile scratch;
    ChunkedFile file(scratch.path(), NumLargeFrames);
    for (uint64 i = 0; i < NumLargeFrames; ++i)
        file.write(i, std::vector<double>(NumColumns * ColumnSize));
    const auto readAll = [&] {
        for (const uint64 index : randomIndices(NumLargeFrames)) {
            const std::unique_ptr<double[]> elements(new double[NumColumns * ColumnSize]);
            file.read(index, elements.get());
            benchmark::DoNotOptimize(elements.get());
        }
    };
    readAll();
    for (auto _ : state)
        readAll();
}
BENCHMARK(hdf5Read)->Name("BM_JournalRead/hdf5")->Unit(benchmark::kMillisecond)->UseRealTime();

#endif

// Opening

void recordForOpening(const std::string& path, bool isLarge) {
    Recording recording(path);
    const ref_ptr<Frame> frame = isLarge ? makeSmallFrame() : ref_ptr<Frame>(new Frame(0, 0, 0.1));
    recording.write(frame.get(), NumFramesToOpen);
}

void zelOpen(benchmark::State& state) {
    const ScratchFile file;
    recordForOpening(file.path(), state.range(0) != 0);
    for (auto _ : state) {
        const ref_ptr<FileJournal> journal(new FileJournal(file.path()));
        require(journal->getSessions().front()->getNumFrames() == NumFramesToOpen);
    }
}
BENCHMARK(zelOpen)->Name("BM_JournalOpen/zel")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

/// From one record to the next.
void plainOpen(benchmark::State& state) {
    const ScratchFile file;
    recordForOpening(file.path(), state.range(0) != 0);
    for (auto _ : state) {
        const int descriptor = open(file.path().c_str(), O_RDONLY | O_CLOEXEC);
        require(descriptor >= 0);
        std::vector<zelData::SerializedFrame::BinaryHeader::Frame> records;
        for (uint64 offset = 10274; records.size() < NumFramesToOpen;) {
            auto& record = records.emplace_back();
            require(pread(descriptor, &record, sizeof(record), static_cast<off_t>(offset)) ==
                    static_cast<ssize_t>(sizeof(record)));
            offset = (offset + record.headerSize + 31) / 32 * 32 + record.dataSize;
        }
        benchmark::DoNotOptimize(records.data());
        close(descriptor);
    }
}
BENCHMARK(plainOpen)
    ->Name("BM_JournalOpen/pread")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

} // namespace

int main(int argc, char** argv) {
    zelCore::init();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    zelCore::shutdown();
    return 0;
}
