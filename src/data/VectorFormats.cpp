#include "Ascii.h"
#include "BuiltinFormats.h"
#include "FormatFamily.h"

#include <zel/Quat.h>

namespace zelData {

namespace {

/// How the numbers of a text are read: reals by strtod, integers by strtoll.
template <typename T>
using WideNumber = std::conditional_t<std::is_floating_point_v<T>, double, zel::int64>;

template <typename Vector>
void writeVector(zel::String& text, const Vector& vector) {
    AsciiText().join(vector.data(), Vector::Dimension, ", ").assignTo(text);
}

template <typename Vector>
void readVector(Vector& vector, const zel::String& text) {
    using T = typename Vector::value_type;
    vector = Vector();
    readNumbers<WideNumber<T>>(text, vector.data(), Vector::Dimension);
}

/// Makes every 32- and 64-bit scalar a way to fill a vector.
template <typename Vector>
void registerWidening(Format* vectorFormat) {
    const auto widenFrom = [vectorFormat]<typename Source>(const char* typeName) {
        registerTransformer(&WidenFunction<Vector, Source>, vectorFormat, scalarFormat<Source>(typeName));
    };
    widenFrom.template operator()<zel::int32>("Int");
    widenFrom.template operator()<zel::int64>("Int");
    widenFrom.template operator()<zel::uint32>("UInt");
    widenFrom.template operator()<zel::uint64>("UInt");
    widenFrom.template operator()<float>("Real");
    widenFrom.template operator()<double>("Real");
}

/// The formats of a type whose elements are classes of components that follow one another.
template <typename... Vectors>
NumericFormats<Vectors...> createComponentFormats(const char* name) {
    Type* type = getOrCreateType(name);
    const NumericFormats<Vectors...> formats(type);
    Format* ascii = addTextFormat(type, "ascii");
    formats.forEach([ascii]<typename Vector>(Format* format) {
        registerAscii<Vector, &writeVector<Vector>, &readVector<Vector>>(ascii, format);
    });
    return formats;
}

template <template <typename> class Vector, typename... Ts>
void createVectorFormats(const char* name) {
    createComponentFormats<Vector<Ts>...>(name).forEach(
        []<typename V>(Format* format) { registerWidening<V>(format); });
}

template <template <typename> class Vector>
void createRealVectorFormats(const char* name) {
    createVectorFormats<Vector, float, double>(name);
}
template <template <typename> class Vector>
void createSignedVectorFormats(const char* name) {
    createVectorFormats<Vector, zel::int8, zel::int16, zel::int32, zel::int64>(name);
}
template <template <typename> class Vector>
void createUnsignedVectorFormats(const char* name) {
    createVectorFormats<Vector, zel::uint8, zel::uint16, zel::uint32, zel::uint64>(name);
}

} // namespace

void createVec2Formats() {
    createRealVectorFormats<zel::Vec2T>("Vec2");
}
void createVec3Formats() {
    createRealVectorFormats<zel::Vec3T>("Vec3");
}
void createVec4Formats() {
    createRealVectorFormats<zel::Vec4T>("Vec4");
}
void createVec2iFormats() {
    createSignedVectorFormats<zel::Vec2T>("Vec2i");
}
void createVec3iFormats() {
    createSignedVectorFormats<zel::Vec3T>("Vec3i");
}
void createVec4iFormats() {
    createSignedVectorFormats<zel::Vec4T>("Vec4i");
}
void createVec2uFormats() {
    createUnsignedVectorFormats<zel::Vec2T>("Vec2u");
}
void createVec3uFormats() {
    createUnsignedVectorFormats<zel::Vec3T>("Vec3u");
}
void createVec4uFormats() {
    createUnsignedVectorFormats<zel::Vec4T>("Vec4u");
}
void createQuatFormats() {
    createComponentFormats<zel::QuatT<float>, zel::QuatT<double>>("Quat");
}

} // namespace zelData
