#include "store/connection.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdlib>
#include <optional>

#include "base/file_descriptor.h"
#include "store/commands.h"
#include "support/captured_output.h"
#include "support/no_descriptors.h"
#include "support/scripted_store.h"
#include "support/temporary_folder.h"

namespace session_service {
namespace {

// The value that the file for the key gives; nothing for null.
std::optional<std::string> valueOf(const char* key, const std::string& directory) {
    char* value = getRedisConfiguration(key, directory.c_str());
    if (!value) {
        return std::nullopt;
    }
    const std::string text = value;
    std::free(value);
    return text;
}

TEST(OneValueFile, GivesItsFirstLineWithItsLineFeed) {
    const TemporaryFolder folder;
    folder.write("redis.port", "6379\nsecond\n");
    folder.write("redis.requirepass", "two words");
    folder.write("redis.unixsocket", "\n");
    EXPECT_EQ(valueOf("port", folder.path()), "6379\n");
    EXPECT_EQ(valueOf("requirepass", folder.path()), "two words");
    EXPECT_EQ(valueOf("unixsocket", folder.path()), "\n");
}

TEST(OneValueFile, GivesAtMost1023Characters) {
    const TemporaryFolder folder;
    folder.write("redis.port", std::string(2000, '1'));
    EXPECT_EQ(valueOf("port", folder.path()), std::string(1023, '1'));
}

TEST(OneValueFile, GivesNothingWhenEmpty) {
    const TemporaryFolder folder;
    folder.write("redis.port", "");
    EXPECT_EQ(valueOf("port", folder.path()), std::nullopt);
}

TEST(OneValueFile, ThatIsMissingIsReported) {
    const TemporaryFolder folder;
    EXPECT_EQ(standardErrorOf([&] { EXPECT_EQ(valueOf("port", folder.path()), std::nullopt); }),
              "fopen: No such file or directory\n");
}

TEST(OneValueFile, IsNotLookedForUnderNamesThatAreTooLong) {
    EXPECT_EQ(standardErrorOf([] {
                  EXPECT_EQ(valueOf(nullptr, "/tmp"), std::nullopt);
                  EXPECT_EQ(valueOf("port", std::string(1020, 'd')), std::nullopt);
              }),
              "");
    EXPECT_NE(
        standardErrorOf([] { EXPECT_EQ(valueOf("port", std::string(1019, 'd')), std::nullopt); }),
        "")
        << "one character less is tried";
}

TEST(OneValueFile, IsNotLookedForWithoutAFolder) {
    EXPECT_EQ(standardErrorOf([] { EXPECT_EQ(getRedisConfiguration("port", nullptr), nullptr); }),
              "");
}

TEST(Discovery, FailsWhereNoCommandCanBeStarted) {
    const NoDescriptors none;
    EXPECT_EQ(getRedisConnectionInfo(), nullptr);
}

// A server that takes connections and never answers.
class ListeningSocket {
  public:
    explicit ListeningSocket(const std::string& path)
        : socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(listen(socket.get(), 1), 0);
    }

