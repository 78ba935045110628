#include "frame/logger.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <limits>
#include <optional>
#include <sstream>
#include <thread>

#include "support/captured_output.h"
#include "support/fixed_clock.h"
#include "support/temporary_folder.h"

namespace session_service {
namespace {

using Lines = std::vector<std::string>;

Lines linesOf(const std::string& text) {
    Lines lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

// What is left of each log line once its date and its seconds are gone.
Lines messagesOf(const std::string& log) {
    Lines messages;
    for (const std::string& line : linesOf(log)) {
        messages.push_back(line.substr(std::min(line.size(), line.find('['))));
    }
    return messages;
}

class Log : public testing::Test {
  protected:
    // Initialises the log with these settings; {LOG} stands for the path of the log file.
    // Returns what that wrote to standard error.
    std::string initialize(const std::string& settings) {
        const std::string placeholder = "{LOG}";
        std::string text = settings;
        for (std::size_t at = 0; (at = text.find(placeholder)) != std::string::npos;) {
            text.replace(at, placeholder.size(), folder.path("log"));
        }
        const std::string file = folder.write("settings", text);
        return standardErrorOf([&] { log.init(file.c_str()); });
    }

    std::string textOfLog() const { return folder.read("log"); }

    // The name of the rotated log, if there is one.
    std::optional<std::string> rotatedName() const {
        for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
            const std::string name = entry.path().filename();
            if (name.starts_with("log") && name.size() > 3 &&
                name.find_first_not_of("0123456789", 3) == std::string::npos) {
                return name;
            }
        }
        return std::nullopt;
    }

    // The log and what it was rotated to.
    std::set<std::string> filesOfTheLog() const {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
            const std::string name = entry.path().filename();
            if (name.starts_with("log")) {
                names.insert(name);
            }
        }
        return names;
    }

