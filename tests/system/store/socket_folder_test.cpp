// How long the folder of the store's socket may be, and what becomes of a longer one.
#include <gmock/gmock.h>

#include "support/system_test.h"

namespace testbed {
namespace {

class SocketFolder : public SystemTest {
  protected:
    void SetUp() override { startStore(); }

    // The folder with the store's files, under a name as long as one likes.
    static std::string nameOfLength(std::size_t length) {
        std::string name = "/run/session-service-store";
        while (name.size() + 2 <= length) {
            name.insert(0, "/.");
        }
        name.insert(0, length - name.size(), '/');
        return name;
    }
    void configure(const std::string& folder) {
        controller.writeFile("/etc/redis/redis.conf", "unixsocket " + folder + "/redis.sock\n");
    }
    // A tool in the place of the last one of the look for the folder.
    void useTool(const std::string& script) {
        controller.install("/bin/true", "/usr/local/bin/tr");  // for its mode
        controller.writeFile("/usr/local/bin/tr", "#!/bin/sh\n" + script);
    }
    // The daemon ends in order with this error line, and has not even tried to open a file
    // that is not there.
    void expectEnd(const std::string& line) {
        expectExitStatus({.bySignal = false, .value = 255});
        expectErrorLine(line);
        EXPECT_EQ(toText(runDaemon()), toText(ExitStatus{.bySignal = false, .value = 255}));
        EXPECT_EQ(countLogged(line), ++ends);
        EXPECT_THAT(controller.daemonErrors(), testing::Not(testing::HasSubstr("fopen")));
    }

  private:
    long ends = 0;
};

constexpr const char* noConnection = "Failed to connect to Redis.";

TEST_F(SocketFolder, Of1012CharactersIsFollowed) {
    configure(nameOfLength(1012));
    startDaemon();
    EXPECT_EQ(controller.daemonErrors(), "");
}

TEST_F(SocketFolder, Of1013CharactersIsTooLongForThePassword) {
    configure(nameOfLength(1013));
    expectEnd("Failed to access Redis.");
}

TEST_F(SocketFolder, Of1014CharactersIsTooLongForTheSocket) {
    configure(nameOfLength(1014));
    expectEnd(noConnection);
}

TEST_F(SocketFolder, OfMoreThanALineIsCutAndTooLongForAnything) {
    for (const std::size_t length : {1020U, 1022U, 1023U, 1024U, 1025U, 2046U, 2047U, 5000U}) {
        configure(nameOfLength(length));
        expectEnd(noConnection);
    }
}

TEST_F(SocketFolder, ThatComesInPiecesIsCutAllTheSame) {
    // The second piece is written once the daemon waits for it.
    useTool(
        "daemon=$(cut -d ' ' -f 4 /proc/$PPID/stat)\n"
        "cat >/dev/null\n"
        "printf '%01000d' 0\n"
        "until grep -q '^State:.S' /proc/$daemon/status; do :; done\n"
        "printf '%01000d' 0\n");
    expectEnd(noConnection);
}

TEST_F(SocketFolder, ThatHasNoEndIsReadNoFurtherThanALine) {
    useTool("exec yes /run\n");
    expectEnd(noConnection);
}

}  // namespace
}  // namespace testbed
