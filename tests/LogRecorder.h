#pragma once

#include <zel/Logger.h>
#include <zel/Notify.h>
#include <zel/ref_ptr.h>

#include <iostream>
#include <sstream>
#include <string>
#include <vector>

/// Gathers the messages of the log while it lives.
class LogRecorder {
public:
    explicit LogRecorder(zel::Notify::NotifyLevel level = zel::Notify::Debug) {
        zel::Logger::instance();
        zel::Notify::instance()->addCallback(m_callback.get(), level);
    }
    LogRecorder(const LogRecorder&) = delete;
    LogRecorder& operator=(const LogRecorder&) = delete;
    ~LogRecorder() { zel::Notify::instance()->removeCallback(m_callback.get()); }

    [[nodiscard]] const std::vector<std::string>& texts() const { return m_callback->texts; }
    [[nodiscard]] const std::vector<int>& levels() const { return m_callback->levels; }

private:
    struct Callback : zel::NotifyCallback {
        void message(const std::string& text, int level) override {
            texts.push_back(text);
            levels.push_back(level);
        }
        std::vector<std::string> texts;
        std::vector<int> levels;
    };
    zel::ref_ptr<Callback> m_callback = new Callback;
};

/// Takes what is written to a stream, such as std::cerr, while it lives.
class StreamCapture {
public:
    explicit StreamCapture(std::ostream& stream) : m_stream(stream), m_old(stream.rdbuf(m_text.rdbuf())) {}
    StreamCapture(const StreamCapture&) = delete;
    StreamCapture& operator=(const StreamCapture&) = delete;
    ~StreamCapture() { m_stream.rdbuf(m_old); }
    [[nodiscard]] std::string text() const { return m_text.str(); }

private:
    std::ostringstream m_text;
    std::ostream& m_stream;
    std::streambuf* m_old;
};
