#include "base/text_file.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "support/temporary_folder.h"

namespace session_service {
namespace {

using Lines = std::vector<std::string>;

class TextFile : public testing::Test {
  protected:
    // The lines of a file that holds the text.
    Lines linesOf(const std::string& text) {
        Lines lines;
        const std::string path = folder.write("file", text);
        EXPECT_EQ(readLines(path.c_str(),
                            [&](const std::string& line) {
                                lines.push_back(line);
                                return true;
                            })
                      .status,
                  ReadStatus::complete);
        return lines;
    }

    TemporaryFolder folder;
};

TEST_F(TextFile, ComesLineByLineWithoutLineFeeds) {
    EXPECT_EQ(linesOf("one\n\n two \r\nlast"), (Lines{"one", "", " two \r", "last"}));
    EXPECT_EQ(linesOf("one\n"), Lines{"one"});
    EXPECT_EQ(linesOf("\n"), Lines{""});
    EXPECT_EQ(linesOf(""), Lines{});
}

TEST_F(TextFile, KeepsLongLinesAndZeroBytesWhole) {
    const std::string longLine(100000, 'x');
    const std::string zero("a\0b", 3);
    EXPECT_EQ(linesOf(longLine + '\n' + zero), (Lines{longLine, zero}));
}

TEST_F(TextFile, StopsWhenNoMoreIsWanted) {
    Lines lines;
    const std::string path = folder.write("file", "one\ntwo\nthree\n");
    EXPECT_EQ(readLines(path.c_str(),
                        [&](const std::string& line) {
                            lines.push_back(line);
                            return line != "two";
                        })
                  .status,
              ReadStatus::complete);
    EXPECT_EQ(lines, (Lines{"one", "two"}));
}

TEST_F(TextFile, TellsThatItCannotBeOpened) {
    EXPECT_EQ(
        readLines(folder.path("missing").c_str(), [](const std::string&) { return true; }).status,
        ReadStatus::notOpened);
}

TEST_F(TextFile, TellsThatReadingBrokeOff) {
    // A folder can be opened, but not read.
    const ReadOutcome outcome =
        readLines(folder.path().c_str(), [](const std::string&) { return true; });
    EXPECT_EQ(outcome.status, ReadStatus::failed);
    EXPECT_EQ(outcome.error, EISDIR);
}

}  // namespace
}  // namespace session_service
