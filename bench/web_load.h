// Connections that work on the web front end at once.
#pragma once

#include <array>
#include <chrono>
#include <semaphore>
#include <string>
#include <vector>

#include "testbed/web_front_end.h"

namespace bench {

enum WebRequest : std::size_t { webLogin, webRead, webChange, webLogout };
inline constexpr std::array webRequestNames{"login", "read", "change", "logout"};

// What a connection does, over and over: a login, so many reads of its session, a logout.
struct WebRound {
    int reads = 0;
    // The first connection also changes the timeout.
    bool changes = false;
    // While it has no place for its session, it reads the service root.
    bool readsMeanwhile = false;
};

struct WebWork {
    // In ascending order.
    std::array<std::vector<double>, webRequestNames.size()> milliseconds;
    double seconds = 0;

    double perSecond(WebRequest kind) const {
        return static_cast<double>(milliseconds.at(kind).size()) / seconds;
    }
    // Of requests that there have been.
    double percentile(WebRequest kind, std::size_t percent) const;
};

class WebLoad {
  public:
    // The front end has been started, and PAM lets everybody in.
    explicit WebLoad(const testbed::WebFrontEnd& front) : web(front) {}

    // Lets each of the connections make whole rounds until the time is over. Each has a user of
    // its own. There are eight sessions at most: a connection waits for a place before it logs in,
    // and that time is no request's. Throws Failure when a request is not answered as it should be.
    WebWork run(int connections, const WebRound& round, std::chrono::duration<double> duration);

  private:
    using Clock = std::chrono::steady_clock;

    void work(int number, const WebRound& round, Clock::time_point end, WebWork& done);

    const testbed::WebFrontEnd& web;
    std::counting_semaphore<> places{8};
};

}  // namespace bench
