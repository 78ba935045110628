// Work without a pause on a testbed, whose footprint is watched meanwhile.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "testbed/checks.h"
#include "testbed/controller.h"
#include "testbed/web_front_end.h"

namespace bench {

struct Footprint {
    long daemonKib = 0;
    long descriptors = 0;  // of the daemon
    long threads = 0;      // of the daemon
    long frontEndKib = 0;  // of nginx's worker
    long keys = 0;
    long storeKib = 0;

    void raiseTo(const Footprint& other);
};

class Soak {
  public:
    enum class FrontEnd { none, nginx };

    // Names what is done, for the columns of the table; `done` counts it.
    Soak(FrontEnd kind, std::vector<const char*> columns);
    virtual ~Soak() = default;
    Soak(const Soak&) = delete;
    Soak& operator=(const Soak&) = delete;

    // Prints rows while it works. Returns whether every answer was right, nothing has grown, and
    // nothing is left.
    bool run(std::chrono::seconds duration);

  protected:
    // A thread each. What one throws ends the soak.
    virtual std::vector<std::function<void()>> workers() = 0;

    // Repeats the round until the soak ends.
    void repeat(const std::function<void()>& round);
    bool isEnding() const { return ending; }
    void count(std::size_t column) { ++done.at(column); }
    const char* nameOf(std::size_t column) const { return columnNames.at(column); }

    testbed::Controller& host() { return controller; }
    // Only there with FrontEnd::nginx.
    const testbed::WebFrontEnd& frontEnd() const { return web.value(); }

  private:
    std::vector<std::jthread> start();
    void trimRecords(const std::string& kept);
    Footprint footprint();
    // Waits for everything to end and removes its records; returns the keys that are left.
    testbed::Words settle();
    void printHead() const;
    void printRow(const std::string& time, const Footprint& footprint) const;
    // Prints rows while the workers work; returns the maxima of each.
    std::vector<Footprint> watch(std::chrono::seconds duration);
    bool check(const testbed::Words& keysBefore, const testbed::Words& keysAfter,
               const Footprint& before, const std::vector<Footprint>& rows, const Footprint& after);
    void checkFrontEnd(testbed::Checks& checks, const std::vector<Footprint>& rows) const;

    testbed::Controller controller;
    std::optional<testbed::WebFrontEnd> web;
    std::vector<const char*> columnNames;
    std::vector<std::atomic<long>> done;
    std::optional<testbed::StoreClient> store;
    std::atomic<bool> ending = false;
    std::mutex mutex;  // guards failure
    std::string failure;
};

// The parts; each works for the time and returns whether everything was right.
bool soakDaemon(std::chrono::seconds duration);
bool soakFrontEnd(std::chrono::seconds duration);

}  // namespace bench
