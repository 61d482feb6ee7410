#pragma once

#include <zel/Device.h>
#include <zel/Integers.h>
#include <zel/Name.h>
#include <zel/ScalarParameter.h>
#include <zel/SerialTask.h>
#include <zel/TaskPlugin.h>
#include <zel/Vec.h>
#include <zelData/Type.h>

#include <array>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

/// @file
/// Functions of values as tasks: the inputs "arg0", "arg1" and so on, and the output "result".

namespace zelMath {

/// The format whose elements are of the class T.
template <typename T>
constexpr const char* FormatName = nullptr;
template <>
constexpr const char* FormatName<zel::int64> = "Int:64bit";
template <>
constexpr const char* FormatName<zel::uint64> = "UInt:64bit";
template <>
constexpr const char* FormatName<float> = "Real:32bit";
template <>
constexpr const char* FormatName<double> = "Real:64bit";
template <>
constexpr const char* FormatName<zel::Vec2T<float>> = "Vec2:32bit";
template <>
constexpr const char* FormatName<zel::Vec2T<double>> = "Vec2:64bit";
template <>
constexpr const char* FormatName<zel::Vec3T<float>> = "Vec3:32bit";
template <>
constexpr const char* FormatName<zel::Vec3T<double>> = "Vec3:64bit";
template <>
constexpr const char* FormatName<zel::Vec4T<float>> = "Vec4:32bit";
template <>
constexpr const char* FormatName<zel::Vec4T<double>> = "Vec4:64bit";

/// One overload of a function: Operation()(arguments...) in their own formats.
template <typename Operation, typename... Arguments>
class FunctionTask final : public zel::SerialTask {
public:
    using Result = std::invoke_result_t<Operation, const Arguments&...>;

    FunctionTask(const zel::Name& name, zel::Device* device)
        : SerialTask(name, device)
        , m_arguments(declareAll(std::index_sequence_for<Arguments...>()))
        , m_result(declare<Result>("result", zelData::AccessMode::WRITE)) {}

    void run() override { compute(std::index_sequence_for<Arguments...>()); }

private:
    using Parameters = std::array<zel::ScalarParameter*, sizeof...(Arguments)>; // owned by the task

    template <typename T>
    zel::ScalarParameter* declare(const std::string& name, zel::uint32 accessMode) {
        static_assert(FormatName<T> != nullptr);
        auto* const parameter =
            new zel::ScalarParameter(zel::Name(name), zelData::getFormat(FormatName<T>), accessMode);
        addParameter(parameter);
        return parameter;
    }

    template <std::size_t... Index>
    Parameters declareAll(std::index_sequence<Index...>) {
        return {declare<Arguments>("arg" + std::to_string(Index), zelData::AccessMode::READ)...};
    }

    template <std::size_t... Index>
    void compute(std::index_sequence<Index...>) {
        *static_cast<Result*>(m_result->getData()) =
            Operation()(*static_cast<const Arguments*>(m_arguments[Index]->getData())...);
    }

    Parameters m_arguments;
    zel::ScalarParameter* m_result;
};

/// A function with its overloads; a static object of the plug-in. The first overload that fits the formats of
/// the arguments is taken: those of 32 bits stand ahead of those of 64, which take any width.
template <typename Operation>
class Function {
public:
    /// @param path  "Math." and the name
    /// @param fill  adds the overloads
    template <typename Fill>
    Function(const char* path, Fill fill)
        : m_plugin(path, zel::Device::Type::Cpu), m_name(std::strchr(path, '.') + 1) {
        fill(*this);
    }

    /// Adds the overload for arguments of these classes.
    template <typename... Arguments>
    Function& of() {
        using Task = FunctionTask<Operation, Arguments...>;
        m_overloads.push_back(std::make_unique<zel::TaskPluginImplementationT<Task>>(m_plugin, m_name));
        return *this;
    }
    /// Adds one overload of two arguments for each class.
    template <typename... Classes>
    Function& ofPairs() {
        (of<Classes, Classes>(), ...);
        return *this;
    }
    /// Adds one overload of one argument for each class.
    template <typename... Classes>
    Function& ofEach() {
        (of<Classes>(), ...);
        return *this;
    }
    /// Adds the overloads for an integer and a real number, which give a real number.
    Function& ofMixedNumbers() {
        return of<zel::int64, double>()
            .template of<double, zel::int64>()
            .template of<zel::uint64, double>()
            .template of<double, zel::uint64>();
    }

private:
    zel::TaskPlugin m_plugin;
    const char* m_name;
    std::vector<std::unique_ptr<zel::TaskPluginImplementation>> m_overloads; // gone ahead of the plug-in
};

} // namespace zelMath
