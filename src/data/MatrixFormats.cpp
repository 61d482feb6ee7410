#include "Ascii.h"
#include "BuiltinFormats.h"
#include "FormatFamily.h"

#include <zel/Matrix.h>

#include <algorithm>

namespace zelData {

namespace {

template <typename Matrix>
inline constexpr zel::size_t rowsOf = strideOf<Matrix> == 9 ? 3 : 4;

/// Three rows with a comma and five blanks between them, or four that end with a comma, with four blanks
/// between them.
template <typename Matrix>
void writeMatrix(zel::String& text, const Matrix& matrix) {
    constexpr zel::size_t N = rowsOf<Matrix>;
    AsciiText ascii;
    for (zel::size_t row = 0; row < N; ++row) {
        if (row != 0)
            ascii.text(N == 3 ? ",     " : "    ");
        ascii.join(matrix.data() + row * N, N, ", ");
        if (N == 4)
            ascii.text(",");
    }
    ascii.assignTo(text);
}

template <typename T>
void readMatrix(zel::Matrix3x3T<T>& matrix, const zel::String& text) {
    readNumbers<double>(text, matrix.data(), 9);
}

template <typename T>
void readMatrix(zel::Matrix4x4T<T>& matrix, const zel::String& text) {
    readNumbers<double>(text, matrix.data(), 16);
}

/// The last row is 0 0 0 1, whatever the text says.
template <typename T>
void readMatrix(zel::AffineMatrix4x4T<T>& matrix, const zel::String& text) {
    zel::Matrix4x4T<T> values;
    readMatrix(values, text);
    matrix = zel::AffineMatrix4x4T<T>(values);
}

/// The symmetric part of what the text says.
void readMatrix(zel::SPDMatrix3x3& matrix, const zel::String& text) {
    zel::Matrix3x3T<double> values;
    readMatrix(values, text);
    matrix = zel::SPDMatrix3x3(values);
}

template <typename Matrix>
void readMatrixElement(Matrix& matrix, const zel::String& text) {
    readMatrix(matrix, text);
}

template <typename Matrix>
void registerMatrixAscii(Format* ascii, Format* format) {
    registerAscii<Matrix, &writeMatrix<Matrix>, &readMatrixElement<Matrix>>(ascii, format);
}

template <template <typename> class Matrix>
void createMatrixFormats(const char* name) {
    Type* type = getOrCreateType(name);
    const NumericFormats<Matrix<float>, Matrix<double>> formats(type);
    Format* ascii = addTextFormat(type, "ascii");
    formats.forEach([ascii]<typename M>(Format* format) { registerMatrixAscii<M>(ascii, format); });
}

} // namespace

void createMatrix3x3Formats() {
    createMatrixFormats<zel::Matrix3x3T>("Matrix3x3");
}

void createMatrix4x4Formats() {
    createMatrixFormats<zel::Matrix4x4T>("Matrix4x4");
}

void createAffineMatrix4x4Formats() {
    createMatrixFormats<zel::AffineMatrix4x4T>("AffineMatrix4x4");
}

void createSPDMatrix3x3Formats() {
    using Matrix = zel::SPDMatrix3x3;
    Type* type = getOrCreateType("SPDMatrix3x3");
    auto* const format = new FormatT<Matrix>("default", swapFunctionOf<Matrix>);
    type->addFormat(format, true);
    Format::registerFormatPrimitives<double>(format, strideOf<Matrix>, 0);
    registerMatrixAscii<Matrix>(addTextFormat(type, "ascii"), format);
}

} // namespace zelData
