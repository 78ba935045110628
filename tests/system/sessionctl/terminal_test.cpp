// sessionctl at a terminal, called from outside of the controller's root.
#include <gmock/gmock.h>

#include <sstream>

#include "support/sessionctl_test.h"

namespace testbed {
namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr const char* someId = "00000001";
const std::map<std::string, std::string> colorTerminal{{"TERM", "xterm"}};

class AtATerminal : public RunningSessionctlTest {
  protected:
    void insert(const std::string& id, const std::string& user,
                const std::string& client = "192.0.2.10") {
        frontEnd().insertSession({.identifier = id,
                                  .userName = user,
                                  .session = {{"ClientOriginIPAddress", '"' + client + '"'},
                                              {"@odata.etag", "\"1763688420000\""}}});
    }
    void insertIdle(long idle, long timeout) {
        frontEnd().insertSession({.identifier = someId,
                                  .timeout = std::to_string(timeout),
                                  .lastAccessed = std::to_string(uptime() - idle)});
    }
    std::unique_ptr<TerminalProgram> open(const Words& arguments, unsigned columns = 80,
                                          std::map<std::string, std::string> environment = {}) {
        return std::make_unique<TerminalProgram>(outsideCommand(controller, arguments), columns,
                                                 outsideEnvironment(std::move(environment)));
    }
    // What it shows until it ends.
    std::string shown(const Words& arguments, unsigned columns = 80,
                      std::map<std::string, std::string> environment = {}) {
        const auto terminal = open(arguments, columns, std::move(environment));
        EXPECT_EQ(terminal->wait(), ExitStatus{});
        return terminal->output();
    }
};

using ListAtATerminal = AtATerminal;
using WatchAtATerminal = AtATerminal;
using DeleteAtATerminal = AtATerminal;
using StatsAtATerminal = AtATerminal;

// The columns of a line in UTF-8 whose letters have one each.
std::size_t columnsOf(const std::string& line) {
    return static_cast<std::size_t>(
        std::count_if(line.begin(), line.end(), [](char byte) { return (byte & 0xc0) != 0x80; }));
}

TEST_F(ListAtATerminal, FitsIntoFortyColumns) {
    insert(someId, "administrator.of.the.eastern.region", "2001:db8:1111:2222:3333:4444:5555:6666");
    insert("00000002", "ann");
    store().run({"LPUSH", membersKey, "&&ObjectRef " + std::string(sessionsUri) + "/00000003"});
    for (const unsigned columns : {40U, 60U, 79U}) {
        for (const char* locale : {"C", "C.UTF-8"}) {
            const std::string text = shown({"list"}, columns, {{"LC_ALL", locale}});
            for (const std::string& line : splitLines(text)) {
                EXPECT_LE(columnsOf(line), columns) << line;
            }
            // Nothing but a part of the long name is left out.
            EXPECT_THAT(text, AllOf(HasSubstr(someId), HasSubstr("admin"), HasSubstr("ann"),
                                    HasSubstr("2001:db8:1111:2222:3333:4444:5555:66"),
                                    HasSubstr("idle"), HasSubstr("no session record"),
                                    HasSubstr("\n2 of 8 places are taken.\n")));
        }
    }
}

TEST_F(ListAtATerminal, IsATableWhereThatFits) {
    insert(someId, "ann");
    EXPECT_THAT(shown({"list"}, 80),
                ContainsRegex("^IDENTIFIER  USER  CLIENT      LOGGED IN     IDLE FOR  EXPIRES IN\n"
                              "00000001    ann   192.0.2.10  Nov 21 01:27  "));
}

TEST_F(ListAtATerminal, ShowsTheTimeLeftAsABar) {
    insertIdle(500, 1000);
    EXPECT_THAT(shown({"list"}), ContainsRegex("8m[0-9]+s +###[.][.][.] 8m"));
    EXPECT_THAT(shown({"list"}, 80, {{"LANG", "C.UTF-8"}}), HasSubstr("███░░░ 8m"));
}

TEST_F(ListAtATerminal, HasColorsUnlessTheyAreNotWanted) {
    insertIdle(900, 1000);
    const std::string red = "\x1b[31m#..... 1m";
    EXPECT_THAT(shown({"list"}, 80, colorTerminal), HasSubstr(red));
    for (auto environment : std::vector<std::map<std::string, std::string>>{
             {{"TERM", "xterm"}, {"NO_COLOR", "1"}}, {{"TERM", "dumb"}}, {}}) {
        EXPECT_THAT(shown({"list"}, 80, environment), Not(HasSubstr("\x1b")));
    }
    EXPECT_THAT(shown({"list"}, 80, {{"TERM", "xterm"}, {"NO_COLOR", ""}}), HasSubstr(red));
    EXPECT_THAT(runOutside(controller, {"list"}, colorTerminal).output, Not(HasSubstr("\x1b")));
}

TEST_F(ListAtATerminal, CountsLettersAndNotBytes) {
    insert(someId, "Jürgen");
    insert("00000002", "Renate");
    const Words lines = splitLines(shown({"list"}, 80, {{"LC_ALL", "C.UTF-8"}}));
    ASSERT_THAT(lines, SizeIs(4));
    EXPECT_THAT(lines[2], HasSubstr("Jürgen  192.0.2.10"));
    EXPECT_EQ(columnsOf(lines[1].substr(0, lines[1].find("192"))),
              columnsOf(lines[2].substr(0, lines[2].find("192"))));
}

// What turns the direction, combines with the letter before or has no width stays visible.
TEST_F(ListAtATerminal, IsNotSteeredByNamesInUnicode) {
    insert(someId,
           "a\xe2\x80\xae"
           "b\xcc\x81\xc2\x9b"
           "2J\xc2\xad\xff\xe2\x80");
    EXPECT_THAT(shown({"list"}, 120, {{"LC_ALL", "C.UTF-8"}}),
                HasSubstr(R"(a\xe2\x80\xaeb\xcc\x81\xc2\x9b2J\xc2\xad\xff\xe2\x80)"));
}

TEST_F(ListAtATerminal, TakesTheEncodingOfALocaleThatTheMachineLacks) {
    insert(someId, "Jürgen");
    EXPECT_THAT(shown({"list"}, 80, {{"LANG", "xx_YY.UTF-8"}}), HasSubstr("Jürgen"));
    EXPECT_THAT(shown({"list"}, 80, {{"LANG", "xx_YY.ISO-8859-1"}}), HasSubstr(R"(J\xc3\xbcrgen)"));
}

TEST_F(WatchAtATerminal, SaysThatItWaits) {
    insert(someId, "ann");
    const auto terminal = open({"watch"});
    terminal->waitFor("Waiting since ");
    EXPECT_THAT(terminal->output(), ContainsRegex("present +00000001  ann  192.0.2.10"));
    EXPECT_THAT(terminal->output(), HasSubstr("; 1 of 8 taken."));
    terminal->type("\x03");
    EXPECT_EQ(terminal->wait(), ExitStatus{});
    // The line is taken back, for the prompt of the shell.
    EXPECT_TRUE(terminal->output().ends_with("\r\x1b[K")) << terminal->output();
}

TEST_F(WatchAtATerminal, FitsIntoFortyColumns) {
    const auto terminal = open({"watch"}, 40);
    insert(someId, "administrator.of.the.eastern.region");
    terminal->waitFor(someId);
    terminal->waitFor("1 of 8");
    terminal->type("\x03");
    EXPECT_EQ(terminal->wait(), ExitStatus{});
    std::istringstream output(terminal->output());
    for (std::string line; std::getline(output, line);) {
        EXPECT_LE(line.substr(line.rfind("\x1b[K") + 3).size(), 40U) << line;
    }
}

TEST_F(WatchAtATerminal, TakesItsLineBackBeforeItSaysWhyItEnds) {
    const auto terminal = open({"watch"});
    terminal->waitFor("Waiting");
    stopDaemon();
    EXPECT_EQ(terminal->wait(), (ExitStatus{.bySignal = false, .value = 3}));
    EXPECT_THAT(terminal->output(),
                HasSubstr("\r\x1b[Ksessionctl: The store has stopped answering.\n"));
}

TEST_F(DeleteAtATerminal, OfAllAsksFirst) {
    insert(someId, "ann");
    insert("00000002", "bob");
    for (const char* answer : {"\n", "n\n", "what\n", "\x04"}) {
        const auto terminal = open({"delete", "--all"});
        terminal->waitFor("Log out 2 sessions? [y/N] ");
        terminal->type(answer);
        EXPECT_EQ(terminal->wait(), (ExitStatus{.bySignal = false, .value = 1}));
        EXPECT_THAT(terminal->output(), HasSubstr("sessionctl: No session was deleted.\n"));
    }
    EXPECT_EQ(store().llen(membersKey), 2);
    const auto terminal = open({"delete", "--all"});
    terminal->waitFor("[y/N] ");
    terminal->type("y\n");
    EXPECT_EQ(terminal->wait(), ExitStatus{});
    EXPECT_THAT(terminal->output(), AllOf(HasSubstr("Session 00000001 of ann is deleted.\n"),
                                          HasSubstr("Session 00000002 of bob is deleted.\n")));
    EXPECT_EQ(store().llen(membersKey), 0);
}

TEST_F(DeleteAtATerminal, DoesNotAskWhenToldSo) {
    insert(someId, "ann");
    EXPECT_EQ(shown({"delete", "--all", "--yes"}), "Session 00000001 of ann is deleted.\n");
}

TEST_F(StatsAtATerminal, LeaveTheSourcesOutWhereTheyDoNotFit) {
    EXPECT_EQ(frontEnd().login(administrator.name, administrator.password).status(), "OK");
    for (const unsigned columns : {40U, 120U}) {
        const std::string text = shown({"stats"}, columns);
        EXPECT_THAT(text,
                    ContainsRegex(columns == 40 ? "\nCounted since [A-Z][a-z]+ [ 0-9:]+\\(audit"
                                                : " audit log, since [A-Z][a-z]+ [ 0-9:]+\n"));
        for (const std::string& line : splitLines(text)) {
            EXPECT_LE(line.size(), columns);
        }
    }
}

class OutsideOfTheRoot : public RunningSessionctlTest {};

TEST_F(OutsideOfTheRoot, EverythingIsAsItIsInside) {
    const Reply reply = frontEnd().login(administrator.name, administrator.password);
    ASSERT_EQ(reply.status(), "OK");
    const std::string id = reply.location().substr(reply.location().rfind('/') + 1);
    EXPECT_EQ(runOutside(controller, {"check"}).output, sessionctl({"check"}).output);
    EXPECT_THAT(runOutside(controller, {"list"}).output, HasSubstr(id));
    EXPECT_EQ(runOutside(controller, {"delete", id}).output,
              "Session " + id + " of admin is deleted.\n");
    EXPECT_FALSE(store().exists(reply.location()));
}

TEST_F(OutsideOfTheRoot, AFolderThatIsNoControllerIsRefused) {
    for (const auto& [folder, words] : std::map<std::string, std::string>{
             {controller.path("/nowhere"), "cannot be used: No such file or directory.\n"},
             {controller.path("/run"), "is not the root of a controller: it has no /etc.\n"}}) {
        const Outcome outcome = runOutside(controller, {"--root", folder, "list"});
        EXPECT_EQ(outcome.status, 1);
        EXPECT_THAT(outcome.errors, HasSubstr(words));
    }
}

}  // namespace
}  // namespace testbed
