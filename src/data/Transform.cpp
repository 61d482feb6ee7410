#include <zel/Verify.h>
#include <zelData/Format.h>
#include <zelData/Transform.h>
#include <zelData/Type.h>

namespace zelData {

namespace {

const char* typeName(const Format* format) {
    return format->getType() == nullptr ? "" : format->getType()->getName().c_str();
}

} // namespace

void registerTransformer(TransformFunction function, const Format* targetFormat, Format* sourceFormat) {
    zelVerifyNAs(targetFormat == sourceFormat || !sourceFormat->m_transformerTable.contains(targetFormat),
                 "!sourceFormat_->m_transformerTable.contains(targetFormat_)",
                 "Transformers can only be registered once! '%s:%s' ==> '%s:%s')",
                 typeName(targetFormat),
                 targetFormat->getName().c_str(),
                 typeName(sourceFormat),
                 sourceFormat->getName().c_str());
    sourceFormat->m_transformerTable.insert(targetFormat, function);
}

TransformFunction getTransformer(const Format* targetFormat, const Format* sourceFormat) {
    const auto position = sourceFormat->m_transformerTable.find(targetFormat);
    return position == sourceFormat->m_transformerTable.end() ? nullptr : position->value;
}

void transform(void* target,
               const Format* targetFormat,
               const void* source,
               const Format* sourceFormat,
               zel::uint64 numElements) {
    if (numElements == 0)
        return;
    const TransformFunction function = getTransformer(targetFormat, sourceFormat);
    zelVerifyN(function != nullptr,
               "No transformer from '%s' to '%s'",
               sourceFormat->fullName().c_str(),
               targetFormat->fullName().c_str());
    function(target, source, numElements);
}

} // namespace zelData
