#pragma once

#include <zel/Path.h>
#include <zel/Xml.h>

namespace zel {

class Object;

/// Finds what a path means to an object; null if there is nothing.
using FindByPath = Object* (*)(Object& object, const Path& path);

/// Remembers that an attribute of a model file gives the object a path. What it leads to may come later, so
/// that it is looked for once, when the tree stands: at the first tick of a clock in it, or when somebody
/// rebinds an object of the system's root.
/// @param find  how the object looks; null for any object in scope
/// @threads Does nothing but on the main thread: trees that others load are not looked at.
void notePath(Object& object,
              const TiXmlElement* element,
              const char* attribute,
              const Path& path,
              FindByPath find = nullptr);

/// The same for each path in an expression, such as "@a.b" or "Math.Add(@a, @b)".
void notePathsOf(Object& object, const TiXmlElement* element, const char* attribute);

/// Warns, with file and row, of the noted paths of the tree that lead nowhere, each row once. Costs nothing
/// while there is nothing new.
/// @param object  any object of the tree
/// @threads the main thread; others do nothing
void warnOfLostPaths(Object& object);

} // namespace zel
