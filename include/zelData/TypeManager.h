#pragma once

#include <zel/Export.h>
#include <zel/Singleton.h>

namespace zelData {

/// Gives the type registry its place among the services: it goes when all that use types are gone, and ahead
/// of the model tree.
/// @threads initialize and isInitialized any thread
class ZEL_CORE_API TypeManager : public zel::Singleton {
public:
    /// Created on first use.
    [[nodiscard]] static TypeManager* instance();
    /// Creates the service and the formats of all types, unless that has happened.
    static void initialize();
    [[nodiscard]] static bool isInitialized();

    /// Empties the registry. The types and formats themselves stay allocated until the process ends: values
    /// and columns that outlive the registry still refer to them.
    void shutdown() override;
    [[nodiscard]] std::string getClassName() const override;
    ~TypeManager() override;

private:
    TypeManager();

    static TypeManager* s_instance; // guarded by the type-system mutex
};

} // namespace zelData
