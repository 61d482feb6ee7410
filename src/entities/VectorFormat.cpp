#include "VectorFormat.h"

#include <zel/Bound.h>
#include <zel/Integers.h>
#include <zel/Line.h>
#include <zel/Matrix.h>
#include <zel/Name.h>
#include <zel/Plane.h>
#include <zel/Quat.h>
#include <zel/Range.h>
#include <zel/String.h>
#include <zel/Uuid.h>
#include <zel/Vec.h>
#include <zel/Vector.h>
#include <zel/Verify.h>
#include <zelData/ContainerFormat.h>
#include <zelData/EntityInstance.h>
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

/// @return whether one of the classes is the format's, whose vectors get the format `result`
template <typename... T>
bool createOneOf(Format* elementFormat, Format*& result) {
    return (create<T>(elementFormat, result) || ...);
}

template <typename... Numbers>
bool createOfVecs(Format* elementFormat, Format*& result) {
    return createOneOf<zel::Vec2T<Numbers>...>(elementFormat, result) ||
           createOneOf<zel::Vec3T<Numbers>...>(elementFormat, result) ||
           createOneOf<zel::Vec4T<Numbers>...>(elementFormat, result);
}

template <typename... Numbers>
bool createOfBounds(Format* elementFormat, Format*& result) {
    return createOneOf<zel::BoundT<Numbers>...>(elementFormat, result) ||
           createOneOf<zel::BoundT<zel::Vec2T<Numbers>>...>(elementFormat, result) ||
           createOneOf<zel::BoundT<zel::Vec3T<Numbers>>...>(elementFormat, result);
}

/// The classes that there are of single and of double precision.
template <typename... Reals>
bool createOfGeometry(Format* elementFormat, Format*& result) {
    return createOneOf<zel::QuatT<Reals>...>(elementFormat, result) ||
           createOneOf<zel::Matrix3x3T<Reals>...>(elementFormat, result) ||
           createOneOf<zel::Matrix4x4T<Reals>...>(elementFormat, result) ||
           createOneOf<zel::AffineMatrix4x4T<Reals>...>(elementFormat, result) ||
           createOneOf<zel::LineT<Reals>...>(elementFormat, result) ||
           createOneOf<zel::PlaneT<Reals>...>(elementFormat, result) ||
           createOneOf<zel::Range6T<Reals>...>(elementFormat, result);
}

} // namespace

Format* createVectorFormat(Format* elementFormat) {
    zelVerify(elementFormat);
    using namespace zel; // NOLINT(google-build-using-namespace): for the names of numbers
    Format* format = nullptr;
    static_cast<void>(
        createOneOf<bool, int8, int16, int32, int64, uint8, uint16, uint32, uint64, float, double>(
            elementFormat, format) ||
        createOfVecs<int8, int16, int32, int64, uint8, uint16, uint32, uint64, float, double>(elementFormat,
                                                                                              format) ||
        createOfBounds<int32, int64, uint32, uint64, float, double>(elementFormat, format) ||
        createOfGeometry<float, double>(elementFormat, format) ||
        createOneOf<SPDMatrix3x3,
                    IndexRangeT<uint32>,
                    IndexRangeT<uint64>,
                    Name,
                    String,
                    Uuid,
                    void*,
                    Object*,
                    EntityPtr,
                    EntityInstance>(elementFormat, format));
    return format;
}

} // namespace zelData
