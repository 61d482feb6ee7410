#include <zel/Model.h>
#include <zelData/Format.h>
#include <zelData/Value.h>

#include <mutex>

// The default value of a format, which the format makes and owns while the value refers to the format.

namespace zelData {

Value* Format::getDefaultValue() const {
    // Acquire: pairs with the release below, so that the value is complete.
    if (Value* value = m_defaultValue.load(std::memory_order_acquire))
        return value;
    const std::lock_guard lock(detail::getTypeSystemMutex());
    Value* value = m_defaultValue.load(std::memory_order_relaxed);
    if (value == nullptr) {
        value = new Value("default", this);
        value->reference();
        m_defaultValue.store(value, std::memory_order_release);
    }
    return value;
}

void Format::cleanup() {
    Value* const value = m_defaultValue.exchange(nullptr, std::memory_order_acq_rel);
    if (value == nullptr)
        return;
    value->forceInvalidateDefaultFormatValue();
    value->unreference();
}

} // namespace zelData
