#include <zel/InitCallback.h>
#include <zel/Verify.h>
#include <zelCore/zelCore.h>
#include <zelData/Format.h>
#include <zelData/GenericFormat.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <atomic>
#include <mutex>

namespace zelData {

namespace {

// Five operations share the text about copying.
constexpr const char* MustInitialize = "Format::initializeElements must be overloaded!";
constexpr const char* MustConstruct = "Format::constructElements must be overloaded!";
constexpr const char* MustDestroy = "Format::destroyElements must be overloaded!";
constexpr const char* MustCopy = "Format::copyElements must be overloaded!";
constexpr const char* MustPermute = "Format::permuteElements must be overloaded!";

} // namespace

Format::Format(const zel::Name& name,
               const zel::Name& implementationName,
               zel::uint64 size,
               TransformFunction swapFunction,
               TransformFunction copyFunction)
    : Model(name, implementationName), m_size(size), m_swapFunction(swapFunction) {
    setModel(ClassModel());
    registerTransformer(copyFunction, this, this);
}

Format::~Format() = default;

void Format::initializeElement(void*, const void*) const {
    zelAbort("%s", MustInitialize);
}
void Format::initializeElements(void*, const void*, zel::uint64) const {
    zelAbort("%s", MustInitialize);
}
void Format::constructElement(void*) const {
    zelAbort("%s", MustConstruct);
}
void Format::constructElements(void*, zel::uint64) const {
    zelAbort("%s", MustConstruct);
}
void Format::destroyElement(void*) const {
    zelAbort("%s", MustDestroy);
}
void Format::destroyElements(void*, zel::uint64) const {
    zelAbort("%s", MustDestroy);
}
void Format::copyElement(void*, const void*) const {
    zelAbort("%s", MustCopy);
}
void Format::copyElements(void*, const void*, zel::uint64) const {
    zelAbort("%s", MustCopy);
}
void Format::moveElement(void*, void*) const {
    zelAbort("%s", MustCopy);
}
void Format::moveElements(void*, void*, zel::uint64) const {
    zelAbort("%s", MustCopy);
}
void Format::permuteElements(void*, void*, const zel::uint32*, zel::uint64) const {
    zelAbort("%s", MustPermute);
}
void Format::swapElements(void*, void*) const {
    zelAbort("%s", MustCopy);
}

void Format::swapByteOrder(void* target, const void* source, zel::uint64 n) const {
    zelVerifyN(m_swapFunction != nullptr, "Format '%s' has no byte order", fullName().c_str());
    m_swapFunction(target, source, n);
}

bool Format::hasPlainElements() const noexcept {
    return m_swapFunction != nullptr || dynamic_cast<const GenericFormat*>(this) != nullptr;
}

zel::String Format::fullName() const {
    return m_type == nullptr ? zel::String(getName().str()) : m_type->getName() + ":" + getName().c_str();
}

Value* Format::getDefaultValue() const {
    // Acquire: pairs with the release below, so that the value that is seen is complete.
    if (Value* value = m_defaultValue.load(std::memory_order_acquire))
        return value;
    const std::lock_guard lock(detail::getTypeSystemMutex());
    if (Value* value = m_defaultValue.load(std::memory_order_relaxed))
        return value;
    auto* const value = new Value("default", this);
    value->reference();
    m_defaultValue.store(value, std::memory_order_release);
    return value;
}

void Format::cleanup() {
    const std::lock_guard lock(detail::getTypeSystemMutex());
    Value* const value = m_defaultValue.exchange(nullptr, std::memory_order_acq_rel);
    if (value == nullptr)
        return;
    value->forceInvalidateDefaultFormatValue();
    value->unreference();
}

namespace {

// Counted; looked up once in a life of the library, and let go of when it ends.
constinit std::atomic<Format*> s_auto{nullptr};
constinit std::atomic<Format*> s_void{nullptr};

Format* lookUpOnce(std::atomic<Format*>& slot, const char* name) {
    if (Format* known = slot.load(std::memory_order_acquire))
        return known;
    Format* const format = getFormat(name);
    if (format == nullptr || zelCore::isShutdown())
        return format;
    format->reference();
    Format* expected = nullptr;
    if (!slot.compare_exchange_strong(expected, format, std::memory_order_acq_rel))
        format->unreference();
    return format;
}

ZEL_SHUTDOWN_CALLBACK {
    for (std::atomic<Format*>* slot : {&s_auto, &s_void})
        if (const Format* format = slot->exchange(nullptr, std::memory_order_acq_rel))
            format->unreference();
}

} // namespace

Format* Format::Auto() {
    return lookUpOnce(s_auto, "Auto:default");
}

Format* Format::Void() {
    return lookUpOnce(s_void, "Void:void");
}

zel::Model* Format::ClassModel() {
    static std::atomic<zel::Model*> s_model{nullptr};
    return createBuiltinModel("zelData.Format", Model::ClassModel(), s_model);
}

} // namespace zelData
