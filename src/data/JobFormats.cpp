#include "BuiltinFormats.h"
#include "FormatFamily.h"

#include <zel/Job.h>
#include <zel/JobGroup.h>
#include <zel/RangeJob.h>
#include <zel/SpinMutex.h>
#include <zel/TaskJob.h>

namespace zelData {

namespace {

template <typename Element>
void createSingleFormat(const char* name) {
    getOrCreateType(name)->addFormat(new FormatT<Element>("default"), true);
}

} // namespace

void createSpinMutexFormats() {
    createSingleFormat<zel::SpinMutex>("SpinMutex");
}
void createJobFormats() {
    createSingleFormat<zel::Job>("Job");
}
void createRangeJobFormats() {
    createSingleFormat<zel::RangeJob>("RangeJob");
}
void createJobGroupFormats() {
    createSingleFormat<zel::JobGroup>("JobGroup");
}
void createTaskJobFormats() {
    createSingleFormat<zel::TaskJob>("TaskJob");
}

} // namespace zelData
