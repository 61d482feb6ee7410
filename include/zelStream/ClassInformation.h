#pragma once

#include <zel/Export.h>
#include <zel/String.h>

namespace zelStream {

/// The parts of a compiler's pretty function text: "void fleet::Wheel::roll(double)" is of the namespace
/// "fleet", the class "Wheel" and the function "roll". Marks of unnamed namespaces are dropped.
/// @threads any thread
class ZEL_CORE_API ClassInformation {
public:
    explicit ClassInformation(const zel::String& prettyFunctionText);

    /// Nested namespaces are joined by "::"; empty for a class without one.
    [[nodiscard]] const zel::String& getNamespace() const noexcept { return m_namespace; }
    [[nodiscard]] const zel::String& getClassName() const noexcept { return m_class; }
    [[nodiscard]] const zel::String& getFunctionName() const noexcept { return m_function; }
    /// Namespace and class, joined by "::".
    [[nodiscard]] zel::String getClassType() const;

    /// The text without what compilers write for unnamed namespaces.
    [[nodiscard]] static zel::String cleanupAnonymousNamespace(const zel::String& text);

private:
    zel::String m_namespace;
    zel::String m_class;
    zel::String m_function;
};

} // namespace zelStream
