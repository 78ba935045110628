// How the daemon finds its store, and what the exported connection functions give.
#include <gmock/gmock.h>

#include <ostream>

#include "support/store_proxy.h"
#include "support/system_test.h"

namespace testbed {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr char storeConfiguration[] = "/etc/redis/redis.conf";
constexpr char portFile[] = "/run/session-service-store/redis.port";
constexpr char socketFile[] = "/run/session-service-store/redis.unixsocket";
constexpr char passwordFile[] = "/run/session-service-store/redis.requirepass";
constexpr char probe[] = "/usr/local/bin/store_probe";

class Discovery : public SystemTest {
  protected:
    using SystemTest::SystemTest;

    // The daemon ends at once, because it does not reach its store.
    void expectNoConnection() {
        expectExitStatus({.bySignal = false, .value = 255});
        expectErrorLine("Failed to connect to Redis.");
        runDaemon();
        EXPECT_EQ(countLogged("Failed to connect to Redis."), 1);
    }
    void expectOnStandardError(const std::string& line) {
        EXPECT_THAT(controller.daemonErrors(), HasSubstr(line + "\n"));
    }
    // Runs the exported functions inside the private root and returns what each gave.
    Words call(Words operations) {
        controller.install(TEST_STORE_PROBE, probe);
        operations.insert(operations.begin(), probe);
        const auto program = controller.startProgram({.command = operations, .ofThisBuild = true});
        EXPECT_EQ(toText(program->wait()), toText(ExitStatus{}));
        return splitAtZeroBytes(controller.outputOf("store_probe"));
    }
    std::string callErrors() { return controller.errorsOf("store_probe"); }
};

class DiscoveryOverTcp : public Discovery {
  protected:
    DiscoveryOverTcp() : Discovery({.storeOverTcp = true}) {}
};

TEST_F(Discovery, AuthenticatesWithAPasswordThatHoldsABlank) {
    ASSERT_THAT(controller.storePassword(), HasSubstr(" "));
    start();
}

TEST_F(Discovery, TakesEachFileAsOneLine) {
    controller.writeFile(portFile, "0\nnot a port\n");
    startStore();
    startDaemon();
}

TEST_F(Discovery, AllowsLineFeedsBehindThePort) {
    controller.writeFile(portFile, "0\n");
    start();
}

TEST_F(Discovery, TakesALineFeedBehindTheSocketAsPartOfItsName) {
    controller.writeFile(socketFile, controller.readFile(socketFile) + "\n");
    startStore();
    expectNoConnection();
}

TEST_F(Discovery, TakesALineFeedBehindThePasswordAsPartOfIt) {
    controller.writeFile(passwordFile, controller.storePassword() + "\n");
    startStore();
    expectNoConnection();
}

TEST_F(Discovery, EndsWithAWrongPassword) {
    controller.writeFile(passwordFile, "not the password");
    startStore();
    expectNoConnection();
}

TEST_F(Discovery, SendsNoPasswordWithoutItsFile) {
    controller.removeFile(passwordFile);
    startStore();
    // The store refuses the first command, so the connection itself came about.
    expectExitStatus({.bySignal = false, .value = 255});
    expectErrorLine("Failed to access Redis.");
    runDaemon();
    expectOnStandardError("fopen: No such file or directory");
}

TEST_F(Discovery, SendsNoPasswordWhenItsFileIsEmpty) {
    controller.writeFile(passwordFile, "");
    startStore();
    expectExitStatus({.bySignal = false, .value = 255});
    expectErrorLine("Failed to access Redis.");
    runDaemon();
    EXPECT_EQ(controller.daemonErrors(), "");
}

TEST_F(Discovery, EndsWhenThePasswordIsNeverAnswered) {
    StoreProxy proxy(controller);
    proxy.setFilter([](const Words& command) {
        return command[0] == "AUTH" ? StoreProxy::Verdict::cut : StoreProxy::Verdict::pass;
    });
    startStore();
    expectNoConnection();
}

TEST_F(Discovery, SaysNothingWhenAllFilesAreThere) {
    start();
    EXPECT_EQ(controller.daemonErrors(), "");
    EXPECT_EQ(controller.daemonOutput(), "");
}

TEST_F(Discovery, NeedsThePortFileEvenForASocket) {
    controller.removeFile(portFile);
    startStore();
    expectNoConnection();
    expectOnStandardError("fopen: No such file or directory");
}

TEST_F(Discovery, EndsWithAnEmptyPortFile) {
    controller.writeFile(portFile, "");
    startStore();
    expectNoConnection();
}

TEST_F(Discovery, EndsWithAPortFileThatBeginsWithAZeroByte) {
    controller.writeFile(portFile, std::string("\0"
                                               "0",
                                               2));
    startStore();
    expectNoConnection();
}

struct OddPortText {
    const char* name;
    const char* text;
    bool accepted;

