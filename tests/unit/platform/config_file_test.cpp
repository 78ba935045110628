#include "platform/config_file.h"

#include <gtest/gtest.h>

#include <array>

#include "support/temporary_folder.h"

namespace session_service {
namespace {

class ConfigFile : public testing::Test {
  protected:
    // The value of the key in a file that holds the text; "(not found)" without one.
    std::string valueOf(const std::string& key, const std::string& text) {
        const std::string file = folder.write("settings.conf", text);
        std::array<char, 64> buffer{};
        const int status =
            getPropertyValue(file.c_str(), "=", key.c_str(), buffer.data(), buffer.size());
        return status == 0 ? buffer.data() : "(not found)";
    }

    TemporaryFolder folder;
};

TEST_F(ConfigFile, GivesTheValueOfItsKey) {
    EXPECT_EQ(valueOf("B", "A=1\nB=2\nC=3\n"), "2");
}

TEST_F(ConfigFile, NeedsNoLineFeedAtItsEnd) {
    EXPECT_EQ(valueOf("B", "A=1\nB=2"), "2");
}

TEST_F(ConfigFile, DropsBlanksAroundKeyAndValue) {
    EXPECT_EQ(valueOf("KEY", " \tKEY \t= \t two words \t\r\n"), "two words");
}

TEST_F(ConfigFile, TakesTheFirstLineThatGivesTheKey) {
    EXPECT_EQ(valueOf("KEY", "KEY=first\nKEY=second\n"), "first");
}

TEST_F(ConfigFile, SkipsEmptyLinesAndComments) {
    EXPECT_EQ(valueOf("KEY", "\n#KEY=commented\n   \nKEY=value\n"), "value");
    EXPECT_EQ(valueOf("#KEY", "#KEY=commented\n"), "(not found)");
}

TEST_F(ConfigFile, KeepsANumberSignThatDoesNotStartTheLine) {
    EXPECT_EQ(valueOf("KEY", "KEY=#1\n"), "#1");
}

TEST_F(ConfigFile, KeepsFurtherSeparatorsInTheValue) {
    EXPECT_EQ(valueOf("KEY", "KEY=a=b=c\n"), "a=b=c");
}

TEST_F(ConfigFile, FindsAKeyWithNothingAfterTheSeparator) {
    EXPECT_EQ(valueOf("KEY", "KEY=\nKEY=later\n"), "");
    EXPECT_EQ(valueOf("KEY", "KEY=  \n"), "");
}

TEST_F(ConfigFile, DoesNotFindALineWithoutASeparator) {
    EXPECT_EQ(valueOf("KEY", "KEY value\n"), "(not found)");
}

TEST_F(ConfigFile, ComparesTheWholeKeyAndItsCase) {
    EXPECT_EQ(valueOf("KEY", "KEYS=1\nMYKEY=2\nkey=3\n"), "(not found)");
}

TEST_F(ConfigFile, UsesTheSeparatorThatItIsGiven) {
    const std::string file = folder.write("settings.conf", "A=1: x\nKEY: value=1\n");
    std::array<char, 64> buffer{};
    EXPECT_EQ(getPropertyValue(file.c_str(), ": ", "KEY", buffer.data(), buffer.size()), 0);
    EXPECT_STREQ(buffer.data(), "value=1");
}

TEST_F(ConfigFile, CutsAValueToTheBuffer) {
    const std::string file = folder.write("settings.conf", "KEY=12345678\n");
    std::array<char, 6> buffer;
    buffer.fill('x');
    EXPECT_EQ(getPropertyValue(file.c_str(), "=", "KEY", buffer.data(), 5), 0);
    EXPECT_STREQ(buffer.data(), "1234");
    EXPECT_EQ(buffer[5], 'x') << "written behind the buffer";
}

TEST_F(ConfigFile, FindsAKeyWithoutRoomForItsValue) {
    const std::string file = folder.write("settings.conf", "KEY=value\n");
    char untouched = 'x';
    EXPECT_EQ(getPropertyValue(file.c_str(), "=", "KEY", &untouched, 0), 0);
    EXPECT_EQ(untouched, 'x');
}

TEST_F(ConfigFile, LeavesTheBufferAloneWhenTheKeyIsMissing) {
    const std::string file = folder.write("settings.conf", "A=1\n");
    std::array<char, 8> buffer{"before"};
    EXPECT_NE(getPropertyValue(file.c_str(), "=", "KEY", buffer.data(), buffer.size()), 0);
    EXPECT_STREQ(buffer.data(), "before");
}

TEST_F(ConfigFile, HasNoKeysWhenItCannotBeRead) {
    std::array<char, 8> buffer{"before"};
    for (const std::string& path : {folder.path("missing"), folder.path()}) {
        EXPECT_NE(getPropertyValue(path.c_str(), "=", "KEY", buffer.data(), buffer.size()), 0);
        EXPECT_EQ(getConfigValue(path.c_str(), "KEY", 128), "");
    }
    EXPECT_STREQ(buffer.data(), "before");
}

TEST_F(ConfigFile, GivesTheValueAsText) {
    const std::string file = folder.write("settings.conf", "KEY = some text\nEMPTY=\n");
    EXPECT_EQ(getConfigValue(file.c_str(), "KEY", 128), "some text");
    EXPECT_EQ(getConfigValue(file.c_str(), "KEY", 5), "some");
    EXPECT_EQ(getConfigValue(file.c_str(), "KEY", 0), "");
    EXPECT_EQ(getConfigValue(file.c_str(), "EMPTY", 128), "");
    EXPECT_EQ(getConfigValue(file.c_str(), "ABSENT", 128), "");
}

}  // namespace
}  // namespace session_service
