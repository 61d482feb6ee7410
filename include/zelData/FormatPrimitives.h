#pragma once

#include <zel/Callback.h>

#include <array>
#include <cstddef>
#include <type_traits>

/// @file
/// What the elements of numeric formats consist of: how many values of which primitive type.

namespace zelData {

namespace detail {

template <typename... Ts>
struct PrimitiveList {
    static constexpr std::size_t Size = sizeof...(Ts);

    /// The position of T, or Size.
    template <typename T>
    static constexpr std::size_t indexOf() noexcept {
        constexpr std::array<bool, Size> same{std::is_same_v<T, Ts>...};
        std::size_t i = 0;
        while (i < Size && !same[i])
            ++i;
        return i;
    }

    template <typename Visitor>
    static constexpr void forEach(Visitor&& visitor) {
        (visitor.template operator()<Ts>(), ...);
    }
};

using Primitives = PrimitiveList<float,
                                 double,
                                 signed char,
                                 short,
                                 int,
                                 long,
                                 unsigned char,
                                 unsigned short,
                                 unsigned int,
                                 unsigned long,
                                 bool>;

template <typename T>
concept Primitive = Primitives::indexOf<T>()
< Primitives::Size;

} // namespace detail

/// A callback for each primitive type, so that code for numbers in general is written once:
///
///     double sum = 0;
///     CallbackList list = CallbackList::forAll([&]<typename T>(unsigned int stride, unsigned int padding) {
///         const T* values = static_cast<const T*>(element);
///         for (unsigned int i = 0; i < stride - padding; ++i)
///             sum += static_cast<double>(values[i]);
///     });
///     Format::callFormatPrimitive(format, list);
/// @threads external lock
class CallbackList {
public:
    /// Called with the number of values in an element, and how many of them at the end are padding.
    using PrimitiveCallback = zel::Callback2<unsigned int, unsigned int>;

    template <detail::Primitive T>
    void set(const PrimitiveCallback& callback) {
        m_callbacks[detail::Primitives::indexOf<T>()] = callback;
    }
    /// Empty unless one was set.
    template <detail::Primitive T>
    [[nodiscard]] const PrimitiveCallback& get() const noexcept {
        return m_callbacks[detail::Primitives::indexOf<T>()];
    }

    /// A list whose callbacks all call the visitor, with the primitive as template argument.
    template <typename Visitor>
    [[nodiscard]] static CallbackList forAll(Visitor visitor) {
        CallbackList list;
        detail::Primitives::forEach([&list, &visitor]<typename T>() {
            list.set<T>([visitor](unsigned int stride, unsigned int padding) mutable {
                visitor.template operator()<T>(stride, padding);
            });
        });
        return list;
    }

private:
    std::array<PrimitiveCallback, detail::Primitives::Size> m_callbacks;
};

/// Calls the callback that fits the primitive of one format.
class FormatCaller {
public:
    FormatCaller() = default;
    FormatCaller(const FormatCaller&) = delete;
    FormatCaller& operator=(const FormatCaller&) = delete;
    virtual ~FormatCaller() = default;

    /// @return false if the list has no callback for the primitive
    [[nodiscard]] virtual bool call(const CallbackList& list) const = 0;
};

/// The caller of a format whose elements consist of `stride` values of T.
template <detail::Primitive T>
class FormatCallerT : public FormatCaller {
public:
    FormatCallerT(unsigned int stride, unsigned int padding) noexcept
        : m_stride(stride), m_padding(padding) {}

    [[nodiscard]] bool call(const CallbackList& list) const override {
        const CallbackList::PrimitiveCallback& callback = list.get<T>();
        if (!callback)
            return false;
        callback(m_stride, m_padding);
        return true;
    }

private:
    unsigned int m_stride;
    unsigned int m_padding;
};

} // namespace zelData
