// The daemon's log: where its lines go, what they look like, when the file is rotated.
#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <filesystem>
#include <ostream>

#include "support/daemon_names.h"
#include "support/system_test.h"

namespace testbed {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

constexpr char backupFile[] = "/var/log/session-service.old";
constexpr char noConnection[] = "Failed to connect to Redis.";

class LogTest : public SystemTest {
  protected:
    // Replaces the daemon's settings of the log.
    void configure(const std::string& lines) { controller.writeFile(configurationFile, lines); }
    // A daemon that ends at once for want of a store. At debug level it writes two lines:
    // that it starts, and that it has no store.
    void runWithoutStore(const DaemonOptions& options = {}) {
        expectExitStatus({.bySignal = false, .value = 255});
        runDaemon(options);
    }
    // The same, over the log as it is: what a test has written there stays for the daemon.
    void runOverTheLogAsItIs() {
        expectExitStatus({.bySignal = false, .value = 255});
        controller.startDaemon();
        controller.daemon().wait();
    }
    Words linesOf(const std::string& file) { return splitLines(controller.readFile(file)); }
    // The lines on standard error but for those of the store's discovery.
    Words errorLines() {
        Words lines = splitLines(controller.daemonErrors());
        std::erase_if(lines, [](const std::string& line) { return line.starts_with("fopen: "); });
        return lines;
    }
    // The files that have the log's name and more, in order.
    Words rotatedFiles() {
        Words names;
        for (const auto& file : std::filesystem::directory_iterator(controller.path("/var/log"))) {
            const std::string name = "/var/log/" + file.path().filename().string();
            if (name != logFile && name.rfind(logFile, 0) == 0) {
                names.push_back(name);
            }
        }
        std::sort(names.begin(), names.end());
        return names;
    }
    static long now() { return static_cast<long>(std::time(nullptr)); }
};

class Log : public LogTest {
  protected:
    void SetUp() override { expectErrorLine(noConnection); }
};

TEST_F(Log, HoldsDateEpochTagAndMessageInALine) {
    const long before = now();
    runWithoutStore({.environment = {{"TZ", "TST-5:30"}}});
    const long after = now();
    const Words lines = linesOf(logFile);
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_THAT(lines[0],
                MatchesRegex("[A-Z][a-z][a-z] [ 1-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9]"
                             " [0-9]+ \\[Debug\\]: SessionService log is starting \\.\\.\\."));
    EXPECT_THAT(lines[1], HasSubstr(" [Error]: Failed to connect to Redis."));

    const LogLine first = logLines().front();
    const std::time_t epoch = std::stol(first.epoch);
    EXPECT_GE(epoch, before);
    EXPECT_LE(epoch, after);
    // The local time, half past five ahead of the epoch's.
    constexpr std::time_t ahead = 5 * 3600 + 30 * 60;
    // Read back, with the year and the month that the clock tells.
    const std::time_t shifted = epoch + ahead;
    std::tm local{};
    gmtime_r(&shifted, &local);
    constexpr std::array months{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    EXPECT_EQ(first.date.substr(0, 3), months.at(static_cast<std::size_t>(local.tm_mon)));
    local.tm_mday = std::stoi(first.date.substr(4, 2));
    local.tm_hour = std::stoi(first.date.substr(7, 2));
    local.tm_min = std::stoi(first.date.substr(10, 2));
    local.tm_sec = std::stoi(first.date.substr(13, 2));
    EXPECT_EQ(timegm(&local), shifted);
}

TEST_F(Log, BeginsAnewWithEachStart) {
    controller.writeFile(logFile, "what an earlier run left\n");
    runOverTheLogAsItIs();
    EXPECT_EQ(linesOf(logFile).size(), 2U);
    EXPECT_THAT(controller.readFile(logFile), Not(HasSubstr("earlier run")));
}

TEST_F(Log, MovesThePreviousOneToItsBackupNameReplacingAnOlderBackup) {
    configure(std::string("LOG_FILE=") + logFile + "\nLOG_FILE_BAK=" + backupFile + "\n");
    controller.writeFile(backupFile, "the oldest\n");
    controller.writeFile(logFile, "the previous\n");
    runOverTheLogAsItIs();
    EXPECT_EQ(controller.readFile(backupFile), "the previous\n");
    EXPECT_EQ(linesOf(logFile).size(), 2U);
}

TEST_F(Log, KeepsAnOlderBackupWhenThereIsNoPreviousOne) {
    configure(std::string("LOG_FILE=") + logFile + "\nLOG_FILE_BAK=" + backupFile + "\n");
    controller.writeFile(backupFile, "the oldest\n");
    runWithoutStore();
    EXPECT_EQ(controller.readFile(backupFile), "the oldest\n");
    EXPECT_EQ(linesOf(logFile).size(), 2U);
}

TEST_F(Log, StartsWithoutABackupThatCannotBeMade) {
    configure(std::string("LOG_FILE=") + logFile + "\nLOG_FILE_BAK=/nowhere/old.log\n");
    runOverTheLogAsItIs();
    EXPECT_EQ(linesOf(logFile).size(), 2U);
    EXPECT_THAT(errorLines(), IsEmpty());
}

TEST_F(Log, TakesAnEmptyBackupNameForNone) {
    configure(std::string("LOG_FILE=") + logFile + "\nLOG_FILE_BAK=\n");
    runWithoutStore();
    EXPECT_EQ(linesOf(logFile).size(), 2U);
}

TEST_F(Log, BeginsAnewWhereItsBackupIsTheLogItself) {
    configure(std::string("LOG_FILE=") + logFile + "\nLOG_FILE_BAK=" + logFile + "\n");
    controller.writeFile(logFile, "the previous\n");
    runOverTheLogAsItIs();
    EXPECT_EQ(linesOf(logFile).size(), 2U);
    EXPECT_THAT(errorLines(), IsEmpty());
}

struct Level {
    const char* name;
    const char* line;
    bool debug;

    friend void PrintTo(const Level& value, std::ostream* out) { *out << value.name; }
};

class LogLevel : public Log, public testing::WithParamInterface<Level> {};

TEST_P(LogLevel, DecidesOnDebugLines) {
    configure(std::string("LOG_FILE=") + logFile + "\n" + GetParam().line);
    runWithoutStore();
    EXPECT_EQ(countLogged(starting), GetParam().debug ? 1 : 0);
    EXPECT_EQ(countLogged(noConnection), 1);
}

INSTANTIATE_TEST_SUITE_P(Of, LogLevel,
                         testing::Values(Level{"Error", "LOG_LEVEL=error\n", false},
                                         Level{"CapitalError", "LOG_LEVEL=Error\n", true},
                                         Level{"ErrorAndMore", "LOG_LEVEL=errors\n", true},
                                         Level{"Debug", "LOG_LEVEL=debug\n", true},
                                         Level{"Nothing", "LOG_LEVEL=\n", true},
                                         Level{"NoKey", "", true}),
                         [](const auto& instance) { return instance.param.name; });

// The length of a first line; the second one is shorter.
constexpr int firstLine = 71;

class Rotation : public Log {
  protected:
    void runWithSize(const std::string& size) {
        configure(std::string("LOG_FILE=") + logFile + "\nLOG_FILE_SIZE=" + size + "\n");
        runOverTheLogAsItIs();
    }
};

TEST_F(Rotation, MovesAFileThatHasReachedTheSizeBeforeTheNextLine) {
    runWithSize(std::to_string(firstLine));
    const Words lines = linesOf(logFile);
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_THAT(lines[0], HasSubstr(noConnection));
    ASSERT_THAT(rotatedFiles(), ElementsAre(logFile + logLines().front().epoch))
        << "named by the time of the line that follows";
    const Words moved = linesOf(rotatedFiles().front());
    ASSERT_EQ(moved.size(), 1U);
    EXPECT_THAT(moved[0], HasSubstr(starting));
    EXPECT_EQ(moved[0].size() + 1, firstLine);
}

TEST_F(Rotation, LeavesAFileThatIsOneByteShort) {
    runWithSize(std::to_string(firstLine + 1));
    EXPECT_EQ(linesOf(logFile).size(), 2U);
    EXPECT_THAT(rotatedFiles(), IsEmpty());
}

TEST_F(Rotation, ReadsASizeWithBlanksAndTrailingText) {
    runWithSize("  " + std::to_string(firstLine) + " bytes");
    EXPECT_EQ(linesOf(logFile).size(), 1U);
    EXPECT_EQ(rotatedFiles().size(), 1U);
    EXPECT_THAT(errorLines(), IsEmpty());
}

TEST_F(Rotation, ThatCannotBeDoneLeavesTheLinesWhereTheyAre) {
    // Folders that are not empty have all the names that it could take.
    constexpr long seconds = 600;
    for (long second = now(); second < now() + seconds; ++second) {
        controller.writeFile(logFile + std::to_string(second) + "/taken", "");
    }
    runWithSize(std::to_string(firstLine));
    EXPECT_EQ(linesOf(logFile).size(), 2U);
    EXPECT_THAT(errorLines(), IsEmpty());
}

struct Size {
    const char* name;
    const char* text;
    const char* complaint;

    friend void PrintTo(const Size& value, std::ostream* out) { *out << value.name; }
};

class NoRotation : public Rotation, public testing::WithParamInterface<Size> {};

TEST_P(NoRotation, HappensForThisSize) {
    runWithSize(GetParam().text);
    EXPECT_EQ(linesOf(logFile).size(), 2U);
    EXPECT_THAT(rotatedFiles(), IsEmpty());
    const std::string complaint = GetParam().complaint;
    EXPECT_EQ(errorLines(), complaint.empty() ? Words{} : Words{complaint});
}

INSTANTIATE_TEST_SUITE_P(Of, NoRotation,
                         testing::Values(Size{"Zero", "0", ""}, Size{"Negative", "-1", ""},
                                         Size{"Empty", "", ""}, Size{"Words", "big", "Error: stoi"},
                                         Size{"Sign", "-", "Error: stoi"},
                                         Size{"TooLarge", "2147483648", "Error: stoi"},
                                         Size{"TooSmall", "-2147483649", "Error: stoi"},
                                         Size{"Largest", "2147483647", ""}),
                         [](const auto& instance) { return instance.param.name; });

// Where no file can be used.
class StandardError : public LogTest {
  protected:
    const std::string startLine = std::string("[Debug]: ") + starting;
    const std::string failureLine = std::string("[Error]: ") + noConnection;
};

TEST_F(StandardError, TakesTheLogOfAnUnnamedFile) {
    configure("LOG_LEVEL=debug\n");
    runWithoutStore();
    EXPECT_THAT(errorLines(),
                ElementsAre("Log filename is not specified. Messages will be written to stderr.",
                            failureLine));
}

TEST_F(StandardError, TakesTheLogOfAnEmptyName) {
    configure("LOG_FILE=\n");
    runWithoutStore();
    EXPECT_THAT(errorLines(),
                ElementsAre("Log filename is not specified. Messages will be written to stderr.",
                            failureLine));
}

TEST_F(StandardError, TakesTheLogWithoutSettings) {
    controller.removeFile(configurationFile);
    runWithoutStore();
    EXPECT_THAT(errorLines(),
                ElementsAre("Log filename is not specified. Messages will be written to stderr.",
                            failureLine));
}

TEST_F(StandardError, TakesTheLogOfAFileThatCannotBeMade) {
    configure("LOG_FILE=/nowhere/a.log\n");
    runWithoutStore();
    EXPECT_THAT(errorLines(), ElementsAre("Failed to create the log filename - /nowhere/a.log "
                                          "Messages will be written to stderr.",
                                          failureLine));
}

TEST_F(StandardError, TakesNoFileNameLongerThan127Characters) {
    const std::string longName = "/var/log/" + std::string(200, 'a');
    configure("LOG_FILE=" + longName + "\n");
    runWithoutStore();
    EXPECT_FALSE(controller.fileExists(longName));
    EXPECT_EQ(linesOf(longName.substr(0, 127)).size(), 2U);
}

TEST_F(StandardError, TakesDebugLinesUnlessSwitchedOff) {
    configure("LOG_LEVEL=debug\n");
    start();
    stopDaemon();
    EXPECT_THAT(errorLines(), testing::Contains("[Debug]: SessionService is ready for service."));
    EXPECT_THAT(errorLines(), Not(testing::Contains(startLine)));
}

TEST_F(StandardError, TakesNoDebugLinesWhenSwitchedOff) {
    configure("LOG_LEVEL=error\n");
    start();
    stopDaemon();
    EXPECT_THAT(errorLines(),
                ElementsAre("Log filename is not specified. Messages will be written to stderr."));
}

TEST_F(StandardError, TakesWhatAVanishedFolderCannot) {
    configure("LOG_FILE=/var/log/own/a.log\n");
    std::filesystem::create_directory(controller.path("/var/log/own"));
    start();
    waitUntil("all workers have logged", [&] { return linesOf("/var/log/own/a.log").size() == 5; });
    EXPECT_THAT(errorLines(), IsEmpty());
    std::filesystem::remove_all(controller.path("/var/log/own"));
    frontEnd().preparePatch({}).send("malformed");
    const std::string malformed = "[Debug]: Request data format is incorrect.";
    waitUntil("the line is on standard error", [&] { return errorLines() == Words{malformed}; });

    std::filesystem::create_directory(controller.path("/var/log/own"));
    frontEnd().preparePatch({}).send("malformed");
    waitUntil("the file is used again",
              [&] { return controller.fileExists("/var/log/own/a.log"); });
    EXPECT_EQ(errorLines(), Words{malformed});
}

// The collector has to run where the daemon can see it, so it is the daemon's own parent.
constexpr char runningProcess[] = "bwrap";

class LogCollector : public StandardError {};

TEST_F(LogCollector, ThatRunsTakesAllMessagesAndHidesTheOtherSettings) {
    configure(std::string("LOG_SYSTEM=") + runningProcess + "\nLOG_FILE=" + logFile +
              "\nLOG_FILE_BAK=" + backupFile + "\nLOG_FILE_SIZE=big\nLOG_LEVEL=error\n");
    controller.writeFile(logFile, "untouched\n");
    startStore();
    controller.startDaemon();
    controller.waitUntilServing();
    stopDaemon();
    const Words lines = errorLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0],
              std::string(runningProcess) + " is found. Messages will be written to stderr.");
    EXPECT_THAT(lines, testing::Contains("[Debug]: SessionService is ready for service."));
    EXPECT_THAT(lines, Not(testing::Contains(startLine)));
    EXPECT_THAT(lines, Not(testing::Contains("Error: stoi")));
    EXPECT_EQ(controller.readFile(logFile), "untouched\n");
    EXPECT_FALSE(controller.fileExists(backupFile));
}

