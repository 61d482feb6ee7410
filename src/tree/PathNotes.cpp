#include "PathNotes.h"

#include "PathHint.h"
#include "XmlPlace.h"

#include <zel/Component.h>
#include <zel/HashTable.h>
#include <zel/InitCallback.h>
#include <zel/Log.h>
#include <zel/Thread.h>
#include <zel/Vector.h>
#include <zel/observer_ptr.h>

#include <tinyxml.h>

#include <algorithm>
#include <cctype>
#include <string_view>
#include <utility>

namespace zel {

namespace {

struct Note {
    observer_ptr<Object> object;
    Name file;
    int row;
    const char* attribute;
    Path path;
    FindByPath find;
};

/// Of the main thread alone.
struct Notes {
    Vector<Note> notes;
    size_t sweepAt = 1024;                  ///< from that number on the notes of dead objects are let go
    uint64 number = 0;                      ///< of notes that have been made
    HashTable<const Object*, uint64> trees; ///< how many there were when a tree was looked at
};

Notes& allNotes() {
    static auto& notes = *new Notes;
    return notes;
}

ZEL_SHUTDOWN_CALLBACK {
    allNotes() = Notes();
}

bool isMainThread() {
    const Thread* const thread = Thread::getCurrentThread();
    return thread != nullptr && thread->getId() == 0;
}

/// As Path::Separator and the characters of names; a path in an expression ends ahead of any other.
bool isOfPath(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == Path::Separator || c == ':';
}

void sweep(Notes& all) {
    if (all.notes.size() < all.sweepAt)
        return;
    Vector<Note> kept;
    for (const Note& note : all.notes)
        if (note.object)
            kept.push_back(note);
    all.notes = std::move(kept);
    all.trees.clear();
    all.sweepAt = std::max<size_t>(1024, 2 * all.notes.size());
}

} // namespace

void notePath(
    Object& object, const TiXmlElement* element, const char* attribute, const Path& path, FindByPath find) {
    if (path.empty() || !isMainThread())
        return;
    Notes& all = allNotes();
    sweep(all);
    ++all.number;
    const TiXmlDocument* const document = element->GetDocument();
    all.notes.push_back({observer_ptr<Object>(&object),
                         document == nullptr ? Name() : Name(document->ValueStr()),
                         element->Row(),
                         attribute,
                         path,
                         find});
}

void notePathsOf(Object& object, const TiXmlElement* element, const char* attribute) {
    const char* const expression = element->Attribute(attribute);
    const std::string_view text(expression == nullptr ? "" : expression);
    for (size_t at = text.find('@'); at != std::string_view::npos; at = text.find('@', at + 1)) {
        const auto* const end = std::find_if_not(text.begin() + at + 1, text.end(), isOfPath);
        notePath(object, element, attribute, Path(std::string(text.begin() + at + 1, end)));
    }
}

void warnOfLostPaths(Object& object) {
    Notes& all = allNotes();
    if (!isMainThread() || all.notes.empty())
        return;
    const Object* const top = object.getRootContext();
    const auto tree = all.trees.find(top);
    if (tree != all.trees.end() && tree->value == all.number)
        return;
    all.trees.insert(top, all.number);
    Vector<Note> kept;
    const Vector<Note> notes = std::exchange(all.notes, Vector<Note>());
    for (const Note& note : notes) {
        if (!note.object)
            continue;
        if (note.object->getRootContext() != top) {
            kept.push_back(note);
            continue;
        }
        Object* const target = note.find == nullptr ? note.object->getAutoScopedResource(note.path)
                                                    : note.find(*note.object, note.path);
        const String place = String::format("row %d: %s %s", note.row, note.attribute, note.path.c_str());
        if (target == nullptr && isNewMessage(note.file.str(), place))
            ZEL_LOG_WARNING("In file '" << note.file << "', row " << note.row << ": the path '" << note.path
                                        << "' of the attribute '" << note.attribute << "' of '"
                                        << note.object->getPath() << "' leads nowhere"
                                        << hintOfPath(note.object->getContext(), note.path));
    }
    for (const Note& note : all.notes) // made meanwhile
        kept.push_back(note);
    all.notes = std::move(kept);
    if (all.notes.empty())
        all.trees.clear(); // another tree may come to lie where one of them was
}

} // namespace zel
