#pragma once

#include "TempDirectory.h"

#include <zelCore/zelCore.h>
#include <zelIO/Environment.h>
#include <zelIO/FilePathContainer.h>

#include <gtest/gtest.h>

namespace zelTest {

/// Starts the library, with a folder of model files of the test's own ahead of all others.
class ModelFiles : public testing::Test {
protected:
    void SetUp() override {
        zelCore::init();
        zelIO::Environment::instance()
            ->getFilePath(zelIO::Environment::PluginPath)
            .pushfrontPath(directory.path());
    }
    void TearDown() override { zelCore::shutdown(); }

    TempDirectory directory;
};

} // namespace zelTest
