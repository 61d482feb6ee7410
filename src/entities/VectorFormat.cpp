#include "VectorFormat.h"

#include <zel/Integers.h>
#include <zel/Matrix.h>
#include <zel/Name.h>
#include <zel/Quat.h>
#include <zel/String.h>
#include <zel/Uuid.h>
#include <zel/Vec.h>
#include <zel/Vector.h>
#include <zel/Verify.h>
#include <zelData/ContainerFormat.h>
#include <zelData/EntityPtr.h>
#include <zelData/FormatT.h>
#include <zelData/Transform.h>

#include <typeinfo>

namespace zelData {

namespace {

template <typename T>
class VectorFormat : public ElementOperations<zel::Vector<T>, ContainerFormat> {
public:
    explicit VectorFormat(Format* elementFormat)
        : ElementOperations<zel::Vector<T>, ContainerFormat>(
              "Vector", elementFormat, sizeof(zel::Vector<T>), &GenericCopyFunction<zel::Vector<T>>) {}
};

template <typename T>
bool create(Format* elementFormat, Format*& result) {
    if (elementFormat->getImplementationName() != zel::Name(typeid(T).name()))
        return false;
    result = new VectorFormat<T>(elementFormat);
    return true;
}

/// The first of the classes that is the format's.
template <typename... T>
Format* createOneOf(Format* elementFormat) {
    Format* result = nullptr;
    static_cast<void>((create<T>(elementFormat, result) || ...));
    return result;
}

} // namespace

Format* createVectorFormat(Format* elementFormat) {
    zelVerify(elementFormat);
    using zel::Matrix3x3T;
    using zel::Matrix4x4T;
    using zel::Name;
    using zel::QuatT;
    using zel::String;
    using zel::Uuid;
    using zel::Vec2T;
    using zel::Vec3T;
    using zel::Vec4T;
    Format* format = createOneOf<bool,
                                 zel::int8,
                                 zel::int16,
                                 zel::int32,
                                 zel::int64,
                                 zel::uint8,
                                 zel::uint16,
                                 zel::uint32,
                                 zel::uint64,
                                 float,
                                 double,
                                 Vec2T<float>,
                                 Vec2T<double>,
                                 Vec3T<float>,
                                 Vec3T<double>,
                                 Vec4T<float>,
                                 Vec4T<double>,
                                 Vec2T<zel::int64>,
                                 Vec3T<zel::int64>,
                                 Vec4T<zel::int64>,
                                 Vec2T<zel::uint64>,
                                 Vec3T<zel::uint64>,
                                 Vec4T<zel::uint64>,
                                 QuatT<float>,
                                 QuatT<double>,
                                 Matrix3x3T<double>,
                                 Matrix4x4T<double>,
                                 Name,
                                 String,
                                 Uuid,
                                 void*,
                                 EntityPtr>(elementFormat);
    zelVerifyN(
        format != nullptr, "No vectors are made of elements of '%s'", elementFormat->fullName().c_str());
    return format;
}

} // namespace zelData
