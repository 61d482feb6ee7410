#pragma once

#include <zel/Notify.h>
#include <zel/ref_ptr.h>

#include <string>

namespace zelTest {

/// Collects all messages of a level or above while it lives.
class LogCapture {
public:
    explicit LogCapture(zel::Notify::NotifyLevel level = zel::Notify::Debug) : m_callback(new Collector) {
        zel::Notify::instance()->addCallback(m_callback.get(), level);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture() { zel::Notify::instance()->removeCallback(m_callback.get()); }

    [[nodiscard]] const std::string& text() const { return m_callback->text; }

private:
    struct Collector : zel::NotifyCallback {
        void message(const std::string& message, int) override { text += message; }
        std::string text;
    };
    zel::ref_ptr<Collector> m_callback;
};

} // namespace zelTest