    friend void PrintTo(const OddPortText& value, std::ostream* out) { *out << value.name; }
};

class OddPort : public Discovery, public testing::WithParamInterface<OddPortText> {};

TEST_P(OddPort, IsJudgedByItsCharacters) {
    controller.writeFile(portFile, GetParam().text);
    startStore();
    if (GetParam().accepted) {
        startDaemon();
    } else {
        expectNoConnection();
    }
}

// The store is reached by its socket, so that every number will do.
INSTANTIATE_TEST_SUITE_P(
    Text, OddPort,
    testing::Values(OddPortText{"AnyNumber", "12345", true},
                    OddPortText{"NoPortNumber", "99999999", true},
                    OddPortText{"TheLargestNumber", "9223372036854775807", true},
                    OddPortText{"ALargerNumber", "9223372036854775808", false},
                    OddPortText{"ALineFeed", "\n", true}, OddPortText{"AMinus", "-1", false},
                    OddPortText{"APlus", "+1", false}, OddPortText{"ABlankInFront", " 0", false},
                    OddPortText{"ABlankBehind", "0 ", false},
                    OddPortText{"ACarriageReturn", "0\r\n", false},
                    OddPortText{"ALetter", "6379x", false}, OddPortText{"ABase", "0x10", false}),
    [](const auto& instance) { return instance.param.name; });

TEST_F(Discovery, EndsWithAPortThatNoNumberHolds) {
    controller.writeFile(portFile, "9223372036854775807999");
    startStore();
    expectNoConnection();
    expectOnStandardError("strtol: Numerical result out of range");
}

TEST_F(Discovery, EndsWithNeitherASocketNorAPort) {
    controller.removeFile(socketFile);
    startStore();
    expectNoConnection();
}

TEST_F(DiscoveryOverTcp, ReachesTheStandardPort) {
    start();
    const std::string clients = store().run({"CLIENT", "LIST"}).text;
    EXPECT_THAT(clients, HasSubstr(" addr=127.0.0.1:"));
}

TEST_F(DiscoveryOverTcp, TakesZerosInFrontOfTheStandardPort) {
    controller.writeFile(portFile, "06379");
    start();
}

TEST_F(DiscoveryOverTcp, PrefersTheSocket) {
    controller.writeFile(socketFile, "/run/session-service-store/redis.sock");
    start();
    const std::string clients = store().run({"CLIENT", "LIST"}).text;
    EXPECT_THAT(clients, Not(HasSubstr(" addr=127.0.0.1:")));
}

TEST_F(DiscoveryOverTcp, TakesAnEmptySocketFileForNone) {
    controller.writeFile(socketFile, "");
    start();
}

TEST_F(DiscoveryOverTcp, UsesNoOtherPortEvenWhenTheStoreListensThere) {
    controller.writeFile(portFile, "6380");
    startStore();
    store().run({"CONFIG", "SET", "port", "6380"});
    expectNoConnection();
}

TEST_F(DiscoveryOverTcp, EndsWhenNobodyListens) {
    startStore();
    store().run({"CONFIG", "SET", "port", "0"});
    expectNoConnection();
}

TEST_F(Discovery, TakesTheFolderOfTheFirstSocketLine) {
    startStore();
    controller.writeFile(storeConfiguration,
                         "# unixsocket /nowhere/a.sock\n"
                         " unixsocket /nowhere/b.sock\n"
                         "unixsocketperm 700\n"
                         "unixsocket   /run/session-service-store/any.sock and more\n"
                         "unixsocket /nowhere/c.sock\n");
    startDaemon();
}

TEST_F(Discovery, FollowsTheServersConfigurationToAnotherFolder) {
    startStore();
    for (const char* name : {"port", "unixsocket", "requirepass"}) {
        const std::string file = std::string("redis.") + name;
        controller.writeFile("/srv/store/" + file,
                             controller.readFile("/run/session-service-store/" + file));
        controller.removeFile("/run/session-service-store/" + file);
    }
    controller.writeFile(storeConfiguration, "unixsocket /srv/store/redis.sock\n");
    startDaemon();
}

TEST_F(Discovery, WithoutTheServersConfigurationLooksInTheRootFolder) {
    startStore();
    for (const char* name : {"port", "unixsocket", "requirepass"}) {
        const std::string file = std::string("redis.") + name;
        controller.writeFile("/" + file, controller.readFile("/run/session-service-store/" + file));
    }
    controller.removeFile(storeConfiguration);
    startDaemon();
}

TEST_F(Discovery, EndsWithoutTheServersConfiguration) {
    startStore();
    controller.removeFile(storeConfiguration);
    expectNoConnection();
}

TEST_F(Discovery, HappensOnceForTheLifeOfTheProcess) {
    usePamTest("env=PRIVILEGES=511");
    start();
    for (const char* file : {portFile, socketFile, passwordFile, storeConfiguration}) {
        controller.removeFile(file);
    }
    EXPECT_EQ(frontEnd().login("anybody", "anything").status(), "OK");
    // No change, which would raise an event after its answer.
    EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "300"}}).status(), "OK");
    EXPECT_EQ(frontEnd().remove(frontEnd().insertSession().uri).status(), "OK_EMPTY");
    stopDaemon();
    EXPECT_EQ(controller.daemonErrors(), "");
}

