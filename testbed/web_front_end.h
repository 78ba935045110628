// The real web front end, run by nginx in the private root of a testbed. It listens on the
// machine's own loopback, so that any client of the machine reaches it, at an address made from
// the number of this process: front ends of several processes do not collide. A process runs one
// at a time.
#pragma once

#include <memory>
#include <string>

#include "testbed/controller.h"

namespace testbed {

// Paths inside the private root.
inline constexpr const char* webConfigurationFile = "/usr/local/etc/nginx/nginx.conf";
inline constexpr const char* webSettingsFile = "/usr/local/etc/nginx/settings.lua";
inline constexpr const char* webLimitsFile = "/usr/local/etc/nginx/limits.conf";
inline constexpr const char* webAccessLogFile = "/var/log/session-service-frontend/access.log";
inline constexpr const char* webErrorLogFile = "/var/log/session-service-frontend/error.log";
inline constexpr const char* webRefusedLoginsFile =
    "/var/log/session-service-frontend/refused-logins.log";

class WebFrontEnd {
  public:
    // Puts the files into place, as install() does; starts nothing. The controller must
    // outlive this object.
    explicit WebFrontEnd(Controller& host);

    // Writes all files of the front end as they are shipped, except for the addresses to listen
    // on, and a fresh certificate with its key. Changes that were made to them are lost.
    void install();

    // Starts it with the files as they are; returns when it accepts connections and can be
    // stopped in order. Throws Failure with what it wrote when it ends instead.
    void start();
    // Ends it at once, even with requests under way. Returns how it ended.
    ExitStatus stop();
    void restart();
    bool started() const { return static_cast<bool>(nginx); }
    // Its first process, whose children serve the requests.
    Process& process();

    const std::string& address() const { return listenAddress; }
    std::string url() const { return "https://" + listenAddress + ":8443"; }
    // The address from which everything is redirected to url().
    std::string plainUrl() const { return "http://" + listenAddress + ":8080"; }
    // The certificate that verifies the server, as seen from outside.
    std::string certificatePath() const;

    // All that was logged since the files were last removed, over all starts.
    std::string accessLog() const { return controller.readFile(webAccessLogFile); }
    std::string errorLog() const { return controller.readFile(webErrorLogFile); }

  private:
    void makeCertificate();

    Controller& controller;
    std::string listenAddress;
    std::unique_ptr<Process> nginx;
};

}  // namespace testbed
