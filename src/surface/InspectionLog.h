#pragma once

#include "InspectionRequest.h"

#include <zel/Notify.h>
#include <zelNet/WebSocket.h>

#include <deque>
#include <map>
#include <mutex>
#include <string>

namespace zelNet {

/// The log lines for the clients of an inspection service.
/// @threads message: any; all else as the service
class InspectionLog : public zel::NotifyCallback {
public:
    void message(const std::string& text, int level) override;

    void subscribe(const InspectionRequest& request);
    void forget(WebSocket* socket);
    /// @return whether anything was sent
    bool send();

private:
    struct Line {
        int level;
        double time;
        std::string text;
    };
    struct Client {
        int level = 0;
        std::deque<Line> lines;
        zel::uint64 numDropped = 0;
    };

    /// Asks for no more than the clients want.
    void adjustLevel();

    std::mutex m_mutex; // no rank: nothing is taken below it
    std::map<WebSocket*, Client> m_clients;
};

} // namespace zelNet
