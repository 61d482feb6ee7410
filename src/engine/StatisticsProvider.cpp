#include "StatisticsText.h"

#include <zel/Log.h>
#include <zelData/Format.h>
#include <zelData/Transform.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <algorithm>
#include <ostream>

namespace zel {

namespace detail {

namespace {

/// The text of one element, by the "ascii" format of its type.
String textOf(const zelData::Format* format, const void* element) {
    const zelData::Type* type = format->getType();
    const zelData::Format* ascii = type == nullptr ? nullptr : type->getFormat("ascii");
    if (ascii == nullptr || zelData::getTransformer(ascii, format) == nullptr) {
        ZEL_LOG_WARNING("Can not print value of type '"
                        << (type == nullptr ? format->getName() : type->getName())
                        << "' to String, no ascii format available");
        return {};
    }
    String text;
    zelData::transform(&text, ascii, element, format, 1);
    return text;
}

} // namespace

bool readNumbers(const StatisticsData& data, Statistics::TimingInfo& info) {
    const auto read = [&]<typename T>(const StatisticsDataT<T>* typed) {
        if (typed != nullptr)
            info = {static_cast<double>(typed->getValue()), static_cast<double>(typed->getAccumulated())};
        return typed != nullptr;
    };
    return read(dynamic_cast<const StatisticsDataT<double>*>(&data)) ||
           read(dynamic_cast<const StatisticsDataT<float>*>(&data)) ||
           read(dynamic_cast<const StatisticsDataT<unsigned long>*>(&data));
}

String valueText(const StatisticsData& data) {
    const ref_ptr<zelData::Value> value(data.toValue());
    return textOf(value->getFormat(), value->getData());
}

String accumulatedText(const StatisticsData& data) {
    Statistics::TimingInfo info;
    if (readNumbers(data, info))
        return textOf(zelData::getFormat("Real:64bit"), &info.accumulated);
    const ref_ptr<zelData::Value> value(data.toValue());
    return textOf(value->getFormat(), data.accumulatedPtr());
}

} // namespace detail

namespace {

double accumulated(const StatisticsData& data) {
    Statistics::TimingInfo info;
    return detail::readNumbers(data, info) ? info.accumulated : 0;
}

bool hasNumber(const StatisticsData& data) {
    Statistics::TimingInfo info;
    return !detail::readNumbers(data, info) || info.value != 0 || info.accumulated != 0;
}

} // namespace

Statistics::ProviderHandle::ProviderHandle(void* provider, const char* name)
    : m_provider(provider), m_name(copyString(name)) {}

Statistics::ProviderHandle::~ProviderHandle() {
    for (const ref_ptr<ProviderHandle>& child : m_children)
        child->m_parent = nullptr;
}

bool Statistics::ProviderHandle::isTaskTimer(const AbstractData*) const {
    return false;
}

void Statistics::ProviderHandle::setName(const char* name) {
    m_name = copyString(name);
}

std::unique_lock<RankedMutex<LockRank::Statistics>> Statistics::ProviderHandle::lockTree() {
    return std::unique_lock(Statistics::instance()->m_mutex);
}

void Statistics::ProviderHandle::insertData(AbstractData* data) {
    m_data.insert(data->getName() == nullptr ? "" : data->getName(), data);
}

void Statistics::ProviderHandle::addData(AbstractData* data) {
    const auto lock = lockTree();
    insertData(data);
}

StatisticsData* Statistics::ProviderHandle::findData(const char* name) const {
    const auto position = m_data.find(name);
    return position == m_data.end() ? nullptr : position->value.get();
}

ref_ptr<StatisticsData> Statistics::ProviderHandle::getData(const char* name) const {
    const auto lock = lockTree();
    return ref_ptr<AbstractData>(findData(name));
}

// Children

void Statistics::ProviderHandle::addChild(ProviderHandle* child) {
    if (child->m_parent != nullptr)
        ZEL_LOG_WARNING("Internal error: Trying to give away a child that already have a parent.");
    const ProviderHandle* root = Statistics::instance()->m_root;
    if (child->isImplicit() && this != root)
        ZEL_LOG_WARNING(
            "Internal error: Trying to add an implicit ProviderHandle to a parent that isn't the root node.");
    if (m_parent == nullptr && this != root)
        ZEL_LOG_WARNING(
            "Internal Error: Found a root that isn't the same is the Statistics root node. This should not "
            "happen?");
    m_children.push_back(child);
    child->m_parent = this;
}

bool Statistics::ProviderHandle::removeChild(ProviderHandle* child) {
    const auto position = std::find_if(
        m_children.begin(), m_children.end(), [child](const auto& entry) { return entry.get() == child; });
    if (position == m_children.end())
        return false;
    child->m_parent = nullptr;
    m_children.erase(position);
    return true;
}

void Statistics::ProviderHandle::adoptChild(ProviderHandle* child) {
    const ref_ptr<ProviderHandle> keep(child);
    if (ProviderHandle* parent = child->m_parent; parent != nullptr && !parent->removeChild(child)) {
        ZEL_LOG_WARNING("Internal error: Found a ProviderHandle that isn't the child of its parent.");
        child->m_parent = nullptr;
    }
    addChild(child);
}

void Statistics::ProviderHandle::takeChildren(ProviderHandle* other) {
    while (!other->m_children.empty())
        adoptChild(other->m_children[0].get());
}

void Statistics::ProviderHandle::clear(bool all, bool recursive) {
    for (const auto& entry : m_data)
        entry.value->clear(all);
    if (recursive)
        for (const ref_ptr<ProviderHandle>& child : m_children)
            child->clear(all, true);
}

// The report

void Statistics::ProviderHandle::updateEmptyFlags() {
    m_empty = false;
    for (const ref_ptr<ProviderHandle>& child : m_children) {
        child->updateEmptyFlags();
        if (!child->m_empty)
            return;
    }
    m_empty =
        std::none_of(m_data.begin(), m_data.end(), [](const auto& entry) { return hasNumber(*entry.value); });
}

bool Statistics::ProviderHandle::hasData(bool timing) const {
    return std::any_of(m_data.begin(), m_data.end(), [timing](const auto& entry) {
        return entry.value->isTiming() == timing;
    });
}

Vector<const StatisticsData*> Statistics::ProviderHandle::sortedData(bool timing) const {
    Vector<const AbstractData*> sorted;
    for (const auto& entry : m_data)
        if (entry.value->isTiming() == timing && !isTaskTimer(entry.value.get()))
            sorted.push_back(entry.value.get());
    std::stable_sort(sorted.begin(), sorted.end(), [](const AbstractData* a, const AbstractData* b) {
        return accumulated(*a) > accumulated(*b);
    });
    return sorted;
}

Vector<const StatisticsData*> Statistics::ProviderHandle::getAllData(bool timing) const {
    Vector<const AbstractData*> all;
    if (const auto* task = dynamic_cast<const TaskTimingReportHandle*>(this); task != nullptr && timing)
        for (const AbstractData* timer : {task->getWallTime(), task->getOverhead(), task->getComputeCost()})
            all.push_back(timer);
    for (const AbstractData* data : sortedData(timing))
        all.push_back(data);
    return all;
}

void Statistics::ProviderHandle::print(std::ostream& stream, bool includeEmpty, uint32 indentation) const {
    if (m_empty && !includeEmpty)
        return;
    const std::string indent(indentation, ' ');
    const auto line = [&](const char* name, const AbstractData& data, bool timing) {
        stream << indent << "  " << (name == nullptr ? "<nullptr>" : name) << ": " << detail::valueText(data);
        if (timing)
            stream << " (" << detail::accumulatedText(data) << ")";
        stream << '\n';
    };
    stream << indent << (isImplicit() ? "<Implicit node>" : getName()) << '\n';
    if (hasData(true)) {
        stream << indent << "- Timings:\n";
        for (const AbstractData* data : sortedData(true))
            line(data->getName(), *data, true);
        if (const auto* task = dynamic_cast<const TaskTimingReportHandle*>(this)) {
            line("Wall time", *task->getWallTime(), true);
            line("Overhead", *task->getOverhead(), true);
            line("Compute cost", *task->getComputeCost(), true);
        }
    }
    if (hasData(false)) {
        stream << indent << "- Data:\n";
        for (const AbstractData* data : sortedData(false))
            line(data->getName(), *data, false);
    }
    if (!m_children.empty()) {
        stream << indent << "- Children:\n";
        for (const ref_ptr<ProviderHandle>& child : m_children)
            child->print(stream, includeEmpty, indentation + 2);
    }
}

// Tasks

TaskTimingReportHandle::TaskTimingReportHandle(void* provider, const char* name)
    : ProviderHandle(provider, name)
    , m_computeCost(new StatisticsDataT<double>("ComputeCost", true))
    , m_wallTime(new StatisticsDataT<double>("WallTime", true))
    , m_overhead(new StatisticsDataT<double>("Overhead", true)) {
    for (StatisticsData* timer : {m_computeCost, m_wallTime, m_overhead})
        insertData(timer);
}

TaskTimingReportHandle::~TaskTimingReportHandle() = default;

bool TaskTimingReportHandle::isTaskTimer(const StatisticsData* data) const {
    return data == m_computeCost || data == m_wallTime || data == m_overhead;
}

} // namespace zel
