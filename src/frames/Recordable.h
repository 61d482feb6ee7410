#pragma once

#include <zel/Component.h>
#include <zel/Integers.h>
#include <zel/Path.h>
#include <zel/String.h>
#include <zel/Vector.h>

namespace zelData {

class Format;

/// What an object of a live tree is to frames.
enum class RecordKind : zel::uint8 {
    None,    ///< no data: tasks' jobs, parameters, views
    Omitted, ///< data that no frame can hold
    Value,
    Buffer,
    Storage,
    Component ///< with all below it
};

struct Recordable {
    RecordKind kind = RecordKind::None;
    const Format* format = nullptr; ///< of values and buffers
    zel::String reason;             ///< why it is omitted
};

/// @param parent  the component whose child the object is; null for one that is looked at by itself
[[nodiscard]] Recordable recordableOf(zel::Component* parent, zel::Object* object);

/// Enters "'PATH' is not VERB: REASON", with a warning, unless the list has it.
void noteOmission(zel::Vector<zel::String>& list,
                  const zel::Path& path,
                  const char* verb,
                  const zel::String& reason);

} // namespace zelData
