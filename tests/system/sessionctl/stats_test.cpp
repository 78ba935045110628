// sessionctl stats: what the logs say of logins and logouts, and what the daemon takes.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>

#include "support/sessionctl_test.h"
#include "support/web_test.h"
#include "testbed/events_and_audit_log.h"

namespace testbed {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::MatchesRegex;
using testing::Not;

constexpr const char* stateFile = "/tmp/state";
constexpr const char* metricsFile = "/tmp/session-service.prom";
const std::string refusedLoginLog = fs::path(webAccessLogFile).parent_path() / "refused-logins.log";

// Everything runs, the front end included; sessionctl runs outside, where it sees the processes.
class Statistics : public WebTest {
  protected:
    json stats(const Words& arguments = {}) {
        Words all{"stats", "--json"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        const Outcome outcome = runOutside(controller, all);
        EXPECT_EQ(outcome.status, 0) << outcome.errors;
        EXPECT_EQ(outcome.errors, "");
        return outcome.json();
    }
    std::string metrics() {
        const Outcome outcome = runOutside(controller, {"stats", "--prometheus"});
        EXPECT_EQ(outcome.status, 0) << outcome.errors;
        return outcome.output;
    }
    void logInAndOut(const Account& account) {
        const HttpResponse response = client().login(account.name, account.password);
        ASSERT_EQ(response.status, 201);
        EXPECT_EQ(client().remove(response.location()).status, 204);
        client().useToken("");
    }
    // A wrong password takes a while: here it is another user's name that is refused.
    void refuseLogin(const std::string& user) {
        usePamTest("auth=PAM_AUTH_ERR");
        EXPECT_EQ(client().login(user, "something else").status, 401);
        usePamTest("env=PRIVILEGES=511");
    }
};

// promtool is the machine's own; what it complains of, and its exit status if that is not 0.
std::string complaintsOfPromtool(const Controller& controller, const std::string& file) {
    return shellOutput("promtool check metrics <" + controller.path(file) +
                       " 2>&1 || echo \"status $?\"");
}

TEST_F(Statistics, CountWhatTheFrontEndAndTheDaemonHaveDone) {
    ASSERT_EQ(client().login(administrator.name, administrator.password).status, 201);
    EXPECT_EQ(client().patch(serviceUri, R"({"SessionTimeout":900})").status, 200);
    EXPECT_EQ(client().patch(serviceUri, R"({"SessionTimeout":5})").status, 400);
    client().useToken("");
    logInAndOut(reader);
    refuseLogin("admin");
    const json document = stats();
    EXPECT_EQ(document.at("sessions"), (json{{"now", 1}, {"max", 2}, {"limit", 8}}));
    EXPECT_EQ(document.at("logins"),
              (json{{"admitted", 2}, {"refused", {{"wrong name or password", 1}}}}));
    EXPECT_EQ(document.at("logouts"), 1);
    EXPECT_EQ(document.at("expiries"), 0);
    EXPECT_EQ(document.at("changes"), 1);
    EXPECT_LE(document.at("lastPassAgeSeconds").get<int>(), 60);
    for (const auto& [source, time] : document.at("since").items()) {
        EXPECT_THAT(time.get<std::string>(), MatchesRegex("[-0-9]+T[0-9:]+[+]00:00")) << source;
    }
    EXPECT_EQ(document.at("sources").at("logouts"), "audit log and access log");
}

TEST_F(Statistics, CountAnEndOfAnIdleSessionAsAnExpiry) {
    store().hset(serviceUri, {{"SessionTimeout", "1"}});
    const HttpResponse response = client().login(reader.name, reader.password);
    ASSERT_EQ(response.status, 201);
    client().useToken("");
    waitUntil("the session has expired", [&] { return !store().exists(response.location()); });
    waitUntil("the end is in the audit log", [&] { return auditEntries(store()).size() == 2; });
    const json document = stats();
    EXPECT_EQ(document.at("expiries"), 1);
    EXPECT_EQ(document.at("logouts"), 0);
    EXPECT_EQ(document.at("lastPassAgeSeconds"), nullptr);
}

// It is too young for an expiry, though nobody has asked for its end.
TEST_F(Statistics, CountTheEndOfATemporarySessionAsALogout) {
    client().useBasic(reader.name, reader.password);
    EXPECT_EQ(client().get(serviceUri).status, 200);
    waitUntil("the session has ended", [&] { return auditEntries(store()).size() == 2; });
    const json document = stats();
    EXPECT_EQ(document.at("logins").at("admitted"), 1);
    EXPECT_EQ(document.at("logouts"), 1);
    EXPECT_EQ(document.at("expiries"), 0);
}

TEST_F(Statistics, AreNotDeceivedByNames) {
    refuseLogin("x\" too many logins");
    refuseLogin("x\n192.0.2.1 [2026-01-02T03:04:05+00:00] \"x\" name too long");
    EXPECT_EQ(stats().at("logins").at("refused"), (json{{"wrong name or password", 2}}));
}

TEST_F(Statistics, AreUnderstoodByPrometheus) {
    logInAndOut(reader);
    refuseLogin("admin");
    frontEnd().insertSession();
    controller.writeFile(metricsFile, metrics());
    EXPECT_EQ(complaintsOfPromtool(controller, metricsFile), "");
    EXPECT_THAT(
        splitLines(controller.readFile(metricsFile)),
        AllOf(IsSupersetOf(
                  {"session_service_sessions 1", "session_service_sessions_max 2",
                   "session_service_sessions_limit 8", "session_service_logins_admitted_total 1",
                   "session_service_logouts_total 1", "session_service_expiries_total 0",
                   "session_service_changes_total 0", "session_service_daemon_up 1",
                   R"(session_service_logins_refused_total{reason="wrong name or password"} 1)",
                   R"(session_service_logins_refused_total{reason="other"} 0)"}),
              Contains(HasSubstr("session_service_last_pass_age_seconds ")),
              Contains(HasSubstr(
                  "session_service_counted_since_timestamp_seconds{source=\"audit_log\"} ")),
              Contains(HasSubstr("session_service_daemon_resident_memory_bytes ")),
              Contains(HasSubstr("session_service_daemon_cpu_seconds_total ")),
              Contains(HasSubstr("session_service_daemon_start_time_seconds "))));
}

TEST_F(Statistics, KeepTheirCountsAcrossRotations) {
    const Words keeping{"--state", stateFile};
    logInAndOut(reader);
    refuseLogin("admin");
    json document = stats(keeping);
    EXPECT_EQ(document.at("logins"),
              (json{{"admitted", 1}, {"refused", {{"wrong name or password", 1}}}}));
    EXPECT_EQ(document.at("logouts"), 1);
    const json since = document.at("since");

    // One more that comes before the logs are moved away, twice.
    refuseLogin("admin");
    for (int i = 0; i < 2; ++i) {
        for (const std::string& log : {refusedLoginLog, std::string(webAccessLogFile)}) {
            fs::rename(controller.path(log), controller.path(log + ".1"));
        }
        if (i == 0) {
            web.process().signal(SIGUSR1);
            waitUntil("the logs are written anew",
                      [&] { return controller.fileExists(refusedLoginLog); });
            document = stats(keeping);
            EXPECT_EQ(document.at("logins").at("refused").at("wrong name or password"), 2);
        }
    }
    web.process().signal(SIGUSR1);
    waitUntil("the logs are written anew", [&] { return controller.fileExists(refusedLoginLog); });
    // The audit log is emptied, too.
    store().run({"DEL", auditMembersKey});
    logInAndOut(administrator);
    document = stats(keeping);
    EXPECT_EQ(document.at("logins"),
              (json{{"admitted", 2}, {"refused", {{"wrong name or password", 2}}}}));
    EXPECT_EQ(document.at("logouts"), 2);
    EXPECT_EQ(document.at("since"), since);
    // Nothing is counted twice.
    EXPECT_EQ(stats(keeping).at("logins"), document.at("logins"));
    struct stat status {};
    ASSERT_EQ(stat(controller.path(stateFile).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST_F(Statistics, BeginAnewWithADamagedState) {
    logInAndOut(reader);
    for (const char* damaged : {"", "{", "{}", R"({"admitted":"x"})", "[]"}) {
        controller.writeFile(stateFile, damaged);
        const Outcome outcome = runOutside(controller, {"stats", "--json", "--state", stateFile});
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.errors,
                  "sessionctl: /tmp/state cannot be used; the counts begin anew.\n");
        EXPECT_EQ(outcome.json().at("logins").at("admitted"), 1);
    }
}

class StatisticsWithoutAFrontEnd : public RunningSessionctlTest {};

TEST_F(StatisticsWithoutAFrontEnd, TellWhatTheDaemonTakes) {
    const json daemon = runOutside(controller, {"stats", "--json"}).json().at("daemon");
    EXPECT_EQ(daemon.at("pid"), controller.daemon().pid());
    EXPECT_GT(daemon.at("residentBytes").get<long>(), 1'000'000);
    EXPECT_GE(daemon.at("processorSeconds").get<double>(), 0);
    EXPECT_THAT(daemon.at("startTime").get<std::string>(), MatchesRegex("[-0-9]+T[0-9:]+[+]00:00"));
    stopDaemon();
    startStore();
    EXPECT_EQ(runOutside(controller, {"stats", "--json"}).json().at("daemon"), nullptr);
    EXPECT_THAT(
        runOutside(controller, {"stats", "--prometheus"}).output,
        AllOf(HasSubstr("\nsession_service_daemon_up 0\n"), Not(HasSubstr("memory_bytes"))));
}

TEST_F(StatisticsWithoutAFrontEnd, SayWhatIsNotKnown) {
    EXPECT_EQ(frontEnd().login(administrator.name, administrator.password).status(), "OK");
    const json document = runOutside(controller, {"stats", "--json"}).json();
    EXPECT_EQ(document.at("logins"), (json{{"admitted", 1}, {"refused", nullptr}}));
    for (const char* unknown : {"logouts", "expiries", "changes"}) {
        EXPECT_EQ(document.at(unknown), nullptr);
    }
    EXPECT_THAT(runOutside(controller, {"stats"}).output,
                AllOf(HasSubstr("\nlogins admitted   1"), HasSubstr("\nlogins refused    unknown"),
                      HasSubstr("\nlogouts           unknown")));
    const std::string metrics = runOutside(controller, {"stats", "--prometheus"}).output;
    EXPECT_THAT(metrics, AllOf(HasSubstr("logins_admitted_total 1"), Not(HasSubstr("refused")),
                               Not(HasSubstr("logouts")), Not(HasSubstr("changes"))));
    controller.writeFile(metricsFile, metrics);
    EXPECT_EQ(complaintsOfPromtool(controller, metricsFile), "");
}

TEST_F(StatisticsWithoutAFrontEnd, KnowNoLoginsWithoutAnAuditLog) {
    controller.writeFile(configurationFile, "");
    const json document = runOutside(controller, {"stats", "--json"}).json();
    EXPECT_EQ(document.at("logins").at("admitted"), nullptr);
    EXPECT_EQ(document.at("sessions"), (json{{"now", 0}, {"max", nullptr}, {"limit", 8}}));
}

TEST_F(StatisticsWithoutAFrontEnd, ReplaceAFileInOneStep) {
    controller.writeFile(metricsFile, "old");
    const Outcome outcome =
        runOutside(controller, {"stats", "--prometheus", "--output", metricsFile});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output + outcome.errors, "");
    EXPECT_THAT(controller.readFile(metricsFile), HasSubstr("session_service_sessions 0\n"));
    struct stat status {};
    ASSERT_EQ(stat(controller.path(metricsFile).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0644U);
    for (const auto& entry : fs::directory_iterator(controller.path("/tmp"))) {
        EXPECT_EQ(entry.path().filename().string().find("session-service.prom."),
                  std::string::npos);
    }

    const Outcome failed =
        runOutside(controller, {"stats", "--prometheus", "--output", "/nowhere/file"});
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(failed.errors,
              "sessionctl: /nowhere/file cannot be written: No such file or directory.\n");
    EXPECT_EQ(runOutside(controller, {"stats", "--state", "/nowhere/file"}).status, 1);
}

// Whether the daemon lives is seen outside only: inside, each program sees its own processes.
TEST_F(StatisticsWithoutAFrontEnd, SeeADaemonThatNoLongerLooksForIdleSessions) {
    frontEnd().insertSession();
    controller.daemon().signal(SIGSTOP);
    waitUntil("the pass is late", [&] {
        return runOutside(controller, {"stats", "--json"}).json().at("lastPassAgeSeconds") >= 3;
    });
    controller.daemon().signal(SIGCONT);
    waitUntil("there are passes again", [&] {
        return runOutside(controller, {"stats", "--json"}).json().at("lastPassAgeSeconds") <= 1;
    });
}

}  // namespace
}  // namespace testbed
