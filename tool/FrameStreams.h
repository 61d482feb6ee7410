#pragma once

#include "Command.h"

#include <zel/Clock.h>
#include <zel/Component.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelData/FrameCapture.h>
#include <zelNet/InspectionService.h>

#include <memory>
#include <vector>

namespace tool {

/// The frames of a run, sent to whoever connects: the options --stream and --budget of 'zel run'.
///
/// Nobody who reads makes the run wait. What a reader has not taken waits in the queue of its stream, and
/// once that has used up the budget, frames are left out, which is counted. A reader that goes is forgotten.
class FrameStreams {
public:
    /// Listens from now on.
    /// @throws UsageError
    /// @throws std::runtime_error  for a port that can not be had
    explicit FrameStreams(const Arguments& arguments);
    FrameStreams(const FrameStreams&) = delete;
    FrameStreams& operator=(const FrameStreams&) = delete;
    ~FrameStreams();

    /// Prints the ports, and sends the present state.
    void start(zel::Clock& clock, zel::Component* model);
    /// Sends a frame of what there is now.
    void push();
    /// Lets readers have what waits, as long as they take it.
    void stop();
    /// What was sent, and what was left out.
    void print() const;
    [[nodiscard]] zel::Vector<zelNet::InspectionService::Stream> states() const;
    /// @throws what has ended a stream ahead of the run
    void rethrow() const;

private:
    class Stream;

    std::vector<std::unique_ptr<Stream>> m_streams;
    zel::Clock* m_clock = nullptr;
    zel::ref_ptr<zelData::FrameCapture> m_capture; // null without streams, and while they do not run
};

} // namespace tool
