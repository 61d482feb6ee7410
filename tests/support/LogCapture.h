#pragma once

#include <zel/Logger.h>
#include <zel/Notify.h>
#include <zel/ref_ptr.h>

#include <string>
#include <vector>

namespace zelTest {

/// Collects all messages of a level or above while it lives.
class LogCapture {
public:
    explicit LogCapture(zel::Notify::NotifyLevel level = zel::Notify::Debug) : m_callback(new Collector) {
        zel::Logger::instance(); // sets the log up now, and not at the first message
        zel::Notify::instance()->addCallback(m_callback.get(), level);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture() { zel::Notify::instance()->removeCallback(m_callback.get()); }

    /// All messages in one.
    [[nodiscard]] const std::string& text() const { return m_callback->text; }
    [[nodiscard]] const std::vector<std::string>& texts() const { return m_callback->texts; }
    /// The level of each message.
    [[nodiscard]] const std::vector<int>& levels() const { return m_callback->levels; }

private:
    struct Collector : zel::NotifyCallback {
        void message(const std::string& message, int level) override {
            text += message;
            texts.push_back(message);
            levels.push_back(level);
        }
        std::string text;
        std::vector<std::string> texts;
        std::vector<int> levels;
    };
    zel::ref_ptr<Collector> m_callback;
};

} // namespace zelTest