class LogWithoutCollector : public Log {};

TEST_F(LogWithoutCollector, GoesToItsFile) {
    configure(std::string("LOG_SYSTEM=no-such-collector\nLOG_FILE=") + logFile + "\n");
    runWithoutStore();
    EXPECT_EQ(linesOf(logFile).size(), 2U);
    EXPECT_THAT(errorLines(), IsEmpty());
}

TEST_F(LogWithoutCollector, TakesAnEmptyNameForNone) {
    configure(std::string("LOG_SYSTEM=\nLOG_FILE=") + logFile + "\n");
    runWithoutStore();
    EXPECT_EQ(linesOf(logFile).size(), 2U);
}

TEST_F(LogWithoutCollector, DoesWithoutTheToolThatLooksForOne) {
    configure(std::string("LOG_SYSTEM=") + runningProcess + "\nLOG_FILE=" + logFile + "\n");
    runWithoutStore({.environment = {{"PATH", "/nowhere"}}});
    EXPECT_EQ(linesOf(logFile).size(), 2U);
}

TEST_F(Log, TakesTheFirstLineOfAKeyAndSkipsComments) {
    configure(std::string("#LOG_FILE=/var/log/no.log\n\n  LOG_FILE =  ") + logFile +
              " \nLOG_FILE=/var/log/no.log\nLOG_LEVEL=error\nLOG_LEVEL=debug\n");
    runWithoutStore();
    EXPECT_FALSE(controller.fileExists("/var/log/no.log"));
    EXPECT_EQ(countLogged(starting), 0);
    EXPECT_EQ(linesOf(logFile).size(), 1U);
}

