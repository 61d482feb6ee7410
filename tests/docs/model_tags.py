#!/usr/bin/env python3
"""Compares the tables of docs/model-files.md with what the loaders read: model_tags.py SOURCE_DIRECTORY

Fails for a tag or an attribute that stands in only one of the two, for a source that reads attributes and is in no
group below, and where the list behind the warnings of misspelt attributes tells otherwise than the page.
"""
import pathlib
import re
import sys

# The tags that a group of sources reads the attributes of.
GROUPS = [
    ({"Component", "Object"}, ["src/tree/ComponentXml.cpp", "src/tree/Object.cpp"]),
    ({"Device"}, ["src/tree/Device.cpp"]),
    ({"Value"}, ["src/data/ValueXml.cpp", "src/data/TypeRegistry.cpp"]),
    ({"Buffer"}, ["src/data/BufferFile.cpp", "src/data/TypeRegistry.cpp"]),
    ({"Entity.Storage"}, ["src/entities/EntityStorageXml.cpp"]),
    (
        {"Entity.Model", "Entity", "Shared.Buffer", "Shared.Storage"},
        ["src/entities/EntityModelXml.cpp", "src/data/TypeRegistry.cpp"],
    ),
    (
        {"Attribute", "Attribute.Scalar", "Attribute.Array", "Attribute.Vector", "Attribute.HashSet"},
        ["src/entities/ScalarAttribute.cpp", "src/data/TypeRegistry.cpp"],
    ),
    ({"Attribute.Pointer"}, ["src/entities/PointerAttribute.cpp"]),
    ({"Attribute.Shared"}, ["src/entities/SharedAttribute.cpp", "src/data/TypeRegistry.cpp"]),
    (
        {
            "Parameter.Scalar",
            "Parameter.Array",
            "Parameter.Pointer",
            "Parameter.EntityData",
            "Parameter.EntityPtr",
            "Parameter.EntityInstance",
            "Parameter.Unresolved",
        },
        [
            "src/engine/Parameter.cpp",
            "src/engine/ScalarParameter.cpp",
            "src/engine/ArrayParameter.cpp",
            "src/engine/EntityHandleParameter.cpp",
            "src/engine/UnresolvedParameter.cpp",
            "src/data/TypeRegistry.cpp",
        ],
    ),
    ({"Parameter.HashTable"}, ["src/engine/HashTableComponent.cpp"]),
    ({"Pointer"}, ["src/engine/Pointer.cpp"]),
    ({"Clock", "Event"}, ["src/engine/ClockXml.cpp"]),
    ({"Recorder", "DataBinding"}, ["src/frames/RecorderXml.cpp", "src/frames/FrameIOBindings.cpp"]),
    ({"RandomGenerator"}, ["src/data/RandomGenerator.cpp"]),
    (
        {"Task", "TaskGroup", "Init", "dependency", "Argument", "Storage", "HashTable"},
        [
            "src/engine/TaskXml.cpp",
            "src/engine/TaskGroupXml.cpp",
            "src/engine/UnresolvedTaskXml.cpp",
            "src/engine/UnresolvedTaskResolve.cpp",
        ],
    ),
    (
        {"Kernel", "Kernel.Scalar", "SolveKernel"},
        ["src/engine/Kernel.cpp", "src/engine/KernelXml.cpp", "src/engine/TaskManager.cpp"],
    ),
]
# Read by the names of an object's own values.
BY_NAME = {"src/engine/Kernel.cpp": {"numJobsPerThread", "minJobSize", "maxJobSize", "costPerElement"}}
# The attributes of another group, which the source looks at in passing.
ELSEWHERE = {"src/engine/TaskManager.cpp": {"implementation"}}
# Read by the common door, of any element.
ANYWHERE = {"instance"}
# Tags without attributes of their own.
BARE_TAGS = {"description"}
# They read other files than models, or are the helpers that the loaders read with.
OTHER_SOURCES = {"src/tree/KnownAttributes.cpp", "src/tree/ModelFiles.cpp", "src/tree/XmlLoader.cpp", "src/data/ExpressionCheck.cpp", "src/entities/EntityXml.cpp", "src/entities/TypeMap.cpp", "src/frames/FrameXml.cpp", "src/frames/SessionHeader.cpp"}
# `type` may be written as `value` where getFormat reads the element; nobody should.
UNTOLD = {"src/data/TypeRegistry.cpp": {"value"}}

# The list behind the warnings. What binds a parameter in a task may have all of the parameter's attributes; a task with
# a source takes those of a kernel, and a clock is a task.
KNOWN = "src/tree/KnownAttributes.cpp"
BINDING_TAGS = {"Value", "Buffer", "Pointer", "Storage", "HashTable", "EntityPtr", "EntityInstance"}
BINDING_ATTRIBUTES = set("name type format mode value bind source task required localSize".split())
CHILD_ONLY = {
    **dict.fromkeys(("Task", "Init"), {"bind", "task", "value", "type"}),
    **dict.fromkeys(("Kernel", "Kernel.Scalar", "SolveKernel"), {"type", "required", "bind"}),
}
NOT_IN_TABLE = {"Parameter", "EntityPtr", "EntityInstance"}

