#pragma once

namespace zelData {

/// Enters the initialisers of the library's own types in the table. Called ahead of the first creation of
/// formats rather than at static initialisation, so that a look-up from any static constructor finds them.
void registerBuiltinFormats();

// The create functions, in the sources of their families.
void createVoidFormats();
void createAutoFormats();
void createBoolFormats();
void createIntFormats();
void createUIntFormats();
void createRealFormats();
void createAtomicValueFormats();
void createVec2Formats();
void createVec3Formats();
void createVec4Formats();
void createVec2iFormats();
void createVec3iFormats();
void createVec4iFormats();
void createVec2uFormats();
void createVec3uFormats();
void createVec4uFormats();
void createQuatFormats();
void createMatrix3x3Formats();
void createMatrix4x4Formats();
void createAffineMatrix4x4Formats();
void createSPDMatrix3x3Formats();
void createBound1Formats();
void createBound2Formats();
void createBound3Formats();
void createBound1iFormats();
void createBound2iFormats();
void createBound3iFormats();
void createBound1uFormats();
void createBound2uFormats();
void createBound3uFormats();
void createLineFormats();
void createPlaneFormats();
void createRange6Formats();
void createIndexRangeFormats();
void createNameFormats();
void createStringFormats();
void createUuidFormats();
void createPointerFormats();
void createObjectPointerFormats();
void createSpinMutexFormats();
void createJobFormats();
void createRangeJobFormats();
void createJobGroupFormats();
void createTaskJobFormats();

} // namespace zelData
