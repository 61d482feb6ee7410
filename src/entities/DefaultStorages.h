#pragma once

#include <zel/Singleton.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelData/EntityStorage.h>

#include <string>

namespace zelData {

class EntityModel;

/// Keeps the default storages of all threads, which outlive their threads, and ends them at the library's
/// shutdown, while types and models still live.
/// @threads any thread; shutdown owner thread
class DefaultStorageSingleton : public zel::Singleton {
public:
    /// The default storage of a model for the calling thread.
    [[nodiscard]] static EntityStorage* get(EntityModel* model);
    /// Makes a storage of the default capacity and keeps it.
    [[nodiscard]] static EntityStorage* create(EntityModel* model);

    void shutdown() override;
    [[nodiscard]] std::string getClassName() const override;
    ~DefaultStorageSingleton() override;

private:
    DefaultStorageSingleton();

    static DefaultStorageSingleton* s_instance;                  // guarded by the type-system mutex
    zel::Vector<zel::ref_ptr<EntityStorage>> m_retainedStorages; // guarded by the type-system mutex
    zel::Vector<zel::ref_ptr<EntityModel>> m_models; // that have a storage for threads from outside
};

} // namespace zelData
