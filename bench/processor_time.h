// Processor time of requests over HTTPS, beside that of their baseline: the same commands and
// scripts for the daemon and the store, sent without the front end, and a bare answer of nginx over
// the same TLS for each request.
#pragma once

#include <chrono>

#include "bench/front_end_commands.h"
#include "testbed/web_front_end.h"

namespace bench {

// Seconds, by process.
struct ProcessorTime {
    double nginx = 0;  // its worker
    double store = 0;
    double daemon = 0;

    double all() const { return nginx + store + daemon; }
};

struct RequestTime {
    ProcessorTime measured;
    ProcessorTime baseline;

    double ratio() const { return measured.all() / baseline.all(); }
};

struct RequestTimes {
    RequestTime session;  // a login and its logout
    RequestTime read;     // of the client's own session, with its token
    double bare = 0;      // a bare answer of nginx, in seconds
};

// Adds to the front end's files the resource that is answered barely. To be called before it is
// started.
void addBareResource(testbed::Controller& controller);

// What the programs have used of the processor so far.
ProcessorTime processorTime(testbed::Controller& controller, testbed::WebFrontEnd& web,
                            testbed::StoreClient& store);

// Measures over one kept connection, in blocks of each kind of request that take turns; the lower
// quartile of the blocks counts.
RequestTimes measureRequestTimes(testbed::Controller& controller, testbed::WebFrontEnd& web,
                                 const FrontEndCommands& commands,
                                 std::chrono::duration<double> duration);

}  // namespace bench
