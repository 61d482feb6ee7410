#pragma once

#include "Command.h"
#include "FrameStreams.h"

#include <zel/ref_ptr.h>
#include <zelNet/InspectionService.h>
#include <zelNet/WebDebuggerServer.h>

#include <chrono>
#include <set>
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
    /// @param serves  whether there is a control without --control as well
    /// @throws UsageError
    static void verifyOptions(const Arguments& arguments, bool serves = false);

    /// What clients are told of the streams of frames, which outlive this.
    void show(const FrameStreams& streams);
    /// Offers the frames of the run, whose model outlives this.
    void addRun(zel::Clock& clock, zel::Component* model);
    /// Offers a recording, under the name of the file without folder and extension.
    /// @param opens  whether it is there from the beginning, and not once a client asks for it
    /// @throws std::runtime_error  if it is to be opened, and cannot be
    void addJournal(const std::string& file, bool opens);
    /// Serves the clients, at most each two milliseconds: a tick may be shorter than that.
    void serviceIfDue();
    /// Serves them while the clock is halted, and sleeps a little where there is nothing to do.
    void serviceAndRest();

private:
    zel::ref_ptr<zelNet::InspectionService> m_service;
    zelNet::zelWebServer::WebDebuggerServer m_page;
    std::set<std::string> m_names; // of journals
    std::chrono::steady_clock::time_point m_due;
};

} // namespace tool