TEST_F(Discovery, HappensAnewWithEachStart) {
    start();
    controller.daemon().kill();
    controller.writeFile(socketFile, "/nowhere.sock");
    expectNoConnection();
}

using ConnectionFunctions = Discovery;

TEST_F(ConnectionFunctions, ReadTheFirstLineWithItsLineFeed) {
    controller.writeFile("/etc/redis.a", "first\nsecond\n");
    controller.writeFile("/etc/redis.b", "first");
    controller.writeFile("/etc/redis.c", "\n");
    EXPECT_THAT(call({"configuration", "a", "/etc", "configuration", "b", "/etc", "configuration",
                      "c", "/etc"}),
                ElementsAre("text first\n", "text first", "text \n"));
}

TEST_F(ConnectionFunctions, GiveNothingForAMissingNameOrFileOrLine) {
    controller.writeFile("/etc/redis.empty", "");
    EXPECT_THAT(call({"configuration", "null", "/etc", "configuration", "empty", "/etc"}),
                ElementsAre("null", "null"));
    EXPECT_EQ(callErrors(), "");
    EXPECT_THAT(call({"configuration", "missing", "/etc"}), ElementsAre("null", "null", "null"));
    EXPECT_EQ(callErrors(), "fopen: No such file or directory\n");
}

TEST_F(ConnectionFunctions, CutALongLineAfter1023Characters) {
    controller.writeFile("/etc/redis.long", std::string(3000, 'x') + "\n");
    EXPECT_THAT(call({"configuration", "long", "/etc"}),
                ElementsAre("text " + std::string(1023, 'x')));
}

TEST_F(ConnectionFunctions, TakeNamesUpTo1023CharactersTogether) {
    // "/./././etc" is a folder's name as long as one likes.
    std::string directory = "/etc";
    while (directory.size() < 1019) {
        directory.insert(0, "/.");
    }
    directory.resize(1020, '/');
    controller.writeFile("/etc/redis.abc", "found");
    controller.writeFile("/etc/redis.abcd", "too long");
    EXPECT_THAT(call({"configuration", "abc", directory, "configuration", "abcd", directory}),
                ElementsAre("text found", "null"));
    EXPECT_EQ(callErrors(), "") << "too long a name is not even tried";
}

TEST_F(ConnectionFunctions, TellASocketConnection) {
    const std::string password = controller.storePassword();
    controller.writeFile(portFile, "6379\n");
    EXPECT_THAT(call({"discover"}),
                ElementsAre("kind 1 port 0 socket /run/session-service-store/redis.sock password " +
                            password + " host null"));
}

TEST_F(ConnectionFunctions, TellATcpConnection) {
    controller.writeFile(portFile, "6379\n");
    controller.removeFile(socketFile);
    controller.removeFile(passwordFile);
    EXPECT_THAT(call({"discover"}), ElementsAre("kind 2 port 6379 socket  password  host null"));
}

