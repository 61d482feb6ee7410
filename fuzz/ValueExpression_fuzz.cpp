// Expressions set on values of several types: any text either sets the value, binds it, or is refused with a
// std::runtime_error; nothing ends the process but what is told to: words that are no booleans, and literals
// without a type.
#include "Support.h"

#include <zel/Component.h>
#include <zel/Notify.h>
#include <zelCore/zelCore.h>
#include <zelData/Format.h>
#include <zelData/Type.h>
#include <zelData/Value.h>
#include <zelData/ValueT.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace {

constexpr std::array<const char*, 16> Formats{"Int:8bit",
                                              "Int",
                                              "UInt:16bit",
                                              "UInt",
                                              "Real:32bit",
                                              "Real",
                                              "Real:ascii",
                                              "Vec3",
                                              "Matrix4x4:32bit",
                                              "Bound2",
                                              "IndexRange",
                                              "Name",
                                              "String",
                                              "Uuid",
                                              "ObjectPointer",
                                              "SpinMutex"};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zelFuzz::initQuietly();
    if (size == 0)
        return 0;
    const zel::String text(reinterpret_cast<const char*>(data + 1), size - 1);
    // These words are read by whatever type is named, and Bool takes but two of them.
    if (text.find("Bool") != std::string::npos)
        return 0;

    const zel::ref_ptr<zel::Component> top(new zel::Component("top"));
    const zel::ref_ptr<zelData::Value> target(new zelData::ValueT<double>("a", 1.5));
    top->addObject(target.get());
    const zel::ref_ptr<zelData::Value> value(
        new zelData::Value("v", zelData::getFormat(Formats[data[0] % Formats.size()])));
    top->addObject(value.get());
    try {
        value->setExpression(text);
    } catch (const std::runtime_error&) {
        // What a bad text gets.
    }
    static_cast<void>(value->toString());
    target->set(static_cast<const zelData::Value*>(target.get()));
    value->unbind(true);
    if (value->getFormat() == nullptr || value->getData() == nullptr)
        std::abort();
    return 0;
}
