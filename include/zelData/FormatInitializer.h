#pragma once

#include <zel/Export.h>

namespace zelData {

/// Knows how to create the formats of one type. A static object: it enters itself in a table by the name of
/// the type, and a name may be entered once.
///
///     void createColourFormats() {
///         Type* type = getOrCreateType("Colour");
///         type->addFormat(new FormatT<Colour>("default"), true);
///     }
///     const FormatInitializer s_colour("Colour", &createColourFormats);
///
/// The create function makes the type and all its formats first. Then it registers transformers, and may look
/// up formats of other types by their full names, which are created on the spot if they are not yet there.
/// @threads static initialisation; the type-system mutex guards the table
class ZEL_CORE_API FormatInitializer {
public:
    using CreateFunction = void (*)();

    /// If the formats of all types have been created already, as for a plug-in, this type's are created now.
    /// @param name  must outlive the object
    FormatInitializer(const char* name, CreateFunction createFunction);
    FormatInitializer(const FormatInitializer&) = delete;
    FormatInitializer& operator=(const FormatInitializer&) = delete;
    /// Leaves the table; the formats stay.
    ~FormatInitializer();

    /// Runs the create function, unless it has run.
    void init();

    /// The initialiser of a type; null if there is none.
    [[nodiscard]] static FormatInitializer* find(const char* name);
    /// Runs all initialisers, in slot order of the table. A nested call does nothing.
    static void createFormats();
    /// Whether createFormats is at work.
    [[nodiscard]] static bool isCreatingFormats();
    /// Lets go of all default values, forgets what formats consist of, and makes the initialisers ready to
    /// run again.
    static void removeFormats();

private:
    const char* m_name;
    CreateFunction m_createFunction;
    bool m_initialized = false;
};

} // namespace zelData
