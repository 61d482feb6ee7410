#pragma once

#include <zel/ref_ptr.h>
#include <zelStream/Serializable.h>
#include <zelStream/StorageAgent.h>

#include <string>
#include <vector>

// Classes that the tool knows from a library of their namespace alone.

namespace crew {

class Sailor : public zelStream::Serializable {
    ZEL_SERIALIZABLE(Sailor)

public:
    void store(zelStream::OutputArchive& archive) const override;
    void restore(zelStream::InputArchive& archive) override;

    std::string name;
    zel::int32 age = 0;
    Sailor* mate = nullptr; ///< not held, for it may be the sailor himself
};

class Ship : public zelStream::Serializable {
    ZEL_SERIALIZABLE(Ship)

public:
    void store(zelStream::OutputArchive& archive) const override;
    void restore(zelStream::InputArchive& archive) override;

    bool isAfloat = true;
    char deck = 'A';
    std::vector<double> log;
    Sailor captain;
    zel::ref_ptr<Sailor> cook;
    zel::ref_ptr<Ship> tender;
};

} // namespace crew