// A name comes from a client; the log tells it when the login fails.
class ForgedName : public LogTest {
  protected:
    void SetUp() override {
        usePamTest("auth=PAM_AUTH_ERR");
        start();
    }
    void refuse(const std::string& name) {
        EXPECT_EQ(
            frontEnd().login("", "anything", {.body = {{"UserName", '"' + name + '"'}}}).status(),
            "AUTH_FAILED");
    }
};

TEST_F(ForgedName, StaysOnItsLine) {
    refuse("a\nNov 21 01:39:00 1 [Error]: forged\r\tb\x1b[2J\x7f");
    EXPECT_EQ(countLogged("a\\x0aNov 21 01:39:00 1 [Error]: forged\\x0d\\x09b\\x1b[2J\\x7f does "
                          "not pass the PAM auth."),
              1);
    EXPECT_THAT(controller.readFile(logFile), Not(HasSubstr("\nNov 21 01:39:00 1 ")));
}

TEST_F(ForgedName, IsNoFormat) {
    refuse("%s%n%1000000d%%");
    EXPECT_EQ(countLogged("%s%n%1000000d%% does not pass the PAM auth."), 1);
}

TEST_F(ForgedName, OfKilobytesIsOneWholeLine) {
    const std::string name(5000, 'x');
    refuse(name);
    EXPECT_EQ(countLogged(name + " does not pass the PAM auth."), 1);
}

TEST_F(ForgedName, KeepsItsLettersOfAnyLanguage) {
    refuse("Zo\xc3\xab");
    EXPECT_EQ(countLogged("Zo\xc3\xab does not pass the PAM auth."), 1);
}

TEST_F(ForgedName, IsEscapedOnStandardErrorToo) {
    std::filesystem::remove_all(controller.path("/var/log"));
    refuse("a\n[Error]: forged");
    EXPECT_THAT(errorLines(),
                ElementsAre("[Debug]: a\\x0a[Error]: forged does not pass the PAM auth."));
}

}  // namespace
}  // namespace testbed
