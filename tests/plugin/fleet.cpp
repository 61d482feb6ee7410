#include <zelStream/InputArchive.h>
#include <zelStream/OutputArchive.h>
#include <zelStream/StorageAgent.h>
#include <zelStream/StorageManager.h>

// A library whose classes archives know: it bears the name of their namespace.

namespace fleet {

class Truck final : public zelStream::Serializable {
    ZEL_SERIALIZABLE(Truck)

public:
    void store(zelStream::OutputArchive& archive) const override { archive.write(m_load); }
    void restore(zelStream::InputArchive& archive) override { archive.read(m_load); }

private:
    double m_load = 0;
};

ZEL_REGISTER_SERIALIZABLE(Truck)

} // namespace fleet