TEST_F(ConnectionFunctions, TellAPlaceholderForNeitherSocketNorPort) {
    controller.removeFile(socketFile);
    controller.writeFile(passwordFile, "x");
    EXPECT_THAT(call({"discover"}),
                ElementsAre("kind 1 port 0 socket (null) password x host null"));
}

TEST_F(ConnectionFunctions, KeepTheFirstDiscovery) {
    controller.writeFile(passwordFile, "x");
    const std::string found =
        "kind 1 port 0 socket /run/session-service-store/redis.sock password x host null";
    EXPECT_THAT(call({"discover", "remove", portFile, "remove", socketFile, "discover"}),
                ElementsAre(found, found));
}

TEST_F(ConnectionFunctions, ForgetADiscoveryThatFailed) {
    controller.writeFile("/run/session-service-store/redis.port", "x");
    EXPECT_THAT(call({"discover", "remove", portFile, "discover"}), ElementsAre("null", "null"));
    EXPECT_THAT(callErrors(), HasSubstr("fopen: ")) << "the second call looked again";
}

TEST_F(ConnectionFunctions, ConnectWithoutAuthentication) {
    startStore();
    const Words results =
        call({"discover", "connect", "command", "PING", "authenticate", "wrong", "authenticate",
              "null", "authenticate", controller.storePassword(), "command", "PING", "disconnect"});
    ASSERT_EQ(results.size(), 8U);
    EXPECT_EQ(results[1], "context host null");
    EXPECT_EQ(results[2], "NOAUTH Authentication required.");
    EXPECT_EQ(results[3], "1");
    EXPECT_EQ(results[4], "1");
    EXPECT_EQ(results[5], "0");
    EXPECT_EQ(results[6], "PONG");
    EXPECT_EQ(results[7], "0");
}

TEST_F(ConnectionFunctions, TakeNoOtherStatusForAnAuthentication) {
    startStore();
    EXPECT_THAT(call({"open", "command", "MULTI", "authenticate", controller.storePassword()}),
                ElementsAre("context", "OK", "1"));
}

TEST_F(ConnectionFunctions, OpenAnAuthenticatedConnection) {
    startStore();
    EXPECT_THAT(call({"open", "command", "PING", "disconnect"}),
                ElementsAre("context", "PONG", "0"));
}

TEST_F(ConnectionFunctions, OpenNoneWithoutAStore) {
    EXPECT_THAT(call({"open", "discover", "connect"}),
                ElementsAre("null", testing::StartsWith("kind 1 "), "null host null"));
}

TEST_F(ConnectionFunctions, OpenNoneWithAWrongPassword) {
    controller.writeFile(passwordFile, "wrong");
    startStore();
    EXPECT_THAT(call({"open"}), ElementsAre("null"));
}

TEST_F(ConnectionFunctions, OpenNoneWithAPasswordThatTheStoreDoesNotAskFor) {
    startStore();
    store().run({"CONFIG", "SET", "requirepass", ""});
    EXPECT_THAT(call({"open"}), ElementsAre("null"));
}

TEST_F(ConnectionFunctions, OpenAConnectionWithoutAPassword) {
    controller.removeFile(passwordFile);
    startStore();
    store().run({"CONFIG", "SET", "requirepass", ""});
    EXPECT_THAT(call({"open", "command", "PING"}), ElementsAre("context", "PONG"));
}

TEST_F(ConnectionFunctions, RefuseWhatIsNotThere) {
    EXPECT_THAT(call({"connect", "authenticate", "x", "disconnect"}),
                ElementsAre("null host null", "1", "1"));
}

TEST_F(ConnectionFunctions, RefuseAnUnknownKind) {
    startStore();
    EXPECT_THAT(call({"discover", "kind", "0", "connect", "kind", "3", "connect"}),
                ElementsAre(testing::_, "null host null", "null host null"));
}

using ConnectionFunctionsOverTcp = DiscoveryOverTcp;

TEST_F(ConnectionFunctionsOverTcp, SetTheHost) {
    startStore();
    const Words results = call({"discover", "connect", "disconnect"});
    ASSERT_EQ(results.size(), 3U);
    EXPECT_EQ(results[1], "context host 127.0.0.1");
}

}  // namespace
}  // namespace testbed
