#include <zel/ThreadTimelineEntryEntity.h>

namespace zel {

ZEL_REGISTER_ENTITY(ThreadTimelineEntry, "ThreadTimelineEntry");

const zelData::Attribute* ThreadTimelineEntryModel::taskId = nullptr;
const zelData::Attribute* ThreadTimelineEntryModel::startTimeGlobal = nullptr;
const zelData::Attribute* ThreadTimelineEntryModel::endTimeGlobal = nullptr;
const zelData::Attribute* ThreadTimelineEntryModel::startTimeFrame = nullptr;
const zelData::Attribute* ThreadTimelineEntryModel::endTimeFrame = nullptr;
const zelData::Attribute* ThreadTimelineEntryModel::description = nullptr;
const zelData::Attribute* ThreadTimelineEntryModel::costEstimate = nullptr;
const zelData::Attribute* ThreadTimelineEntryModel::poolSize = nullptr;
const zelData::Attribute* ThreadTimelineEntryModel::jobType = nullptr;
const zelData::Attribute* ThreadTimelineEntryModel::jobPtr = nullptr;
const zelData::Attribute* ThreadTimelineEntryModel::extraDataTitle = nullptr;
const zelData::Attribute* ThreadTimelineEntryModel::extraData = nullptr;
std::atomic<ThreadTimelineEntryModel*> ThreadTimelineEntryModel::s_instance{nullptr};

ThreadTimelineEntryModel::ThreadTimelineEntryModel(const Name& name) : zelData::EntityModel(name) {}

ThreadTimelineEntryModel* ThreadTimelineEntryModel::instance() {
    return zelData::getGeneratedModel("ThreadTimelineEntry", s_instance);
}

ThreadTimelineEntryPtr ThreadTimelineEntryModel::createInstance() {
    return ThreadTimelineEntryPtr(instance()->createInstanceWrapper());
}

zelData::EntityStorage* ThreadTimelineEntryModel::defaultStorage() {
    return instance()->getDefaultStorage();
}

zelData::EntityData* ThreadTimelineEntryModel::createData(zelData::EntityStorage* storage) {
    return new ThreadTimelineEntryData(storage);
}

void ThreadTimelineEntryModel::initAttributeAccessors() {
    taskId = getAttribute("taskId");
    startTimeGlobal = getAttribute("startTimeGlobal");
    endTimeGlobal = getAttribute("endTimeGlobal");
    startTimeFrame = getAttribute("startTimeFrame");
    endTimeFrame = getAttribute("endTimeFrame");
    description = getAttribute("description");
    costEstimate = getAttribute("costEstimate");
    poolSize = getAttribute("poolSize");
    jobType = getAttribute("jobType");
    jobPtr = getAttribute("jobPtr");
    extraDataTitle = getAttribute("extraDataTitle");
    extraData = getAttribute("extraData");
}

void ThreadTimelineEntryModel::construct(zelData::EntityPtr instance) {
    construct(ThreadTimelineEntryPtr(instance));
}

void ThreadTimelineEntryModel::construct(ThreadTimelineEntryPtr) {}

void ThreadTimelineEntryModel::shutdownCleanup() {
    s_instance.store(nullptr, std::memory_order_release);
    taskId = nullptr;
    startTimeGlobal = nullptr;
    endTimeGlobal = nullptr;
    startTimeFrame = nullptr;
    endTimeFrame = nullptr;
    description = nullptr;
    costEstimate = nullptr;
    poolSize = nullptr;
    jobType = nullptr;
    jobPtr = nullptr;
    extraDataTitle = nullptr;
    extraData = nullptr;
}

ThreadTimelineEntryData::ThreadTimelineEntryData() = default;

ThreadTimelineEntryData::ThreadTimelineEntryData(zelData::EntityStorage* storage)
    : zelData::EntityData(storage) {
    bindColumn(this, ThreadTimelineEntryModel::taskId, taskId);
    bindColumn(this, ThreadTimelineEntryModel::startTimeGlobal, startTimeGlobal);
    bindColumn(this, ThreadTimelineEntryModel::endTimeGlobal, endTimeGlobal);
    bindColumn(this, ThreadTimelineEntryModel::startTimeFrame, startTimeFrame);
    bindColumn(this, ThreadTimelineEntryModel::endTimeFrame, endTimeFrame);
    bindColumn(this, ThreadTimelineEntryModel::description, description);
    bindColumn(this, ThreadTimelineEntryModel::costEstimate, costEstimate);
    bindColumn(this, ThreadTimelineEntryModel::poolSize, poolSize);
    bindColumn(this, ThreadTimelineEntryModel::jobType, jobType);
    bindColumn(this, ThreadTimelineEntryModel::jobPtr, jobPtr);
    bindColumn(this, ThreadTimelineEntryModel::extraDataTitle, extraDataTitle);
    bindColumn(this, ThreadTimelineEntryModel::extraData, extraData);
}

} // namespace zel
