// What has been counted of logins and logouts. The daemon itself counts nothing: it is
// taken from the audit log in the store and from the logs of the web front end.
#pragma once

#include <ctime>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "sessionctl/log_follower.h"

struct redisContext;

namespace session_service::console {

// An entry of the audit log.
struct AuditEntry {
    std::string uri;
    bool isLogin = false;  // otherwise a logout
    std::time_t time = 0;
    std::string session;  // its URI
};

// What has been counted. Empty: the source is not there. Each count begins at the time that its
// source has below.
struct Counts {
    std::optional<long long> admitted{};                        // audit log
    std::optional<std::map<std::string, long long>> refused{};  // by reason; log of refused logins
    std::optional<long long> logouts{};                         // audit log and access log
    std::optional<long long> expiries{};                        // the same
    std::optional<long long> changes{};                         // of the service; access log
    std::optional<int> maxSessions{};                           // audit log

    std::optional<std::time_t> auditSince{};
    std::optional<std::time_t> refusedSince{};
    std::optional<std::time_t> accessSince{};
};

class Counter {
  public:
    // What toState() gave. Throws nlohmann::json::exception for anything else.
    static Counter fromState(const nlohmann::json& state);
    [[nodiscard]] nlohmann::json toState() const;

    // Adds what is new in the three sources. `sessionsNow` and `timeout`, in seconds, are those of
    // the service. An end of a session is a logout when the front end was asked for it, or when the
    // session is too young to have expired; otherwise it is an expiry.
    // Throws CommandError when the store stops answering.
    void update(redisContext* connection, int sessionsNow, long long timeout);

    [[nodiscard]] const Counts& counts() const noexcept { return counted; }

  private:
    void readRefusedLogins();
    void readAccessLog();
    void addAccess(const std::string& line);
    void addAuditEntries(const std::vector<AuditEntry>& entries, int sessionsNow,
                         long long timeout);
    void updateMaxSessions(const std::vector<AuditEntry>& entries, int sessionsNow);

    Counts counted;
    std::string lastAuditEntry;
    std::map<std::string, std::time_t> openSessions;  // when they were created, by URI
    std::set<std::string> requestedLogouts;  // sessions whose end is not in the audit log yet
    std::optional<LogPosition> refusedPosition;
    std::optional<LogPosition> accessPosition;
};

// The reasons for which the front end refuses logins, as they are counted; `otherReason` stands for
// all that are not among them.
std::vector<std::string> refusalReasons();
inline constexpr const char* otherReason = "other";

// The reason that a line of the front end's log of refused logins gives, and its time. Empty when
// it is no such line.
struct RefusedLogin {
    std::time_t time = 0;
    std::string reason;
};
std::optional<RefusedLogin> parseRefusedLogin(const std::string& line);

// What a line of the front end's access log says.
struct Access {
    std::time_t time = 0;
    std::string method;
    std::string path;
    int status = 0;
};
std::optional<Access> parseAccess(const std::string& line);

}  // namespace session_service::console
