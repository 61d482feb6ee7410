#pragma once

#include <zel/BasicThread.h>
#include <zelData/Track.h>

namespace zelData {

/// Runs one end of a track. Known to the system, since readers and writers log.
/// @threads begin and end: the track's owner
class Track::Thread : public zel::BasicThread {
public:
    /// @param name  for messages; lives as long as the process
    Thread(Track* track, const char* name, void (Track::*execute)())
        : m_track(track), m_name(name), m_execute(execute) {}

    void run() override;
    /// Refused while a thread runs.
    void begin();
    /// Waits for the end of the thread, if there is one.
    void end();

private:
    Track* m_track;
    const char* m_name;
    void (Track::*m_execute)();
    bool m_started = false; // and not joined
};

} // namespace zelData
