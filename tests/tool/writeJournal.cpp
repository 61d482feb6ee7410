// Writes the journal that the tests of the tool look at: writeJournal FILE [--sums] [--change] [--other-keys]
#include <zelCore/zelCore.h>
#include <zelData/Buffer.h>
#include <zelData/FileFrameWriter.h>
#include <zelData/FileJournal.h>
#include <zelData/Frame.h>
#include <zelData/FrameNodes.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <algorithm>
#include <exception>
#include <initializer_list>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using zel::ref_ptr;
using zelData::Buffer;
using zelData::Frame;

template <typename T>
ref_ptr<Buffer> bufferOf(const char* name, const char* format, std::initializer_list<T> elements) {
    ref_ptr<Buffer> buffer(new Buffer(name, zelData::getFormat(format)));
    buffer->resize(elements.size());
    std::copy(elements.begin(), elements.end(), buffer->data<T>());
    return buffer;
}

ref_ptr<zelData::Value> real(const char* name, double content) {
    ref_ptr<zelData::Value> value(new zelData::Value(name, zelData::getFormat("Real:64bit")));
    value->set(&content);
    return value;
}

/// All that there is: a value, a text, a buffer and a storage, in which the instance 0 has died.
ref_ptr<Frame> keyFrame(zel::uint64 index) {
    const double t = 0.5 * static_cast<double>(index);
    ref_ptr<Frame> frame(new Frame(index, t, 0.5));
    frame->setKeyFrame(true);
    frame->addValue(real("speed", 10 + t).get(), "car.speed");
    frame->addBuffer(bufferOf<zel::String>("driver", "String", {"Ann, \"A\""}).get(), "car.driver");
    frame->addBuffer(bufferOf<double>("wheels", "Real:64bit", {1, 2, 3, t}).get(), "car.wheels");
    const ref_ptr<Frame::EntityStorage> storage(new Frame::EntityStorage("stones", nullptr, 2, 3));
    frame->addStorage(storage.get(), "stones");
    frame->addNode(storage.get(), bufferOf<double>("mass", "Real:64bit", {5 + t, 7 + t}).get());
    frame->addNode(storage.get(),
                   bufferOf<zel::uint64>("_idToIndex", "UInt:64bit", {0xFFFFFFFF, 1, 0}).get());
    frame->addNode(storage.get(), bufferOf<zel::uint64>("_indexToId", "UInt:64bit", {2, 1}).get());
    return frame;
}

/// What the key frame of this index differs in from the one ahead.
ref_ptr<Frame> increment(zel::uint64 index) {
    const double t = 0.5 * static_cast<double>(index);
    ref_ptr<Frame> frame(new Frame(index, t, 0.5));
    frame->addValue(real("speed", 10 + t).get(), "car.speed");
    const ref_ptr<Frame::PartialBuffer> wheels(
        new Frame::PartialBuffer("wheels",
                                 bufferOf<zel::uint64>("index", "UInt:64bit", {3}).get(),
                                 bufferOf<double>("data", "Real:64bit", {t}).get(),
                                 4));
    frame->addBuffer(wheels.get(), "car.wheels");
    const ref_ptr<Frame::EntityStorage> storage(new Frame::EntityStorage("stones", nullptr, 2, 3));
    frame->addStorage(storage.get(), "stones");
    frame->addNode(storage.get(), bufferOf<double>("mass", "Real:64bit", {5 + t, 7 + t}).get());
    return frame;
}

void write(const std::string& path, const std::vector<std::string>& options) {
    const auto has = [&options](const char* option) {
        return std::find(options.begin(), options.end(), option) != options.end();
    };
    const ref_ptr<zelData::FileJournal::Session> session(
        zelData::FileJournal::Session::create("drive", path));
    session->setDate(zel::Date(0, 0));
    session->recordExtraData("seed", "42");
    std::istringstream scene("a scene");
    session->packSceneData(scene);
    const ref_ptr<zelData::FileFrameWriter> writer(new zelData::FileFrameWriter(session.get()));
    writer->setChecksums(has("--sums"));
    const zel::uint64 keyInterval = has("--other-keys") ? 3 : 4;
    for (zel::uint64 index = 0; index < 10; ++index) {
        const ref_ptr<Frame> frame = index % keyInterval == 0 ? keyFrame(index) : increment(index);
        if (has("--change") && index == 6)
            frame->addValue(real("more", 1).get(), "car.more");
        writer->writeFrame(frame.get());
    }
    writer->endOfStream();
}

} // namespace

int main(int argc, char** argv) {
    zelCore::init();
    int result = 0;
    try {
        write(argv[1], {argv + 2, argv + argc});
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        result = 1;
    }
    zelCore::shutdown();
    return result;
}
