// sessionctl watch: the sessions as they come and go.
#include <gmock/gmock.h>
#include <signal.h>

#include <sstream>

#include "support/sessionctl_test.h"

namespace testbed {
namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::MatchesRegex;

class Watching : public RunningSessionctlTest {
  protected:
    void watch(const Words& arguments = {}) {
        Words all{"watch"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        running = startSessionctl(all);
    }
    // Blocks until it has written so many lines.
    Words lines(std::size_t count) const {
        Words lines;
        waitUntil(std::to_string(count) + " lines are written", [&] {
            lines.clear();
            std::istringstream output(controller.outputOf("sessionctl"));
            for (std::string line; std::getline(output, line) && !output.eof();) {
                lines.push_back(line);
            }
            return lines.size() >= count;
        });
        return lines;
    }
    std::string inserted(const std::string& identifier, const std::string& user = "admin") {
        return frontEnd().insertSession({.identifier = identifier, .userName = user}).uri;
    }

    std::unique_ptr<Process> running;
};

TEST_F(Watching, TellsWhoIsThereAndWhoComesAndGoes) {
    inserted("00000001", "ann");
    watch();
    lines(1);
    const std::string uri = inserted("00000002",
                                     "b\x1b"
                                     "b");
    lines(2);
    frontEnd().remove(uri);
    const std::string time = "[-0-9]+T[0-9:]+[+]00:00  ";
    EXPECT_THAT(lines(3), ElementsAre(MatchesRegex(time + "present     00000001  ann  -"),
                                      MatchesRegex(time + "new         00000002  b\\\\x1bb  -"),
                                      MatchesRegex(time + "logged out  00000002  b\\\\x1bb  -")));
    running->signal(SIGINT);
    EXPECT_EQ(running->wait(), ExitStatus{});
    EXPECT_EQ(controller.errorsOf("sessionctl"), "");
}

TEST_F(Watching, GivesProgramsOneDocumentALine) {
    inserted("00000001", "ann");
    watch({"--json"});
    json event = json::parse(lines(1).at(0));
    EXPECT_EQ(event.at("time").get<std::string>().size(), sizeof("2026-11-21T10:00:00+00:00") - 1);
    event.erase("time");
    EXPECT_EQ(event,
              (json{{"event", "present"}, {"id", "00000001"}, {"user", "ann"}, {"client", ""}}));
    running->signal(SIGTERM);
    EXPECT_EQ(running->wait(), ExitStatus{});
}

TEST_F(Watching, TellsAnExpiryFromALogout) {
    const auto leaving = frontEnd().insertSession({.identifier = "00000001", .timeout = "300"});
    const auto idle = frontEnd().insertSession({.identifier = "00000002", .timeout = "300"});
    const auto used = frontEnd().insertSession({.identifier = "00000003", .timeout = "300"});
    watch({"--json"});
    lines(3);
    // A use that came after the watch had begun counts.
    store().hset(tokenKey(used.token), {{"LastAccessed", std::to_string(uptime() + 1000)}});
    frontEnd().remove(leaving.uri);
    const json first = json::parse(lines(4).at(3));
    EXPECT_EQ(first.at("id"), "00000001");
    EXPECT_EQ(first.at("event"), "gone");
    EXPECT_EQ(first.at("reason"), "loggedOut");
    // The daemon does not see the end of the time before it has been noted here.
    controller.daemon().signal(SIGSTOP);
    store().hset(tokenKey(idle.token), {{"Timeout", "1"}});
    Monitor monitor = controller.monitor();
    waitUntil("the timeout is read", [&] {
        const auto commands = monitor.soFar();
        return std::any_of(commands.begin(), commands.end(), [&](const MonitoredCommand& command) {
            return command.words == Words{"HGET", tokenKey(idle.token), "Timeout"};
        });
    });
    controller.daemon().signal(SIGCONT);
    const json second = json::parse(lines(5).at(4));
    EXPECT_EQ(second.at("id"), "00000002");
    EXPECT_EQ(second.at("event"), "gone");
    EXPECT_EQ(second.at("reason"), "expired");
    frontEnd().remove(used.uri);
    EXPECT_EQ(json::parse(lines(6).at(5)).at("reason"), "loggedOut");
}

TEST_F(Watching, DoesNotGuessHowASessionOfAnotherTypeHasEnded) {
    frontEnd().insertSession({.identifier = "00000001", .sessionType = "\"Other\""});
    watch();
    lines(1);
    store().run({"LREM", membersKey, "0", "&&ObjectRef " + std::string(sessionsUri) + "/00000001"});
    EXPECT_THAT(lines(2).at(1), MatchesRegex(".*  gone        00000001  admin  .*"));
}

TEST_F(Watching, EndsWhenNobodyReadsAnyMore) {
    inserted("00000001");
    const auto process = controller.startProgram(
        {.command = {"/bin/bash", "-c",
                     "set -o pipefail; " + std::string(program) + " --timeout 300 watch | read -r"},
         .environment = Controller::sanitizerOptions()});
    EXPECT_EQ(process->wait(), ExitStatus{});
}

TEST_F(Watching, GivesProgramsItsFailureOnALineToo) {
    watch({"--json"});
    inserted("00000001");
    lines(1);
    stopDaemon();
    EXPECT_EQ(running->wait(), (ExitStatus{.bySignal = false, .value = 3}));
    EXPECT_EQ(json::parse(lines(2).at(1)), (json{{"error", "The store has stopped answering."}}));
}

TEST_F(Watching, EndsWithTheStore) {
    watch();
    inserted("00000001");
    lines(1);
    stopDaemon();
    EXPECT_EQ(running->wait(), (ExitStatus{.bySignal = false, .value = 3}));
    EXPECT_EQ(controller.errorsOf("sessionctl"), "sessionctl: The store has stopped answering.\n");
}

}  // namespace
}  // namespace testbed
