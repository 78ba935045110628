#include "store/entity_tag.h"

#include <gtest/gtest.h>
#include <sys/time.h>

#include "support/scripted_store.h"

namespace session_service {
namespace {

unsigned long long wallClockMilliseconds() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<unsigned long long>(now.tv_sec) * 1000 +
           static_cast<unsigned long long>(now.tv_usec) / 1000;
}

TEST(EntityTag, IsAQuotedCountOfMilliseconds) {
    const ScriptedStore peer({resp::error("ERR nobody looks at it")});
    const auto before = wallClockMilliseconds();
    updateEtag(peer.connection(), "/redfish/v1/Some Thing%s");
    const Commands commands = peer.commands();
    ASSERT_EQ(commands.size(), 1U);
    ASSERT_EQ(commands[0].size(), 4U);
    EXPECT_EQ(Command(commands[0].begin(), commands[0].end() - 1),
              (Command{"HSET", "/redfish/v1/Some Thing%s", "@odata.etag"}));
    const std::string tag = commands[0][3];
    const auto milliseconds = std::stoull(tag.substr(1));
    EXPECT_EQ(tag, '"' + std::to_string(milliseconds) + '"');
    EXPECT_LE(before, milliseconds);
    EXPECT_LE(milliseconds, wallClockMilliseconds());
}

}  // namespace
}  // namespace session_service
