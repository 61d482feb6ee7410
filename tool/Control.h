#pragma once

#include "Command.h"
#include "FrameStreams.h"

#include <zel/ref_ptr.h>
#include <zelNet/InspectionService.h>
#include <zelNet/WebDebuggerServer.h>

#include <chrono>
#include <string>

namespace tool {

/// Lets browsers look into a run: the service of the control channel, and the page that speaks to it.
class Control {
public:
    /// Serves as the options --control, --token, --open and --writable say, and prints the address.
    /// @throws std::runtime_error if the port cannot be had
    explicit Control(const Arguments& arguments);
    Control(const Control&) = delete;
    Control& operator=(const Control&) = delete;
    ~Control();

    /// Wrong ones of these options.
    /// @throws UsageError
    static void verifyOptions(const Arguments& arguments);

    /// What clients are told of the streams of frames, which outlive this.
    void show(const FrameStreams& streams);
    /// Serves the clients, at most each two milliseconds: a tick may be shorter than that.
    void serviceIfDue();
    /// Serves them while the clock is halted, and sleeps a little where there is nothing to do.
    void serviceAndRest();

private:
    zel::ref_ptr<zelNet::InspectionService> m_service;
    zelNet::zelWebServer::WebDebuggerServer m_page;
    std::chrono::steady_clock::time_point m_due;
};

} // namespace tool
