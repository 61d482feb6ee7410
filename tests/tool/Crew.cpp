#include "Crew.h"

#include <zelStream/InputArchive.h>
#include <zelStream/OutputArchive.h>

namespace crew {

ZEL_REGISTER_SERIALIZABLE(Sailor)
ZEL_REGISTER_SERIALIZABLE(Ship)

void Sailor::store(zelStream::OutputArchive& archive) const {
    archive.addAttribute("name", name);
    archive.write(age);
    archive.write(mate);
}

void Sailor::restore(zelStream::InputArchive& archive) {
    archive.getAttribute("name", name);
    archive.read(age);
    archive.read(mate);
}

void Ship::store(zelStream::OutputArchive& archive) const {
    archive.write(isAfloat);
    archive.write(deck);
    {
        const zelStream::Archive::ScopedSection section(archive, "log");
        archive.write(log);
    }
    archive.write(captain);
    archive.write(cook.get());
    archive.write(tender.get());
}

void Ship::restore(zelStream::InputArchive& archive) {
    archive.read(isAfloat);
    archive.read(deck);
    {
        const zelStream::Archive::ScopedSection section(archive, "log");
        archive.read(log);
    }
    archive.read(captain);
    archive.read(cook);
    archive.read(tender);
}

} // namespace crew
