#include "Functions.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <stdexcept>
#include <type_traits>

// The functions of the path "Math": "Math.Add" and so on. This table is all there is to add to.

namespace {

using zel::int64;
using zel::uint64;
using Vec2f = zel::Vec2T<float>;
using Vec2d = zel::Vec2T<double>;
using Vec3f = zel::Vec3T<float>;
using Vec3d = zel::Vec3T<double>;
using Vec4f = zel::Vec4T<float>;
using Vec4d = zel::Vec4T<double>;
using zelMath::Function;

template <typename T>
constexpr bool IsNumber = std::is_arithmetic_v<T>;

/// Whether an integer and a real number meet, which is then computed in real numbers.
template <typename A, typename B>
constexpr bool IsMixed = IsNumber<A>&& IsNumber<B> && !std::is_same_v<A, B>;

/// Integers wrap around, signed ones too.
template <typename Operation>
int64 wrapping(int64 a, int64 b, Operation operation) {
    return static_cast<int64>(operation(static_cast<uint64>(a), static_cast<uint64>(b)));
}

/// What +, - and * do to two arguments; the operation is one of the standard library's.
template <typename Operation>
struct Arithmetic {
    template <typename A, typename B>
    auto operator()(const A& a, const B& b) const {
        if constexpr (IsMixed<A, B>)
            return Operation()(static_cast<double>(a), static_cast<double>(b));
        else if constexpr (std::is_same_v<A, int64>)
            return wrapping(a, b, Operation());
        else
            return Operation()(a, b);
    }
};
using Add = Arithmetic<std::plus<>>;
using Subtract = Arithmetic<std::minus<>>;
using Multiply = Arithmetic<std::multiplies<>>;

/// Real numbers divide as IEEE 754 says; integers have no infinity.
struct Divide {
    template <typename A, typename B>
    auto operator()(const A& a, const B& b) const {
        if constexpr (IsMixed<A, B>) {
            return static_cast<double>(a) / static_cast<double>(b);
        } else {
            if constexpr (std::is_integral_v<B>) {
                if (b == 0)
                    throw std::runtime_error("Math.Div: an integer can not be divided by zero");
                if constexpr (std::is_signed_v<B>)
                    if (b == -1)
                        return wrapping(0, a, [](uint64 p, uint64 q) { return p - q; });
            }
            return a / b;
        }
    }
};

struct Smaller {
    template <typename A, typename B>
    auto operator()(const A& a, const B& b) const {
        if constexpr (IsMixed<A, B>)
            return std::min(static_cast<double>(a), static_cast<double>(b));
        else if constexpr (IsNumber<A>)
            return b < a ? b : a;
        else
            return componentMin(a, b);
    }
};

struct Larger {
    template <typename A, typename B>
    auto operator()(const A& a, const B& b) const {
        if constexpr (IsMixed<A, B>)
            return std::max(static_cast<double>(a), static_cast<double>(b));
        else if constexpr (IsNumber<A>)
            return a < b ? b : a;
        else
            return componentMax(a, b);
    }
};

struct Magnitude {
    template <typename A>
    A operator()(A a) const {
        if constexpr (std::is_unsigned_v<A>) {
            return a;
        } else if constexpr (std::is_integral_v<A>) {
            return a < 0 ? wrapping(0, a, [](uint64 p, uint64 q) { return p - q; }) : a;
        } else if constexpr (IsNumber<A>) {
            return std::abs(a);
        } else {
            for (zel::size_t i = 0; i < A::Dimension; ++i)
                a[i] = std::abs(a[i]);
            return a;
        }
    }
};

/// A function of a real number; an integer becomes one.
#define ZEL_MATH_REAL_FUNCTION(Name, function)                                                               \
    struct Name {                                                                                            \
        template <typename A>                                                                                \
        auto operator()(const A& a) const {                                                                  \
            if constexpr (std::is_integral_v<A>)                                                             \
                return function(static_cast<double>(a));                                                     \
            else                                                                                             \
                return function(a);                                                                          \
        }                                                                                                    \
    }
ZEL_MATH_REAL_FUNCTION(SquareRoot, std::sqrt);
ZEL_MATH_REAL_FUNCTION(Sine, std::sin);
ZEL_MATH_REAL_FUNCTION(Cosine, std::cos);
#undef ZEL_MATH_REAL_FUNCTION

struct Power {
    template <typename A, typename B>
    auto operator()(const A& a, const B& b) const {
        if constexpr (std::is_same_v<A, B> && std::is_floating_point_v<A>)
            return std::pow(a, b);
        else
            return std::pow(static_cast<double>(a), static_cast<double>(b));
    }
};

struct Length {
    template <typename A>
    auto operator()(const A& a) const {
        return a.norm();
    }
};

struct DotProduct {
    template <typename A>
    auto operator()(const A& a, const A& b) const {
        return a.dot(b);
    }
};

struct CrossProduct {
    template <typename A>
    auto operator()(const A& a, const A& b) const {
        return a.cross(b);
    }
};

// The table

const Function<Add> s_add("Math.Add", [](auto& f) {
    f.template ofPairs<int64, uint64, float, double, Vec2f, Vec2d, Vec3f, Vec3d, Vec4f, Vec4d>()
        .ofMixedNumbers();
});

const Function<Subtract> s_sub("Math.Sub", [](auto& f) {
    f.template ofPairs<int64, uint64, float, double, Vec2f, Vec2d, Vec3f, Vec3d, Vec4f, Vec4d>()
        .ofMixedNumbers();
});

const Function<Multiply> s_mul("Math.Mul", [](auto& f) {
    f.template ofPairs<int64, uint64, float, double>().ofMixedNumbers();
    f.template of<Vec2f, float>().template of<Vec3f, float>().template of<Vec4f, float>();
    f.template of<float, Vec2f>().template of<float, Vec3f>().template of<float, Vec4f>();
    f.template of<Vec2d, double>().template of<Vec3d, double>().template of<Vec4d, double>();
    f.template of<double, Vec2d>().template of<double, Vec3d>().template of<double, Vec4d>();
});

const Function<Divide> s_div("Math.Div", [](auto& f) {
    f.template ofPairs<int64, uint64, float, double>().ofMixedNumbers();
    f.template of<Vec2f, float>().template of<Vec3f, float>().template of<Vec4f, float>();
    f.template of<Vec2d, double>().template of<Vec3d, double>().template of<Vec4d, double>();
});

const Function<Smaller> s_min("Math.Min", [](auto& f) {
    f.template ofPairs<int64, uint64, float, double, Vec2f, Vec2d, Vec3f, Vec3d, Vec4f, Vec4d>()
        .ofMixedNumbers();
});

const Function<Larger> s_max("Math.Max", [](auto& f) {
    f.template ofPairs<int64, uint64, float, double, Vec2f, Vec2d, Vec3f, Vec3d, Vec4f, Vec4d>()
        .ofMixedNumbers();
});

const Function<Magnitude> s_abs("Math.Abs", [](auto& f) {
    f.template ofEach<int64, uint64, float, double, Vec2f, Vec2d, Vec3f, Vec3d, Vec4f, Vec4d>();
});

const Function<SquareRoot> s_sqrt("Math.Sqrt",
                                  [](auto& f) { f.template ofEach<float, double, int64, uint64>(); });

const Function<Sine> s_sin("Math.Sin", [](auto& f) { f.template ofEach<float, double, int64, uint64>(); });

const Function<Cosine> s_cos("Math.Cos", [](auto& f) { f.template ofEach<float, double, int64, uint64>(); });

const Function<Power> s_pow("Math.Pow", [](auto& f) {
    f.template ofPairs<float, double, int64, uint64>().ofMixedNumbers();
});

const Function<Length> s_length("Math.Length", [](auto& f) {
    f.template ofEach<Vec2f, Vec2d, Vec3f, Vec3d, Vec4f, Vec4d>();
});

const Function<DotProduct> s_dot("Math.Dot", [](auto& f) {
    f.template ofPairs<Vec2f, Vec2d, Vec3f, Vec3d, Vec4f, Vec4d>();
});

const Function<CrossProduct> s_cross("Math.Cross", [](auto& f) { f.template ofPairs<Vec3f, Vec3d>(); });

} // namespace
