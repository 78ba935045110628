#include "service/persistent_properties.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "support/captured_output.h"
#include "support/fake_file.h"
#include "support/scripted_store.h"
#include "support/temporary_folder.h"

namespace session_service {
namespace {

const std::string realPath = "/var/nginx/SessionPersistentProp.conf";
const std::string service = "/redfish/v1/SessionService";

// The property file is one in a folder of the test's own.
class PropertyFile : public testing::Test {
  protected:
    // The file after it held the text and the properties were saved.
    std::string saved(const std::string& text, const FieldMap& properties) {
        folder.write("properties", text);
        savePersistentProperties(properties);
        return folder.read("properties");
    }

    TemporaryFolder folder;
    FakeFile replaced{realPath, folder.path("properties")};
};

TEST_F(PropertyFile, IsLoadedOneCommandALine) {
    folder.write("properties", "# comment\nA=1\n\nB=two words\nA=3=4\n");
    const ScriptedStore peer({resp::integer(1), resp::integer(1), resp::integer(0)});
    EXPECT_EQ(standardErrorOf([&] { loadPersistentProperties(peer.connection()); }), "");
    EXPECT_EQ(peer.commands(), (Commands{{"HSET", service, "A", "1"},
                                         {"HSET", service, "B", "two", "words"},
                                         {"HSET", service, "A", "3=4"}}));
}

TEST_F(PropertyFile, IsLoadedOnWhenAPropertyIsAnsweredWithAnythingButAnInteger) {
    folder.write("properties", "A=1\nB=2\nC=3\nD=4\nE=5\nF=6\n");
    const ScriptedStore peer({resp::status("OK"), resp::nil(), resp::bulk("1"), resp::array({}),
                              resp::error("ERR refused"), resp::integer(-1)});
    EXPECT_EQ(standardErrorOf([&] { loadPersistentProperties(peer.connection()); }),
              "[Debug]: Failed to set persistent property A.\n"
              "[Debug]: Failed to set persistent property B.\n"
              "[Debug]: Failed to set persistent property C.\n"
              "[Debug]: Failed to set persistent property D.\n"
              "[Debug]: Failed to set persistent property E.\n");
    EXPECT_EQ(peer.commands().size(), 6U);
}

TEST_F(PropertyFile, GivesALineToTheFirstPropertyThatItMentions) {
    EXPECT_EQ(saved("B=0 and A\nC=0\nA=B\n#B\n", {{"B", "2"}, {"A", "1"}}), "A=1\nC=0\nA=1\nB=2\n");
}

TEST_F(PropertyFile, IsWrittenAnewWithoutAnyProperty) {
    EXPECT_EQ(saved("A=1\n\nno line feed", {}), "A=1\n\nno line feed\n");
}

TEST(BrokenPropertyFile, IsLoadedAsFarAsItCanBeRead) {
    const FakeFile broken(realPath, "A=1\nB=2\n", EIO);
    const ScriptedStore peer({resp::integer(1), resp::integer(1)});
    EXPECT_EQ(standardErrorOf([&] { loadPersistentProperties(peer.connection()); }),
              "[Debug]: Failed to get persistent properties: Input/output error.\n");
    EXPECT_EQ(peer.commands(),
              (Commands{{"HSET", service, "A", "1"}, {"HSET", service, "B", "2"}}));
}

TEST(BrokenPropertyFile, IsNotOpenedForWriting) {
    const FakeFile broken(realPath, "A=1\nB=2\n", EIO);
    savePersistentProperties({{"A", "3"}});
    ASSERT_EQ(broken.modes().size(), 1U);
    EXPECT_EQ(broken.modes()[0].front(), 'r');
}

}  // namespace
}  // namespace session_service
