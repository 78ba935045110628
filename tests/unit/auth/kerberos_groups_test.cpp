#include "auth/kerberos_groups.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "support/captured_output.h"
#include "support/temporary_folder.h"

namespace session_service {
namespace {

using Arguments = std::vector<std::string>;

// A tool in the place of the real one that prints its arguments, a zero byte after each.
class KadminCommand : public testing::Test {
  protected:
    KadminCommand() {
        using std::filesystem::perms;
        std::filesystem::permissions(folder.write("kadmin", "#!/bin/sh\nprintf '%s\\0' \"$@\"\n"),
                                     perms::owner_all);
    }

    // What the tool receives from the shell.
    Arguments argumentsFor(const std::string& userName, const std::string& password) {
        const std::string command = composeKadminCommand(userName, password);
        const std::string output = executeCommand("PATH='" + folder.path() + "':\"$PATH\"; cd '" +
                                                  folder.path() + "'; " + command);
        Arguments arguments;
        std::size_t start = 0;
        for (std::size_t end = 0; (end = output.find('\0', start)) != std::string::npos;
             start = end + 1) {
            arguments.push_back(output.substr(start, end - start));
        }
        EXPECT_EQ(start, output.size()) << "the tool did not write all of the output: " << output;
        return arguments;
    }

    TemporaryFolder folder;
};

TEST_F(KadminCommand, QuotesTheNameAndThePassword) {
    EXPECT_EQ(composeKadminCommand("eve", "correct horse"),
              "kadmin -p 'eve' -w 'correct horse' getstrs 'eve'");
}

TEST_F(KadminCommand, EndsItsTextsWherePamEndsThem) {
    using namespace std::string_literals;
    EXPECT_EQ(composeKadminCommand("eve\0x"s, "secret\0' more"s),
              "kadmin -p 'eve' -w 'secret' getstrs 'eve'");
}

TEST_F(KadminCommand, GivesTheToolEveryTextAsOneArgument) {
    for (const std::string& text :
         {std::string("plain"), std::string("two  words "), std::string("it's"), std::string("'"),
          std::string("''''"), std::string("'; touch planted; '"), std::string("$(touch planted)"),
          std::string("`touch planted`"), std::string("a\ntouch planted\n"), std::string("$HOME"),
          std::string("\"quoted\" \\back\\"), std::string("* ? [a] ~ ! # & | > planted"),
          std::string("%s%n"), std::string("-w"), std::string("--"), std::string("\x01\x1b\x7f"),
          std::string("caf\xc3\xa9 \xff"), std::string(), std::string(5000, '\'')}) {
        EXPECT_EQ(argumentsFor(text, "password"),
                  (Arguments{"-p", text, "-w", "password", "getstrs", text}));
        EXPECT_EQ(argumentsFor("eve", text),
                  (Arguments{"-p", "eve", "-w", text, "getstrs", "eve"}));
    }
    EXPECT_FALSE(folder.has("planted"));
}

TEST(ExecuteCommand, ReturnsAllThatTheCommandWrites) {
    EXPECT_EQ(executeCommand("echo one; echo two; exit 3"), "one\ntwo\n");
    EXPECT_EQ(executeCommand("head -c 100000 /dev/zero").size(), 100000U);
    EXPECT_EQ(executeCommand("true"), "");
}

TEST(ExecuteCommand, LogsThatTheCommandCannotBeStarted) {
    std::string output = "before";
    EXPECT_EQ(
        standardErrorOf([&] { output = executeCommand("true " + std::string(1 << 20, 'x')); }),
        "[Error]: Failed to execute command.\n");
    EXPECT_EQ(output, "");
}

}  // namespace
}  // namespace session_service
