#pragma once

#include <zel/Callback.h>
#include <zel/Component.h>
#include <zel/Export.h>
#include <zel/LockRank.h>
#include <zel/Path.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelIO/Environment.h>

#include <atomic>

namespace zel {

class Namespace;
struct ModelFile;

/// The description of a class or data type at run time. Models form a tree of namespaces, and link to the
/// model that they inherit from, their source. A model is built into the library (a class model) or comes
/// from a file. All models live until the library's shutdown.
/// @threads any thread: changes and look-ups of the model tree lock the type-system mutex
class ZEL_CORE_API Model : public Component {
public:
    class Loader;

    /// @param source  the model that this one inherits from; kept alive; may be null
    Model(const Name& name, Model* source);
    /// @param implementationName  names the class that implements the model
    Model(const Name& name, const Name& implementationName);
    ~Model() override;

    /// Adds "source" and "sourcePath" to the component's description.
    void buildNavigationTree(Json::Value& json) const override;

    /// The namespace "Root", the top of the model tree.
    [[nodiscard]] static Namespace* root();
    [[nodiscard]] static Model* ClassModel();

    [[nodiscard]] Model* getSource() const noexcept { return m_source.get(); }
    /// Refused, as a failed verification, if this model is the source or one that the source inherits from.
    void setSource(Model* source);
    /// Whether the model inherits from the other one.
    [[nodiscard]] bool hasSource(const Model* model) const;
    /// Whether the model is the other one or inherits from it.
    [[nodiscard]] bool is(const Model* model) const;

    [[nodiscard]] const Name& getImplementationName() const noexcept { return m_implementationName; }
    void setImplementationName(const Name& name) { m_implementationName = name; }
    /// The file that the model came from; empty for class models.
    [[nodiscard]] const String& getSourcePath() const noexcept { return m_sourcePath; }
    /// The row of that file in which the model's element begins; 0 if that is not known.
    [[nodiscard]] int getSourceRow() const noexcept { return m_sourceRow; }
    void setSourcePath(const String& path, int row = 0) {
        m_sourcePath = path;
        m_sourceRow = row;
    }

    /// The names of the namespaces and the model, joined by ":".
    [[nodiscard]] String fullName() const;
    /// The names of the namespaces and the model, joined by ".".
    [[nodiscard]] String fullPath() const { return getPath().str(); }
    /// The names of the model and those it inherits from, joined by " -> ".
    [[nodiscard]] String fullInheritancePath() const;

    /// Makes the class model of a class on first use.
    /// @param path  namespaces and name, such as "zel.Component"
    /// @param base  the class model of the base class; may be null
    /// @param slot  where the class keeps its model; cleared when the model tree ends
    static Model* createBuiltinModel(const Path& path, Model* base, std::atomic<Model*>& slot);
    /// The same for a class without a base that is known by its implementation: the last part of the path.
    static Model* createImplementedModel(const Path& path, std::atomic<Model*>& slot);
    /// Makes a model in a namespace, which is made where it is missing.
    static Model* createModel(const Path& path, const Name& name, Model* base);

    /// Finds a model in the tree, or in a model file of the search paths.
    /// @param path    the namespace
    /// @param parent  the model that the result must be or inherit from; null for any
    /// @return null if there is none; a file that cannot be read is a warning
    [[nodiscard]] static Model* getModel(const Path& path, const Name& name, Model* parent = nullptr);
    /// The same by the full path.
    [[nodiscard]] static Model* getModel(const String& path);
    [[nodiscard]] static Model* getModel(const char* path);
    /// The model that an element describes: of a top-level element of a model file the one that was made from
    /// it, of an element with a source that of the source, of others Component::ClassModel().
    [[nodiscard]] static Model* getModel(TiXmlElement* element);

    using Object::getModel;

    /// Loads a model file and gives the model of the file's name; null, with a warning, on failure.
    /// @throws std::runtime_error with file and row for bad content, also if another file has made a model of
    /// that path
    [[nodiscard]] static Model* getModelFromFile(const String& file);

    /// The model path of a file: "A.B" for ".../Components/zel/A/B.zelComponent", and for "A/B.zelComponent"
    /// in a search directory of the type. Links are not followed: the place counts, not what lies there.
    /// Empty, with a warning, if the name has no extension or the file lies in no such place.
    [[nodiscard]] static Path getPath(const String& file,
                                      zelIO::Environment::Type type = zelIO::Environment::PluginPath);
    /// The namespace in which the models of the element's document live: the file's path without its last
    /// part. Empty for a document that lies in no such place.
    [[nodiscard]] static Path getPath(TiXmlElement* element,
                                      zelIO::Environment::Type type = zelIO::Environment::PluginPath);
    /// The path of a model of that namespace.
    [[nodiscard]] static Path getPath(TiXmlElement* element,
                                      const Name& name,
                                      zelIO::Environment::Type type = zelIO::Environment::PluginPath);
    using Component::getPath;