ATTRIBUTE = re.compile(r'(?:->|\.)Attribute\((?:std::string\()?"([^"]+)"|(?:parseAttribute<[^>]*>\(|takePath\(\s*\*this, )[^,()]+, "([^"]+)"')
TAG = re.compile(r'XmlLoaderRegistrator\s+\w+\(\s*"([^"]+)"|\bLoader\("([^"]+)"|addAlias\("([^"]+)"|\b(?:tag|ValueStr\(\)) == "([^"]+)"')


def table(page):
    """The attributes of each tag."""
    tags = {}
    aliases = {}
    current = []
    for line in page.read_text().splitlines():
        cells = [cell.strip() for cell in line.split("|")[1:-1]] if line.startswith("|") else []
        if len(cells) != 3 or set(cells[0]) <= set("-") and cells[0] or cells[0] == "tag":
            continue
        if cells[0]:
            current = re.findall(r"`([^`]+)`", cells[0])
            for tag in current:
                tags.setdefault(tag, set())
        attributes = re.findall(r"`([^`]+)`", cells[1])
        for tag in current:
            if cells[1].startswith("as "):
                aliases[tag] = attributes[0]
            else:
                tags[tag].update(attributes)
    for tag, other in aliases.items():
        tags[tag] |= tags[other]
    return tags


def read_attributes(text):
    return {first or second for first, second in ATTRIBUTE.findall(text)}


def known_attributes(text):
    """The list of the library: the attributes of each tag."""
    lists = {name: "".join(re.findall(r'"([^"]*)"', value))
             for name, value in re.findall(r"constexpr std::string_view (\w+) =([^;]*);", text)}
    entries = re.search(r"KnownTags\[\] = \{(.*?)\n\};", text, re.S).group(1)
    return {tag: set((lists[name] if name else "".join(re.findall(r'"([^"]*)"', literal))).split())
            for tag, name, literal in re.findall(r'\{"([^"]+)",\s*(?:(\w+)|((?:"[^"]*"\s*)+))\}', entries)}


def compare_known(told, known):
    for tag in sorted(set(told) - BARE_TAGS - {"Argument"} - set(known)):
        yield f"the tag '{tag}' is not in {KNOWN}"
    for tag in sorted(set(known) - NOT_IN_TABLE - set(told)):
        yield f"the tag '{tag}' is in {KNOWN} and not in the table"
    for tag in sorted(set(known) & set(told)):
        wanted = told[tag] - CHILD_ONLY.get(tag, set()) - ANYWHERE
        for attribute in sorted(wanted - known[tag]):
            yield f"'{attribute}' of '{tag}' is in the table and not in {KNOWN}"
        allowed = wanted | (BINDING_ATTRIBUTES if tag in BINDING_TAGS else set())
        if tag in CHILD_ONLY:
            allowed |= told["Kernel"] | told["Task"]
        if tag in ("Clock", "TaskGroup"):
            allowed |= told["Task"]
        for attribute in sorted(known[tag] - allowed):
            yield f"'{attribute}' of '{tag}' is in {KNOWN} and not in the table"


def main(directory):
    root = pathlib.Path(directory)
    told = table(root / "docs/model-files.md")
    sources = {
        str(path.relative_to(root)): path.read_text()
        for folder in ("src", "include")
        for path in sorted((root / folder).rglob("*.[ch]*"))
    }
    problems = []
    grouped = {source for _, files in GROUPS for source in files}
    for source, text in sources.items():
        if read_attributes(text) and source not in grouped | OTHER_SOURCES:
            problems.append(f"{source} reads attributes and is in no group")
    for tags, files in GROUPS:
        read = set()
        for source in files:
            read |= read_attributes(sources[source]) - UNTOLD.get(source, set()) - ELSEWHERE.get(source, set())
            read |= BY_NAME.get(source, set())
        listed = set().union(*(told.get(tag, set()) for tag in tags))
        for attribute in sorted(read - listed - ANYWHERE):
            problems.append(f"{', '.join(sorted(tags))}: '{attribute}' is read and not in the table")
        for attribute in sorted(listed - read - ANYWHERE):
            problems.append(f"{', '.join(sorted(tags))}: '{attribute}' is in the table and not read")
    known = {tag for text in sources.values() for match in TAG.findall(text) for tag in match if tag} | BARE_TAGS | {"Object"}
    for tag in sorted(known - told.keys()):
        problems.append(f"the tag '{tag}' is not in the table")
    for tag in sorted(told.keys() - known):
        problems.append(f"the tag '{tag}' is in the table, and nothing loads it")
    for tag in sorted(told.keys() - BARE_TAGS - {tag for tags, _ in GROUPS for tag in tags}):
        problems.append(f"the tag '{tag}' is in no group")
    problems += compare_known(told, known_attributes(sources[KNOWN]))
    sys.exit("\n".join(problems) or 0)


if __name__ == "__main__":
    main(*sys.argv[1:])
