// Files of data bindings in both forms: whatever is in them, they give bindings, all of them with paths and
// in order, or a std::runtime_error and none.
#include "Support.h"

#include <zel/ref_ptr.h>
#include <zelData/FrameIO.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>

namespace {

void check(const zelData::FrameIO& io) {
    const auto& bindings = io.getDataBindings();
    for (zel::size_t i = 0; i < bindings.size(); ++i)
        if (bindings[i]->getInternalPath().empty() || bindings[i]->getExternalPath().empty() ||
            (i != 0 && !zelData::FrameIO::bindingComparor(bindings[i - 1].get(), bindings[i].get())))
            std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zelFuzz::initQuietly();
    const zelFuzz::InputFile file(data, size);
    for (const bool isJson : {false, true}) {
        const zel::ref_ptr<zelData::FrameIO> io(new zelData::FrameIO);
        try {
            if (isJson)
                io->loadDataBindingsJSON(file.path());
            else
                io->loadDataBindings(file.path());
            check(*io);
        } catch (const std::runtime_error&) {
            if (!io->getDataBindings().empty())
                std::abort();
        }
    }
    return 0;
}
