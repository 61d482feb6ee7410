// An instrument in a library of its own. The program does not know the class: archives name it, and the
// library is found by the namespace.
#include "Rover.h"

#include <zelStream/InputArchive.h>
#include <zelStream/OutputArchive.h>

namespace instruments {

class Spectrometer : public mission::Instrument {
    ZEL_SERIALIZABLE(Spectrometer)

public:
    [[nodiscard]] std::string describe() const override {
        return "spectrometer of " + std::to_string(m_sensitivity.size()) + " channels";
    }
    void store(zelStream::OutputArchive& archive) const override { archive.write(m_sensitivity); }
    void restore(zelStream::InputArchive& archive) override { archive.read(m_sensitivity); }

private:
    zel::Vector<double> m_sensitivity = zel::Vector<double>(512, 0.5);
};

ZEL_REGISTER_SERIALIZABLE(Spectrometer)

} // namespace instruments
