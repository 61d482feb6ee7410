#pragma once

#include <zel/Verify.h>
#include <zelData/TypeBinding.h>
#include <zelData/Value.h>

#include <typeinfo>

namespace zelData {

/// A value whose element is a T, in the default format of T's type; `unsigned long` is the element of `UInt`.
/// @threads as Value
template <typename T>
class ValueT : public Value {
public:
    explicit ValueT(const zel::Name& name = zel::Name()) : Value(name, TypeBinding<T>::getType()) {
        verifyElement(sizeof(T), typeid(T).name());
        rebindsOnDemand(typeid(ValueT));
    }
    ValueT(const zel::Name& name, const T& content) : ValueT(name) { set(content); }

    /// @cost one pointer read, whatever the value is bound to
    [[nodiscard]] const T& get() const {
        zelVerifyN(storage() != nullptr, "%s: The value has no content", getPath().c_str());
        return *static_cast<const T*>(storage());
    }
    /// As Value::set.
    void set(const T& content) { Value::set(static_cast<const void*>(&content)); }
};

/// A typed value that is a member of another object. It leaves the tree, and all that follow it, ahead of its
/// owner's memory. The owner counts as one that holds it.
/// @threads as Value
template <typename T>
class Val final : public ValueT<T> { // NOLINT(cppcoreguidelines-virtual-class-destructor): is virtual
public:
    explicit Val(const zel::Name& name = zel::Name()) : ValueT<T>(name) { init(); }
    Val(const zel::Name& name, const T& content) : ValueT<T>(name, content) { init(); }
    ~Val() override { this->leaveOwner(); }

private:
    void init() {
        this->enterOwner();
        this->rebindsOnDemand(typeid(Val));
    }
};

} // namespace zelData
