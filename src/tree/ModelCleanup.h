#pragma once

#include <zel/Singleton.h>

namespace zel {

/// Ends the model tree at the library's shutdown: lets each model clean up, parents first, and releases the
/// tree.
class ModelCleanup : public Singleton {
public:
    /// Made with the tree. The caller holds the type-system mutex.
    static void ensure();

    void shutdown() override;
    [[nodiscard]] std::string getClassName() const override;

private:
    ModelCleanup();
    static ModelCleanup* s_instance;
};

/// Forgets which model files have been read.
void forgetModelFiles();

} // namespace zel
