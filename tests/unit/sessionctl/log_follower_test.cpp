#include "sessionctl/log_follower.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "support/temporary_folder.h"

namespace session_service::console {
namespace {

namespace fs = std::filesystem;

class LogFollower : public testing::Test {
  protected:
    void append(const std::string& text) { std::ofstream(log, std::ios::app) << text; }
    void rotate() { fs::rename(log, log + ".1"); }
    // The lines that are new.
    std::vector<std::string> read() {
        std::vector<std::string> lines;
        const auto next =
            readLog(log, position, [&](const std::string& line) { lines.push_back(line); });
        found = next.has_value();
        if (next) {
            position = next;
        }
        return lines;
    }

    using Lines = std::vector<std::string>;

    TemporaryFolder folder;
    const std::string log = folder.path() + "/log";
    std::optional<LogPosition> position;
    bool found = false;
};

TEST_F(LogFollower, ReadsEachLineOnce) {
    append("one\ntwo\n");
    EXPECT_EQ(read(), (Lines{"one", "two"}));
    EXPECT_EQ(read(), Lines{});
    append("three\n");
    EXPECT_EQ(read(), Lines{"three"});
}

TEST_F(LogFollower, LeavesALineUntilItIsComplete) {
    append("one\ntw");
    EXPECT_EQ(read(), Lines{"one"});
    append("o\n");
    EXPECT_EQ(read(), Lines{"two"});
}

TEST_F(LogFollower, BeginsWithTheLastRotation) {
    append("one\n");
    rotate();
    append("two\n");
    EXPECT_EQ(read(), (Lines{"one", "two"}));
}

TEST_F(LogFollower, ReadsTheRestOfARotatedLog) {
    append("one\n");
    read();
    append("two\n");
    rotate();
    append("three\n");
    EXPECT_EQ(read(), (Lines{"two", "three"}));
}

TEST_F(LogFollower, ReadsAnUnknownLogFromItsStart) {
    append("one\n");
    read();
    rotate();
    append("two\n");
    rotate();
    append("three\n");
    EXPECT_EQ(read(), Lines{"three"});
}

// The same file number, and longer than what was read.
TEST_F(LogFollower, ReadsALogThatWasReplacedFromItsStart) {
    append("one\n");
    read();
    fs::resize_file(log, 0);
    append("three\nfour\n");
    EXPECT_EQ(read(), (Lines{"three", "four"}));
}

TEST_F(LogFollower, ReadsALogThatWasCutFromItsStart) {
    append("one\ntwo\n");
    read();
    fs::resize_file(log, 0);
    append("three\n");
    EXPECT_EQ(read(), Lines{"three"});
}

TEST_F(LogFollower, FindsNoLog) {
    EXPECT_EQ(read(), Lines{});
    EXPECT_FALSE(found);
    fs::create_directory(log);
    EXPECT_EQ(read(), Lines{});
    EXPECT_FALSE(found);
}

TEST_F(LogFollower, ReadsLongLinesAndAnyBytes) {
    const std::string line(10000, '\xff');
    append(line + "\n\n");
    EXPECT_EQ(read(), (Lines{line, ""}));
    EXPECT_TRUE(found);
}

}  // namespace
}  // namespace session_service::console
