#include <zel/StatisticsData.h>
#include <zelData/Format.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <cstring>

namespace zel {

std::unique_ptr<char[]> copyString(const char* text) {
    if (text == nullptr)
        return nullptr;
    const size_t size = std::strlen(text) + 1;
    std::unique_ptr<char[]> copy(new char[size]);
    std::memcpy(copy.get(), text, size);
    return copy;
}

StatisticsData::StatisticsData(const char* name, bool timing) : m_name(copyString(name)), m_timing(timing) {}

StatisticsData::~StatisticsData() = default;

template <typename T>
zelData::Value* StatisticsDataT<T>::toValue() const {
    auto* value = new zelData::Value(Name(getName()), zelData::getType("Real"));
    const auto number = static_cast<double>(getValue());
    value->set(&number);
    return value;
}

template class StatisticsDataT<double>;
template class StatisticsDataT<float>;
template class StatisticsDataT<unsigned long>;

} // namespace zel
