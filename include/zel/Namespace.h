#pragma once

#include <zel/Component.h>
#include <zel/Export.h>

namespace zel {

/// A directory in the model tree.
class ZEL_CORE_API Namespace : public Component {
public:
    explicit Namespace(const Name& name);

    /// As Component's; a unique match is completed to its path.
    void autoComplete(const String& text, Vector<String>& list) override;

    [[nodiscard]] static Model* ClassModel();
};

} // namespace zel
