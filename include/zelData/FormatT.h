#pragma once

#include <zel/Integers.h>
#include <zel/Name.h>
#include <zel/ref_ptr.h>
#include <zelData/Format.h>
#include <zelData/Transform.h>

#include <memory>
#include <new>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace zelData {

/// Whether elements of the class are counted references: moving one copies it, and leaves the source alone.
template <typename T>
inline constexpr bool isCountedElement = false;
template <>
inline constexpr bool isCountedElement<zel::Name> = true;
template <typename T>
inline constexpr bool isCountedElement<zel::ref_ptr<T>> = true;

/// Implements the operations of a format by those of the language on T. Base is the class of formats to
/// derive from.
template <typename T, typename Base>
class ElementOperations : public Base {
public:
    using value_type = T;
    using Base::Base;

    void initializeElement(void* target, const void* source) const override {
        ::new (target) T(*static_cast<const T*>(source));
    }
    void initializeElements(void* target, const void* source, zel::uint64 n) const override {
        if (n != 0)
            std::uninitialized_fill_n(static_cast<T*>(target), n, *static_cast<const T*>(source));
    }
    void constructElement(void* target) const override { ::new (target) T(); }
    void constructElements(void* target, zel::uint64 n) const override {
        std::uninitialized_value_construct_n(static_cast<T*>(target), n);
    }
    void destroyElement(void* element) const override { std::destroy_at(static_cast<T*>(element)); }
    void destroyElements(void* elements, zel::uint64 n) const override {
        std::destroy_n(static_cast<T*>(elements), n);
    }
    void copyElement(void* target, const void* source) const override {
        *static_cast<T*>(target) = *static_cast<const T*>(source);
    }
    void copyElements(void* target, const void* source, zel::uint64 n) const override {
        GenericCopyFunction<T>(target, source, n);
    }
    void moveElement(void* target, void* source) const override {
        assignMoved(*static_cast<T*>(target), *static_cast<T*>(source));
    }
    void moveElements(void* target, void* source, zel::uint64 n) const override {
        if constexpr (std::is_trivially_copyable_v<T>) {
            GenericCopyFunction<T>(target, source, n);
        } else {
            for (zel::uint64 i = 0; i < n; ++i)
                assignMoved(static_cast<T*>(target)[i], static_cast<T*>(source)[i]);
        }
    }
    void permuteElements(void* target,
                         void* source,
                         const zel::uint32* permutation,
                         zel::uint64 n) const override {
        T* const to = static_cast<T*>(target);
        const T* const from = static_cast<const T*>(source);
        for (zel::uint64 i = 0; i < n; ++i)
            to[i] = from[permutation[i]];
    }
    void swapElements(void* a, void* b) const override {
        using std::swap;
        swap(*static_cast<T*>(a), *static_cast<T*>(b));
    }

private:
    static void assignMoved(T& target, T& source) {
        if constexpr (std::is_trivially_destructible_v<T> || isCountedElement<T>)
            target = static_cast<const T&>(source);
        else
            target = std::move(source);
    }
};

/// The format of the elements of a class.
template <typename T>
class FormatT : public ElementOperations<T, Format> {
public:
    explicit FormatT(const zel::Name& name, TransformFunction swapFunction = nullptr)
        : ElementOperations<T, Format>(name,
                                       typeid(T).name(),
                                       // NOLINTNEXTLINE(bugprone-sizeof-expression): T may be a pointer
                                       sizeof(T),
                                       swapFunction,
                                       &GenericCopyFunction<T>) {}
};

} // namespace zelData
