#pragma once

#include <zel/Object.h>
#include <zel/Path.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityStorage.h>
#include <zelIO/Environment.h>
#include <zelIO/FilePathContainer.h>

#include <gtest/gtest.h>
#include <support/LogCapture.h>
#include <support/TempDirectory.h>
#include <tinyxml.h>

#include <exception>
#include <memory>
#include <string>
#include <vector>

namespace zelTest {

/// Starts the library, with a folder of model files of the test's own.
class EntityFixture : public testing::Test {
protected:
    void SetUp() override {
        zelCore::init();
        zelIO::Environment::instance()
            ->getFilePath(zelIO::Environment::PluginPath)
            .pushfrontPath(directory.path());
    }
    void TearDown() override { zelCore::shutdown(); }

    /// Writes Components/zel/NAME.zelEntity.
    std::string write(const std::string& name, const std::string& content) {
        return directory.write("Components/zel/" + name + ".zelEntity", content);
    }
    /// Writes an entity of the attributes and loads it.
    zelData::EntityModel*
    entity(const std::string& name, const std::string& attributes = "", const std::string& flags = "") {
        write(name, "<Entity.Model name='" + name + "' " + flags + ">" + attributes + "</Entity.Model>");
        return zelData::getEntity(zel::Path(name));
    }

    /// The root element of a text, which lives as long as the test.
    zel::TiXmlElement* parse(const std::string& text) {
        documents.push_back(std::make_unique<TiXmlDocument>());
        documents.back()->Parse(text.c_str());
        EXPECT_FALSE(documents.back()->Error()) << documents.back()->ErrorDesc();
        return documents.back()->RootElement();
    }

    /// What a failing call throws.
    template <typename Call>
    std::string failure(const Call& call) {
        try {
            call();
        } catch (const std::exception& error) {
            return error.what();
        }
        return "no exception";
    }

    TempDirectory directory;
    std::vector<std::unique_ptr<TiXmlDocument>> documents;
};

} // namespace zelTest
