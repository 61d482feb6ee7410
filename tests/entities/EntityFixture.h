#pragma once

#include <zel/Object.h>
#include <zel/Path.h>
#include <zel/ref_ptr.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityStorage.h>

#include <gtest/gtest.h>
#include <support/LogCapture.h>
#include <support/ModelFiles.h>
#include <support/WhatOf.h>
#include <tinyxml.h>

#include <memory>
#include <string>
#include <vector>

namespace zelTest {

/// Model files of entities.
class EntityFixture : public ModelFiles {
protected:
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

    std::vector<std::unique_ptr<TiXmlDocument>> documents;
};

} // namespace zelTest
