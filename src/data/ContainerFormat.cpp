#include <zel/Verify.h>
#include <zelData/ArrayFormat.h>
#include <zelData/ContainerFormat.h>

namespace zelData {

ContainerFormat::ContainerFormat(const zel::Name& name,
                                 Format* elementFormat,
                                 zel::uint64 size,
                                 TransformFunction copyFunction)
    : Format(name, zel::Name(), size, nullptr, copyFunction), m_elementFormat(elementFormat) {
    zelVerify(elementFormat);
}

ContainerFormat::~ContainerFormat() = default;

ArrayFormat::ArrayFormat(Format* elementFormat)
    : ElementOperations(
          "Array", elementFormat, sizeof(detail::ArrayWords), &GenericCopyFunction<detail::ArrayWords>) {}

ArrayFormat::~ArrayFormat() = default;

} // namespace zelData
