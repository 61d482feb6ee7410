#pragma once

#include "RawHttp.h"
#include "support/LogCapture.h"
#include "support/ModelFiles.h"
#include "support/StreamCapture.h"

#include <zel/Component.h>
#include <zelIO/RemoteCommandServer.h>

#include <gmock/gmock.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

namespace zelTest {

/// What all answers of routes begin with.
inline const std::string RouteHead = "HTTP/1.1 200 OK\r\nContent-Type: text/json\r\n\r\n";

/// The command server of the process, which serves the page of a folder of the test's own and looks at the
/// component "root".
class CommandServerFixture : public ModelFiles {
protected:
    void SetUp() override {
        ModelFiles::SetUp();
        directory.write("Web/index.html", "the page");
        server = zelIO::RemoteCommandServer::instance();
        root = new zel::Component("root", zel::Component::ClassModel());
        server->setSystemRoot(root.get());
    }
    void TearDown() override {
        root = nullptr;
        ModelFiles::TearDown();
    }
    void start(bool allowRemote = false) {
        const StreamCapture output(std::cout);
        ASSERT_TRUE(server->start(0, allowRemote));
    }
    /// From here on the test may look at what the server's thread has written, and write what that reads.
    void settle() {
        server->stop();
        start();
    }
    /// A child of its parent, by default of the root.
    template <typename Class>
    Class* add(Class* object, zel::Component* parent = nullptr) {
        (parent == nullptr ? root.get() : parent)->addObject(object);
        return object;
    }
    zel::Component* addComponent(const char* name, zel::Component* parent = nullptr) {
        return add(new zel::Component(name, zel::Component::ClassModel()), parent);
    }
    [[nodiscard]] std::string get(const std::string& uri, const std::string& headers = "") const {
        return requestHttp(server->getPort(), uri, "Host: localhost\r\n" + headers);
    }
    /// What follows the told head of a route's answer.
    [[nodiscard]] std::string ask(const std::string& uri) const {
        const std::string answer = get(uri);
        return answer.starts_with(RouteHead) ? answer.substr(RouteHead.size()) : "no head: " + answer;
    }

    zelIO::RemoteCommandServer* server = nullptr;
    zel::ref_ptr<zel::Component> root;
};

} // namespace zelTest
