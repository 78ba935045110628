// The testbed: what the session service expects around it on a real board,
// made of real parts, in a private root of its own.
//
// Each step of its start is a function, so that a test can change files or the store in
// between, leave steps out or repeat them; start() takes them all. Everything that a
// controller started has ended, and its folder is gone, when the object is gone or the
// process has ended. The process ignores SIGPIPE from the first controller on.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "testbed/fake_front_end.h"
#include "testbed/monitor.h"
#include "testbed/process.h"
#include "testbed/sandbox.h"
#include "testbed/store_client.h"

namespace testbed {

// Paths inside the private root.
inline constexpr const char* keyFile = "/var/nginx/pkey.tmp";
inline constexpr const char* persistentFile = "/var/nginx/SessionPersistentProp.conf";
inline constexpr const char* configurationFile = "/usr/local/etc/nginx/SessionService.conf";
inline constexpr const char* pamServiceFile = "/etc/pam.d/q73";
inline constexpr const char* logFile = "/var/log/session-service.log";

struct ControllerOptions {
    // The daemon reaches the store by TCP on port 6379 of the loopback instead of the
    // Unix socket, so that MONITOR tells its connections apart. Implies sharedNetwork.
    bool storeOverTcp = false;
    // All programs of this controller share one private loopback network.
    bool sharedNetwork = false;
};

struct DaemonOptions {
    std::map<std::string, std::string> environment{};
    std::vector<Bind> binds{};
    std::vector<std::string> limits{};
    std::vector<std::string> runner{};
    std::vector<std::string> sandboxOptions{};
    std::string input = "/dev/null";
};

class Controller {
  public:
    // Makes the folder and writes all files; starts nothing.
    explicit Controller(const ControllerOptions& options = {});

    // All steps: the store with its scripts and seed, the daemon. Returns when it serves.
    void start();

    // The store. It is empty after each start; stopStore sends SHUTDOWN.
    void startStore();
    void loadScripts();
    void seedStore();
    void stopStore();
    bool storeStarted() const { return static_cast<bool>(storeProcess); }

    // The daemon. What it writes to its standard streams is appended over all starts.
    void startDaemon(const DaemonOptions& options = {});
    // Blocks until the daemon has subscribed its three channels and opened all of its
    // lasting connections; throws Failure when it ends instead.
    void waitUntilServing();
    // Whether all three channels have a subscriber, whoever started the daemon.
    bool daemonListens() const;
    Process& daemon();
    bool daemonStarted() const { return static_cast<bool>(daemonProcess); }
    // What all daemons of this controller wrote to their standard streams.
    std::string daemonOutput() const;
    std::string daemonErrors() const;

    // Starts another program inside, such as a directory server for logins.
    std::unique_ptr<Process> startProgram(const Launch& launch);
    // What all runs of a program wrote to its standard streams.
    std::string outputOf(const std::string& program) const;
    std::string errorsOf(const std::string& program) const;
    // The environment of programs that are built with sanitizers, so that every finding ends
    // them with a report; startDaemon sets it itself.
    static std::map<std::string, std::string> sanitizerOptions();
    // For every program started from now on.
    void bind(Bind bind) { sandbox.bind(std::move(bind)); }

    // Connections from outside the private root, for one thread each.
    StoreClient connect() const;
    // It must not outlive the controller.
    FakeFrontEnd frontEnd() const;
    Monitor monitor() const;

    // Files of the private root, by their paths inside.
    std::string path(const std::string& inside) const { return root + inside; }
    void writeFile(const std::string& inside, const std::string& text);
    std::string readFile(const std::string& inside) const;  // empty when it is not there
    bool fileExists(const std::string& inside) const;
    void removeFile(const std::string& inside);
    // Copies a file of the machine to its place inside, mode included.
    void install(const std::string& outside, const std::string& inside);

    // The store's socket, from outside, and its password.
    std::string socketPath() const { return path("/run/session-service-store/redis.sock"); }
    const std::string& storePassword() const { return password; }

  private:
    TemporaryFolder folder;
    std::string root;
    std::string password;
    Sandbox sandbox;
    std::unique_ptr<Process> storeProcess;
    std::unique_ptr<Process> daemonProcess;
    long long subscriptionsBefore = 0;
    long long connectionsBefore = 0;
};

}  // namespace testbed