    /// The namespace of a path; null if it does not exist.
    [[nodiscard]] static Namespace* getNamespace(const Path& path);
    /// The namespace of the element's document; null if it does not exist.
    [[nodiscard]] static Namespace* getNamespace(TiXmlElement* element);
    /// Makes the missing namespaces of a path.
    static Namespace* getOrCreateNamespace(const Path& path);
    /// Finds a model that an element names: first in the namespace of its document, then by the full path.
    /// The files beside the document come ahead of those of the search paths.
    [[nodiscard]] static Model* findSource(TiXmlElement* element, const String& source);
    /// Splits "a.b.Name" or "a:b:Name" into namespace and name.
    static void parsePathString(const String& text, Path& path, Name& name);

    /// Finds the file of a model path: the longest prefix of the path that is a file with the extension.
    /// @param result     the file
    /// @param remainder  the rest of the path, which names an object inside the file
    /// @param category   the file extension, such as "zelComponent"
    [[nodiscard]] static bool
    getDiskPath(const Path& path, String& result, Path& remainder, const String& category);
    /// The same, where the folder of the element's document comes ahead of the search paths.
    [[nodiscard]] static bool getDiskPath(const Path& path,
                                          String& result,
                                          Path& remainder,
                                          TiXmlElement* element,
                                          zelIO::Environment::Type type,
                                          const String& category);
    /// The folder in which the models of the element's document are looked for: the one above "Components",
    /// or the search directory of the type. Empty, with a warning, if the document lies in no such place.
    [[nodiscard]] static String
    getFileSystemRoot(TiXmlElement* element, zelIO::Environment::Type type = zelIO::Environment::PluginPath);

    /// Ends the life of the model: runs the cleanup that a generated class has left here, once.
    void tagShutdown();
    void setShutdownCleanup(const Callback& cleanup) { m_shutdownCleanup = cleanup; }

private:
    friend class Object;
    friend class Component;
    friend class Namespace;
    friend class ModelCleanup;

    /// The classes whose models describe each other: they are made together, with the tree itself.
    enum class CoreClass : uint32 { Object, Component, Model, Namespace };
    static Model* classModel(CoreClass coreClass);
    static void makeTree();
    static Model* internal_getModel(const Path& path, const Name& name, TiXmlElement* element = nullptr);
    static Model* findInTree(const Path& path, const Name& name);
    static void loadModelFile(const ModelFile& source);
    static void registerModel(Model* model, Namespace* space);
    using SlotTable = HashTable<Model*, std::atomic<Model*>*>;
    static SlotTable& getReverseBuiltinModelTable();

    ref_ptr<Model> m_source;
    Name m_implementationName;
    String m_sourcePath;
    int m_sourceRow = 0;
    Callback m_shutdownCleanup;
};

/// Knows how to make models from the top-level elements of a tag. A static object: it enters itself in a
/// table by its tag, and a tag may be entered once.
class ZEL_CORE_API Model::Loader {
public:
    /// @param fileExtension  the files in which such models live, without the dot
    Loader(const char* tag, const char* fileExtension);
    Loader(const Loader&) = delete;
    Loader& operator=(const Loader&) = delete;
    virtual ~Loader() = default;

    /// @param path  the namespace of the file
    /// @return a new model without owner; null for an element that refers to a model elsewhere
    /// @throws std::runtime_error with file and row
    virtual Model* load(TiXmlElement* element, const Path& path) = 0;

    [[nodiscard]] const char* getName() const noexcept { return m_tag; }
    [[nodiscard]] const char* getFileExtension() const noexcept { return m_fileExtension; }
    /// Makes the loader responsible for a further tag.
    void addAlias(const char* tag);

private:
    const char* m_tag;
    const char* m_fileExtension;
};

/// Guards the type registry and the model tree; recursive.
[[nodiscard]] ZEL_CORE_API TypeSystemMutex& getTypeSystemMutex();

} // namespace zel

namespace zelData::detail {
/// The same mutex.
[[nodiscard]] ZEL_CORE_API zel::TypeSystemMutex& getTypeSystemMutex();
} // namespace zelData::detail