    TemporaryFolder folder;
    Logger log;
};

TEST_F(Log, CreatesItsFileAtStart) {
    EXPECT_EQ(initialize("LOG_FILE={LOG}\n"), "");
    EXPECT_TRUE(log.isFileEnabled());
    EXPECT_TRUE(folder.has("log"));
    EXPECT_EQ(textOfLog(), "");
}

TEST_F(Log, WritesDateSecondsTagAndMessage) {
    struct Moment {
        const char* zone;
        std::time_t seconds;
        const char* line;
    };
    for (const Moment& moment : {
             Moment{"UTC0", 1700000000, "Nov 14 22:13:20 1700000000 [Error]: count is 5\n"},
             Moment{"CST-8", 1700000000, "Nov 15 06:13:20 1700000000 [Error]: count is 5\n"},
             Moment{"UTC0", 1672531199, "Dec 31 23:59:59 1672531199 [Error]: count is 5\n"},
             Moment{"UTC0", 1709251200, "Mar  1 00:00:00 1709251200 [Error]: count is 5\n"},
             Moment{"UTC0", 0, "Jan  1 00:00:00 0 [Error]: count is 5\n"},
             Moment{"UTC0", 4294967296, "Feb  7 06:28:16 4294967296 [Error]: count is 5\n"},
         }) {
        const TimeZone here(moment.zone);
        const FixedClock clock(moment.seconds);
        initialize("LOG_FILE={LOG}\n");
        log.error("count is %d", 5);
        EXPECT_EQ(textOfLog(), moment.line);
    }
}

TEST_F(Log, LeavesTheDateOutWhenTheYearHasNoNumber) {
    const FixedClock clock(std::numeric_limits<std::time_t>::max());
    initialize("LOG_FILE={LOG}\n");
    EXPECT_EQ(standardErrorOf([&] { log.error("late"); }), "");
    EXPECT_EQ(textOfLog(), " 9223372036854775807 [Error]: late\n");
}

TEST_F(Log, AppendsOneLineAMessage) {
    initialize("LOG_FILE={LOG}\n");
    log.error("first");
    log.debug("second");
    log.error("%s", "");
    EXPECT_EQ(messagesOf(textOfLog()), (Lines{"[Error]: first", "[Debug]: second", "[Error]: "}));
}

TEST_F(Log, KeepsOnlyErrorsAtLevelError) {
    initialize("LOG_FILE={LOG}\nLOG_LEVEL=error\n");
    log.debug("small");
    log.error("grave");
    EXPECT_EQ(messagesOf(textOfLog()), Lines{"[Error]: grave"});
}

TEST_F(Log, KeepsDebugMessagesAtEveryOtherLevel) {
    for (const char* level : {"Error", "ERROR", "errors", "debug", "0", ""}) {
        Logger fresh;
        const std::string file =
            folder.write("settings", "LOG_FILE=" + folder.path("log") + "\nLOG_LEVEL=" + level);
        fresh.init(file.c_str());
        fresh.debug("small");
        EXPECT_EQ(messagesOf(textOfLog()), Lines{"[Debug]: small"}) << level;
    }
}

TEST_F(Log, OverwritesThePreviousLogWithoutABackupName) {
    folder.write("log", "previous run\n");
    initialize("LOG_FILE={LOG}\nLOG_FILE_BAK=\n");
    EXPECT_EQ(textOfLog(), "");
    EXPECT_FALSE(rotatedName());
}

TEST_F(Log, MovesThePreviousLogOverAnOlderBackup) {
    folder.write("log", "previous run\n");
    folder.write("log.bak", "run before\n");
    initialize("LOG_FILE={LOG}\nLOG_FILE_BAK={LOG}.bak\n");
    EXPECT_EQ(folder.read("log.bak"), "previous run\n");
    EXPECT_EQ(textOfLog(), "");
}

TEST_F(Log, StartsWithoutAPreviousLogToMove) {
    EXPECT_EQ(initialize("LOG_FILE={LOG}\nLOG_FILE_BAK={LOG}.bak\n"), "");
    EXPECT_FALSE(folder.has("log.bak"));
    EXPECT_TRUE(log.isFileEnabled());
}

TEST_F(Log, RotatesOnceTheFileHasReachedTheLimit) {
    initialize("LOG_FILE={LOG}\nLOG_FILE_SIZE=100\n");
    folder.write("log", std::string(99, 'x'));
    log.error("still fits");
    EXPECT_FALSE(rotatedName());

    const std::string full(100, 'x');
    folder.write("log", full);
    log.error("opens a new file");
    EXPECT_EQ(messagesOf(textOfLog()), Lines{"[Error]: opens a new file"});
    ASSERT_TRUE(rotatedName());
    EXPECT_EQ(folder.read(*rotatedName()), full);
    // Named after the moment, which the new line bears too.
    EXPECT_NE(textOfLog().find(' ' + rotatedName()->substr(3) + " [Error]"), std::string::npos);
}

TEST_F(Log, NeverRotatesWithoutAUsableLimit) {
    for (const char* limit : {"", "0", "-1", "-2147483648"}) {
        Logger fresh;
        const std::string file =
            folder.write("settings", "LOG_FILE=" + folder.path("log") + "\nLOG_FILE_SIZE=" + limit);
        EXPECT_EQ(standardErrorOf([&] { fresh.init(file.c_str()); }), "") << limit;
        fresh.error("first");
        fresh.error("second");
        EXPECT_EQ(messagesOf(textOfLog()).size(), 2U) << limit;
        EXPECT_FALSE(rotatedName()) << limit;
    }
}

TEST_F(Log, ReportsALimitThatIsNoNumberAndNeverRotates) {
    for (const char* limit : {"abc", "-", "2147483648", "-2147483649", "99999999999999999999"}) {
        Logger fresh;
        const std::string file =
            folder.write("settings", "LOG_FILE=" + folder.path("log") + "\nLOG_FILE_SIZE=" + limit);
        EXPECT_EQ(standardErrorOf([&] { fresh.init(file.c_str()); }), "Error: stoi\n") << limit;
        EXPECT_TRUE(fresh.isFileEnabled());
        fresh.error("first");
        fresh.error("second");
        EXPECT_FALSE(rotatedName()) << limit;
    }
}

TEST_F(Log, ReadsTheNumberInFrontOfALimit) {
    EXPECT_EQ(initialize("LOG_FILE={LOG}\nLOG_FILE_SIZE=1k\n"), "");
    log.error("first");
    EXPECT_FALSE(rotatedName());
    log.error("second");
    EXPECT_TRUE(rotatedName());
}

TEST_F(Log, GoesToStandardErrorWithoutAFileName) {
    const std::string notice =
        "Log filename is not specified. Messages will be written to stderr.\n";
    EXPECT_EQ(initialize(""), notice);
    EXPECT_EQ(initialize("LOG_FILE=\n"), notice);
    EXPECT_FALSE(log.isFileEnabled());
    EXPECT_EQ(standardErrorOf([&] { log.error("some %s", "thing"); }), "[Error]: some thing\n");
    EXPECT_EQ(standardErrorOf([&] { log.debug("small"); }), "[Debug]: small\n");
}

TEST_F(Log, GoesToStandardErrorWithoutSettings) {
    EXPECT_EQ(standardErrorOf([&] { log.init(folder.path("missing").c_str()); }),
              "Log filename is not specified. Messages will be written to stderr.\n");
    EXPECT_EQ(standardErrorOf([&] { log.error("message"); }), "[Error]: message\n");
}

TEST_F(Log, GoesToStandardErrorWhenTheFileCannotBeCreated) {
    EXPECT_EQ(initialize("LOG_FILE={LOG}/no/folder\nLOG_LEVEL=error\n"),
              "Failed to create the log filename - " + folder.path("log/no/folder") +
                  " Messages will be written to stderr.\n");
    EXPECT_FALSE(log.isFileEnabled());
    EXPECT_EQ(standardErrorOf([&] { log.error("message"); }), "[Error]: message\n");
    EXPECT_EQ(standardErrorOf([&] { log.debug("small"); }), "") << "the level still counts";
}

TEST_F(Log, GoesToStandardErrorWhileTheFileCannotBeOpened) {
    std::filesystem::create_directory(folder.path("logs"));
    initialize("LOG_FILE={LOG}s/log\n");
    std::filesystem::remove_all(folder.path("logs"));
    EXPECT_EQ(standardErrorOf([&] { log.error("lost"); }), "[Error]: lost\n");
    EXPECT_TRUE(log.isFileEnabled());

    std::filesystem::create_directory(folder.path("logs"));
    EXPECT_EQ(standardErrorOf([&] { log.error("found"); }), "");
    EXPECT_EQ(messagesOf(folder.read("logs/log")), Lines{"[Error]: found"});
}

TEST_F(Log, GoesToStandardErrorWhenTheDiskIsFull) {
    initialize("LOG_FILE=/dev/full\n");
    EXPECT_TRUE(log.isFileEnabled());
    EXPECT_EQ(standardErrorOf([&] { log.error("message"); }), "[Error]: message\n");
}

TEST_F(Log, LeavesItsLinesToARunningCollector) {
    // This process stands for the collector.
    const std::string name = program_invocation_short_name;
    EXPECT_EQ(initialize("LOG_SYSTEM=" + name + "\nLOG_FILE={LOG}\nLOG_LEVEL=error\n"),
              name + " is found. Messages will be written to stderr.\n");
    EXPECT_FALSE(log.isFileEnabled());
    EXPECT_FALSE(folder.has("log"));
    EXPECT_EQ(standardErrorOf([&] { log.debug("message"); }), "[Debug]: message\n");
}

TEST_F(Log, UsesItsFileWhenTheCollectorDoesNotRun) {
    for (const char* collector : {"no-such-collector", ""}) {
        standardErrorOf(
            [&] { initialize(std::string("LOG_SYSTEM=") + collector + "\nLOG_FILE={LOG}\n"); });
        EXPECT_TRUE(log.isFileEnabled()) << collector;
    }
}

TEST_F(Log, WritesControlCharactersAsDigits) {
    initialize("LOG_FILE={LOG}\n");
    log.error("%s does not pass", "eve\n[Error]: forged\r\t\x1b\x7f");
    EXPECT_EQ(messagesOf(textOfLog()),
              Lines{"[Error]: eve\\x0a[Error]: forged\\x0d\\x09\\x1b\\x7f does not pass"});
    EXPECT_EQ(standardErrorOf([] {
                  Logger other;
                  other.error("%s", "\x01 first");
              }),
              "[Error]: \\x01 first\n");
}

TEST_F(Log, LeavesTextBeyondAsciiAndBackslashesAlone) {
    initialize("LOG_FILE={LOG}\n");
    log.error("%s", "J\xc3\xbcrgen \\x41");
    EXPECT_EQ(messagesOf(textOfLog()), Lines{"[Error]: J\xc3\xbcrgen \\x41"});
}

TEST_F(Log, NeverReadsAnArgumentAsAFormat) {
    initialize("LOG_FILE={LOG}\n");
    log.error("%s does not pass", "100%s%n%d%%");
    EXPECT_EQ(messagesOf(textOfLog()), Lines{"[Error]: 100%s%n%d%% does not pass"});
}

TEST_F(Log, WritesLongMessagesWhole) {
    initialize("LOG_FILE={LOG}\n");
    const std::string longText(100000, 'x');
    log.error("%s", longText.c_str());
    EXPECT_EQ(messagesOf(textOfLog()), Lines{"[Error]: " + longText});
}

TEST_F(Log, KeepsTheLinesOfManyThreadsWhole) {
    initialize("LOG_FILE={LOG}\n");
    constexpr int threadCount = 8;
    constexpr int messageCount = 100;
    const std::string filler(500, 'x');
    std::vector<std::thread> threads;
    for (int thread = 0; thread < threadCount; ++thread) {
        threads.emplace_back([&, thread] {
            for (int message = 0; message < messageCount; ++message) {
                log.debug("%d/%d %s", thread, message, filler.c_str());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const Lines messages = messagesOf(textOfLog());
    std::set<std::string> expected;
    for (int thread = 0; thread < threadCount; ++thread) {
        for (int message = 0; message < messageCount; ++message) {
            expected.insert("[Debug]: " + std::to_string(thread) + '/' + std::to_string(message) +
                            ' ' + filler);
        }
    }
    EXPECT_EQ(messages.size(), expected.size());
    EXPECT_EQ(std::set<std::string>(messages.begin(), messages.end()), expected);
}

TEST_F(Log, RotatedTwiceWithinASecondKeepsTheLastFileOfThatSecond) {
    FixedClock clock(1700000000);
    initialize("LOG_FILE={LOG}\nLOG_FILE_SIZE=1\n");
    log.error("first");
    log.error("second");
    log.error("third");
    EXPECT_EQ(messagesOf(textOfLog()), Lines{"[Error]: third"});
    EXPECT_EQ(messagesOf(folder.read("log1700000000")), Lines{"[Error]: second"});
    EXPECT_EQ(filesOfTheLog(), (std::set<std::string>{"log", "log1700000000"}));

    clock.set(1700000001);
    EXPECT_EQ(standardErrorOf([&] { log.error("fourth"); }), "");
    EXPECT_EQ(messagesOf(textOfLog()), Lines{"[Error]: fourth"});
    EXPECT_EQ(messagesOf(folder.read("log1700000001")), Lines{"[Error]: third"});
    EXPECT_EQ(messagesOf(folder.read("log1700000000")), Lines{"[Error]: second"});
    EXPECT_EQ(filesOfTheLog(), (std::set<std::string>{"log", "log1700000000", "log1700000001"}));
}

TEST_F(Log, BeginsANewFileWhereTheOldOneWasDeleted) {
    for (const char* size : {"", "LOG_FILE_SIZE=1\n", "LOG_FILE_SIZE=100000\n"}) {
        Logger fresh;
        const std::string file =
            folder.write("settings", "LOG_FILE=" + folder.path("log") + "\n" + size);
        fresh.init(file.c_str());
        fresh.error("lost");
        std::filesystem::remove(folder.path("log"));
        EXPECT_EQ(standardErrorOf([&] { fresh.error("kept"); }), "") << size;
        EXPECT_EQ(messagesOf(textOfLog()), Lines{"[Error]: kept"}) << size;
        EXPECT_EQ(filesOfTheLog(), std::set<std::string>{"log"}) << size;
    }
}

}  // namespace
}  // namespace session_service