  private:
    FileDescriptor socket;
};

ConnectionInfo unixInfo(const std::string& path) {
    ConnectionInfo info{};
    info.connectionKind = CONNECTION_KIND_UNIX;
    path.copy(info.socketPath, sizeof(info.socketPath) - 1);
    return info;
}

TEST(Connection, ToAUnixSocketIsNotInheritedByChildren) {
    const TemporaryFolder folder;
    const ListeningSocket server(folder.path("socket"));
    ConnectionInfo info = unixInfo(folder.path("socket"));
    const ConnectionPtr connection(connectToRedis(&info));
    ASSERT_TRUE(connection);
    EXPECT_EQ(connection->err, 0);
    EXPECT_EQ(fcntl(connection->fd, F_GETFD), FD_CLOEXEC);
}

TEST(Connection, FailsWhenNobodyListens) {
    const TemporaryFolder folder;
    ConnectionInfo info = unixInfo(folder.path("socket"));
    EXPECT_EQ(connectToRedis(&info), nullptr);
}

TEST(Connection, ByTcpGoesToThisMachineByDefault) {
    ConnectionInfo info{};
    info.connectionKind = CONNECTION_KIND_TCP;
    info.port = 1;  // Nobody listens there.
    EXPECT_EQ(connectToRedis(&info), nullptr);
    EXPECT_STREQ(info.host, "127.0.0.1");
}

TEST(Connection, ByTcpGoesToTheHostThatIsGiven) {
    const char* host = "127.0.0.2";
    ConnectionInfo info{};
    info.connectionKind = CONNECTION_KIND_TCP;
    info.port = 1;
    info.host = host;
    EXPECT_EQ(connectToRedis(&info), nullptr);
    EXPECT_EQ(info.host, host);
}

TEST(Connection, NeedsAKnownKind) {
    for (const int kind : {0, 3, -1}) {
        ConnectionInfo info{};
        info.connectionKind = kind;
        EXPECT_EQ(connectToRedis(&info), nullptr) << kind;
    }
    EXPECT_EQ(connectToRedis(nullptr), nullptr);
}

TEST(Disconnection, TellsWhetherThereWasAConnection) {
    EXPECT_EQ(redisDisconnectContext(nullptr), 1);
    const TemporaryFolder folder;
    const ListeningSocket server(folder.path("socket"));
    ConnectionInfo info = unixInfo(folder.path("socket"));
    redisContext* connection = connectToRedis(&info);
    ASSERT_NE(connection, nullptr);
    EXPECT_EQ(redisDisconnectContext(connection), 0);
}

TEST(Authentication, SendsThePasswordAsOneArgument) {
    const ScriptedStore peer({resp::status("OK")});
    EXPECT_EQ(redisAuthentication(peer.connection(), "two words %s\n"), 0);
    EXPECT_EQ(peer.commands(), (Commands{{"AUTH", "two words %s\n"}}));
}

TEST(Authentication, NeedsTheStatusOk) {
    for (const std::string& reply :
         {resp::status("QUEUED"), resp::status("ok"), resp::status("OK "), resp::bulk("OK"),
          resp::error("WRONGPASS"), resp::integer(1), resp::nil(), resp::array({})}) {
        const ScriptedStore peer({reply});
        EXPECT_EQ(redisAuthentication(peer.connection(), "password"), 1) << reply;
    }
    const ScriptedStore lost;
    EXPECT_EQ(redisAuthentication(lost.connection(), "password"), 1);
}

TEST(Authentication, NeedsAConnectionAndAPassword) {
    EXPECT_EQ(redisAuthentication(nullptr, "password"), 1);
    const ScriptedStore peer;
    EXPECT_EQ(redisAuthentication(peer.connection(), nullptr), 1);
    EXPECT_TRUE(peer.commands().empty());
}

// Other programs of the controller hand this record over, too.
TEST(ConnectionParameters, HaveAFixedLayout) {
    const ConnectionInfo info{};
    const auto at = [&](const void* member) {
        return static_cast<const char*>(member) - reinterpret_cast<const char*>(&info);
    };
    EXPECT_EQ(at(&info.connectionKind), 0);
    EXPECT_EQ(sizeof(info.connectionKind), 4U);
    EXPECT_EQ(at(&info.port), 8);
    EXPECT_EQ(sizeof(info.port), 8U);
    EXPECT_EQ(at(&info.socketPath), 16);
    EXPECT_EQ(sizeof(info.socketPath), 1024U);
    EXPECT_EQ(at(&info.password), 1040);
    EXPECT_EQ(sizeof(info.password), 1024U);
    EXPECT_EQ(at(&info.host), 2064);
    EXPECT_EQ(sizeof(info), 2072U);
}

}  // namespace
}  // namespace session_service
