#pragma once

#include <zel/Export.h>
#include <zel/ServicePointer.h>
#include <zel/Singleton.h>
#include <zelIO/FilePathContainer.h>

#include <array>

namespace zelIO {

/// The directories in which the system looks for data files, plug-ins and component sources. They come from
/// the source tree that the library was built from, while it lies in its build tree; from ZEL_FILE_PATH,
/// ZEL_PLUGIN_PATH and ZEL_COMPONENT_DEV_PATH, which are read when the service is created; and last, for an
/// installed library, from share/zelCore beside it, wherever the package was put.
/// @threads concurrent reads; changing a container needs an external lock
class ZEL_CORE_API Environment : public zel::Singleton {
public:
    enum Type {
        ResourcePath = 0,             ///< data files; ZEL_FILE_PATH
        PluginPath = 1,               ///< plug-ins and components; ZEL_PLUGIN_PATH
        ComponentDevelopmentPath = 2, ///< sources of components; ZEL_COMPONENT_DEV_PATH
    };
    static constexpr size_t NumTypes = 3;

    [[nodiscard]] static Environment* instance();

    void shutdown() override;
    [[nodiscard]] std::string getClassName() const override;
    ~Environment() override;

    [[nodiscard]] FilePathContainer& getFilePath(Type type);
    [[nodiscard]] const FilePathContainer& getFilePath(Type type) const;

    /// Looks for the file, and then for it below "Components/zel/", in the plug-in path.
    /// @return empty if it is not found
    [[nodiscard]] String findComponent(const String& file) const;

    /// Does nothing on this platform, which has no registry.
    void setupFromRegistry();

private:
    Environment();

    std::array<FilePathContainer, NumTypes> m_filePaths;

    static zel::ServicePointer<Environment> s_instance;
};

} // namespace zelIO
