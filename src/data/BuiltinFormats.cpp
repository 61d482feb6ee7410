#include "BuiltinFormats.h"

#include <zelData/FormatInitializer.h>

namespace zelData {

void registerBuiltinFormats() {
    static const FormatInitializer s_initializers[] = {
        {"Void", &createVoidFormats},
        {"Auto", &createAutoFormats},
        {"Bool", &createBoolFormats},
        {"Int", &createIntFormats},
        {"UInt", &createUIntFormats},
        {"Real", &createRealFormats},
        {"AtomicValue", &createAtomicValueFormats},
        {"Vec2", &createVec2Formats},
        {"Vec3", &createVec3Formats},
        {"Vec4", &createVec4Formats},
        {"Vec2i", &createVec2iFormats},
        {"Vec3i", &createVec3iFormats},
        {"Vec4i", &createVec4iFormats},
        {"Vec2u", &createVec2uFormats},
        {"Vec3u", &createVec3uFormats},
        {"Vec4u", &createVec4uFormats},
        {"Quat", &createQuatFormats},
        {"Matrix3x3", &createMatrix3x3Formats},
        {"Matrix4x4", &createMatrix4x4Formats},
        {"AffineMatrix4x4", &createAffineMatrix4x4Formats},
        {"SPDMatrix3x3", &createSPDMatrix3x3Formats},
        {"Bound1", &createBound1Formats},
        {"Bound2", &createBound2Formats},
        {"Bound3", &createBound3Formats},
        {"Bound1i", &createBound1iFormats},
        {"Bound2i", &createBound2iFormats},
        {"Bound3i", &createBound3iFormats},
        {"Bound1u", &createBound1uFormats},
        {"Bound2u", &createBound2uFormats},
        {"Bound3u", &createBound3uFormats},
        {"Line", &createLineFormats},
        {"Plane", &createPlaneFormats},
        {"Range6", &createRange6Formats},
        {"IndexRange", &createIndexRangeFormats},
        {"Name", &createNameFormats},
        {"String", &createStringFormats},
        {"Uuid", &createUuidFormats},
        {"Pointer", &createPointerFormats},
        {"ObjectPointer", &createObjectPointerFormats},
        {"SpinMutex", &createSpinMutexFormats},
        {"Job", &createJobFormats},
        {"RangeJob", &createRangeJobFormats},
        {"JobGroup", &createJobGroupFormats},
        {"TaskJob", &createTaskJobFormats},
    };
    static_cast<void>(s_initializers);
}

} // namespace zelData
