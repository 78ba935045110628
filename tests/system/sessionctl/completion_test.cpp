// The completion of sessionctl's command line in bash.
#include <gmock/gmock.h>

#include "support/sessionctl_test.h"

namespace testbed {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Not;
using testing::UnorderedElementsAre;

class Completion : public RunningSessionctlTest {
  protected:
    // What is offered for the last of the words.
    Words offered(const Words& words) {
        Words line{TEST_SESSIONCTL, "--root", controller.path("")};
        line.insert(line.end(), words.begin(), words.end());
        Words command{"env", "-i"};
        for (const auto& [name, value] : outsideEnvironment()) {
            command.push_back(name + "=" + value);
        }
        command.insert(command.end(),
                       {"bash", "--norc", "-euc",
                        ". " TEST_COMPLETION "\n"
                        "COMP_WORDS=(\"$@\") COMP_CWORD=$(($# - 1))\n"
                        "_sessionctl\n"
                        "for word in \"${COMPREPLY[@]}\"; do printf '%s\\n' \"$word\"; done",
                        "bash"});
        command.insert(command.end(), line.begin(), line.end());
        controller.writeFile("/tmp/offered", "");
        controller.writeFile("/tmp/offered.errors", "");
        const pid_t pid = spawn(command, {.output = controller.path("/tmp/offered"),
                                          .errors = controller.path("/tmp/offered.errors")});
        int status = 0;
        waitpid(pid, &status, 0);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(controller.readFile("/tmp/offered.errors"), "");
        return splitLines(controller.readFile("/tmp/offered"));
    }
};

TEST_F(Completion, OffersCommands) {
    EXPECT_THAT(offered({"d"}), UnorderedElementsAre("delete", "disable"));
    EXPECT_THAT(offered({""}), IsSupersetOf({"list", "watch", "stats", "help"}));
    EXPECT_THAT(offered({"help", "wa"}), ElementsAre("watch"));
    // All that there are.
    for (const std::string& command : offered({""})) {
        EXPECT_EQ(sessionctl({"help", command}).status, 0) << command;
    }
}

TEST_F(Completion, OffersTheOptionsOfACommand) {
    EXPECT_THAT(offered({"delete", "--"}), IsSupersetOf({"--all", "--user", "--json"}));
    EXPECT_THAT(offered({"list", "--"}), AllOf(Contains("--json"), Not(Contains("--all"))));
    EXPECT_THAT(offered({"stats", "--p"}), ElementsAre("--prometheus"));
    EXPECT_THAT(offered({"--timeout", ""}), IsEmpty());
}

TEST_F(Completion, OffersIdentifiers) {
    frontEnd().insertSession({.identifier = "0a000001"});
    frontEnd().insertSession({.identifier = "0b000002"});
    for (const char* command : {"show", "delete"}) {
        EXPECT_THAT(offered({command, ""}), UnorderedElementsAre("0a000001", "0b000002"));
        EXPECT_THAT(offered({command, "0b"}), ElementsAre("0b000002"));
    }
    EXPECT_THAT(offered({"delete", "0b000002", "0a"}), ElementsAre("0a000001"));
    EXPECT_THAT(offered({"list", ""}), IsEmpty());
}

TEST_F(Completion, OffersUsers) {
    frontEnd().insertSession({.identifier = "00000001", .userName = "ann"});
    frontEnd().insertSession({.identifier = "00000002", .userName = "ann"});
    frontEnd().insertSession({.identifier = "00000003", .userName = "bob"});
    EXPECT_THAT(offered({"delete", "--user", ""}), UnorderedElementsAre("ann", "bob"));
    EXPECT_THAT(offered({"login", "roo"}), Contains("root"));
}

TEST_F(Completion, RunsNothingThatANameHolds) {
    const std::string trace = controller.path("/tmp/trace");
    frontEnd().insertSession({.identifier = "00000001", .userName = "$(touch " + trace + ")"});
    frontEnd().insertSession({.identifier = "00000002", .userName = "`touch " + trace + "`"});
    frontEnd().insertSession({.identifier = "00000003", .userName = "\x1b[2J\n\"user\": \"x\""});
    store().run({"LPUSH", membersKey, "*; touch " + trace});
    const Words users = offered({"delete", "--user", ""});
    EXPECT_THAT(users, UnorderedElementsAre(R"(\$\(touch\ )" + trace + R"(\))",
                                            R"(\`touch\ )" + trace + R"(\`)"));
    EXPECT_THAT(offered({"delete", ""}), Contains(R"(\*\;\ touch\ )" + trace));
    EXPECT_FALSE(controller.fileExists("/tmp/trace"));
}

TEST_F(Completion, OffersNothingWithoutAStore) {
    stopDaemon();
    EXPECT_THAT(offered({"delete", ""}), IsEmpty());
}

}  // namespace
}  // namespace testbed
