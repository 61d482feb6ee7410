#pragma once

#include <zel/Export.h>
#include <zel/ServicePointer.h>
#include <zel/Singleton.h>
#include <zel/String.h>

namespace zelIO {

using zel::String;

/// Turns resource names, such as "particles.gravity.Attract", into paths of files.
/// @threads any thread, while the search paths of Environment do not change
class ZEL_CORE_API ResourceManager : public zel::Singleton {
public:
    [[nodiscard]] static ResourceManager* instance();

    void shutdown() override;
    [[nodiscard]] std::string getClassName() const override;
    ~ResourceManager() override;

    /// Each "." of the resource becomes a separator and the file type is appended; the file is looked for in
    /// the plug-in path and then in the resource path.
    /// @param fileType  with its point, such as ".zelTask"
    /// @return empty, with a warning, if it is not found
    [[nodiscard]] String getFileSystemPath(const String& resource, const String& fileType) const;

    /// The same for a plug-in: "a.b.Name" is looked for as "a/b/libName.so".
    [[nodiscard]] String getPluginFileSystemPath(const String& resource) const;

private:
    ResourceManager();

    static zel::ServicePointer<ResourceManager> s_instance;
};

} // namespace zelIO
