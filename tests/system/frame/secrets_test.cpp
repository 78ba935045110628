// What must not be told: passwords, the key that decrypts them, and tokens. The end of each test
// looks for passwords and the key in a core image of the idle daemon, and for all of them in its
// log, in what it printed and in the command lines of the programs that it started; for the
// passwords and the key also in what went to the store.
//
// The core image holds tokens: hiredis leaves copies in memory that it has freed. Whoever reads the
// daemon's memory reads its password for the store, too, where the tokens of sessions lie.
#include <algorithm>
#include <bitset>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <unordered_map>

#include "support/permissive_pam_test.h"

// The sanitizers manage memory in ways of their own; what they leave in it says nothing.
#if !TESTBED_SANITIZED

namespace testbed {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

constexpr char commandLinesFile[] = "/tmp/command.lines";

std::string bytesOf(const std::string& hex) {
    std::string bytes;
    for (std::size_t at = 0; at + 1 < hex.size(); at += 2) {
        bytes += static_cast<char>(std::stoi(hex.substr(at, 2), nullptr, 16));
    }
    return bytes;
}

// Finds texts of at least six bytes, and the pieces that are left of them when a part has been
// overwritten.
class SecretFinder {
  public:
    void add(const std::string& name, const std::string& secret) {
        const std::size_t size = std::min(secret.size(), maxPieceLength);
        for (std::size_t at = 0; at + size <= secret.size(); ++at) {
            const std::string piece = secret.substr(at, size);
            beginnings.set(beginning(piece.data()));
            secretPieces.emplace(prefix(piece.data()), Piece{piece, name});
        }
    }

    // The names of what is found.
    std::set<std::string> in(const std::string& memory) const {
        std::set<std::string> found;
        for (std::size_t at = 0; at + prefixSize <= memory.size(); ++at) {
            const char* here = memory.data() + at;
            if (!beginnings.test(beginning(here))) {
                continue;
            }
            const auto [first, last] = secretPieces.equal_range(prefix(here));
            for (auto each = first; each != last; ++each) {
                const auto& [text, name] = each->second;
                if (memory.compare(at, text.size(), text) == 0) {
                    found.insert(name);
                }
            }
        }
        return found;
    }

  private:
    struct Piece {
        std::string text;
        std::string name;
    };
    static constexpr std::size_t maxPieceLength = 12;
    static constexpr std::size_t prefixSize = 6;

    static std::size_t beginning(const char* text) {
        std::uint16_t value = 0;
        std::memcpy(&value, text, sizeof(value));
        return value;
    }
    static std::uint64_t prefix(const char* text) {
        std::uint64_t value = 0;
        std::memcpy(&value, text, prefixSize);
        return value;
    }

    std::bitset<std::size_t{1} << 16> beginnings;
    std::unordered_multimap<std::uint64_t, Piece> secretPieces;
};

class Secrets : public PermissivePamTest {
  protected:
    void SetUp() override {
        constexpr char library[] = "/usr/local/lib/command_lines.so";
        controller.install(TEST_COMMAND_LINES, library);
        startStore();
        storeMonitor.emplace(controller.monitor());
        // An arena for each thread and large stacks would make a core image of 300 MB, most of
        // them never used.
        startDaemon({.environment = {{"LD_PRELOAD", library},
                                     {"COMMAND_LINES", commandLinesFile},
                                     {"MALLOC_ARENA_MAX", "1"}},
                     .binds = randomDevice(),
                     .limits = {"--stack=1048576"}});

        const std::string key = controller.readFile(keyFile).substr(0, 64);
        passwordFinder.add("the key", key);
        passwordFinder.add("the key's bytes", bytesOf(key));
        store();
        frontEnd();
        idleClients = clients();
    }

    void TearDown() override {
        if (controller.daemonStarted() && !controller.daemon().exitStatus()) {
            checkMemory();
            checkWire();
            checkTexts();
        }
        PermissivePamTest::TearDown();
    }

    // In the place of the daemon's random device.
    virtual std::vector<Bind> randomDevice() { return {}; }

    // Passwords are found by pieces of twelve bytes: none may be what somebody else writes.
    Reply login(const std::string& user, const std::string& password,
                const std::string& spoiltAtTheEnd = "") {
        std::string cipher = frontEnd().encryptPassword(password);
        remember(password, cipher);
        cipher.replace(cipher.size() - 1 - spoiltAtTheEnd.size(), spoiltAtTheEnd.size(),
                       spoiltAtTheEnd);
        const Reply reply = frontEnd().login(
            user, password,
            {.body = {{"UserName", '"' + user + '"'}, {"Password", std::move(cipher)}}});
        if (!reply.token().empty()) {
            tokenFinder.add("a token", reply.token());
        }
        return reply;
    }
    void loginAndOut(const std::string& user, const std::string& password) {
        const Reply reply = login(user, password);
        EXPECT_EQ(reply.status(), "OK") << password;
        EXPECT_EQ(frontEnd().remove(reply.location()).status(), "OK_EMPTY");
    }
    void expectRefusal(const std::string& status, const std::string& password) {
        EXPECT_EQ(login("somebody", password).status(), status) << password;
    }

    // A stack of the test module alone, which keeps no record of what it was answered.
    void useAskingPam(const std::string& arguments) {
        const std::string module = " required /usr/local/lib/security/pam_test.so ";
        usePamLines("auth" + module + "style=echo_off " + arguments + "\naccount" + module +
                    arguments + "\n");
    }

    // The command lines of the daemon and of all programs that it started.
    std::vector<Words> commandLines() const {
        std::vector<Words> lines(1);
        for (const std::string& word : splitAtZeroBytes(controller.readFile(commandLinesFile))) {
            if (word.empty()) {
                lines.emplace_back();
            } else {
                lines.back().push_back(word);
            }
        }
        lines.pop_back();
        return lines;
    }

  private:
    // The password, and what the ciphertext was made with: together they would tell it.
    void remember(const std::string& password, const std::string& cipher) {
        constexpr std::size_t nonceSize = 12;
        std::string stream = bytesOf(cipher.substr(1)).substr(nonceSize, password.size());
        for (std::size_t i = 0; i < stream.size(); ++i) {
            stream[i] = static_cast<char>(stream[i] ^ password[i]);
        }
        const std::string name = password.substr(0, 40);
        passwordFinder.add("the password " + name, password);
        passwordFinder.add("the key stream of " + name, stream);
    }

    long clients() {
        const std::string list = store().run({"CLIENT", "LIST"}).text;
        return std::count(list.begin(), list.end(), '\n');
    }

    // The pages that are not empty of a core image.
    std::string coreImage() {
        constexpr std::size_t pageSize = 4096;
        const std::string pid = std::to_string(controller.daemon().pid());
        const std::string prefix = controller.path("/tmp/core");
        // Inside the daemon's user namespace everybody who made it may look into the daemon.
        const std::string command = "nsenter --target " + pid +
                                    " --user --preserve-credentials gcore -o " + prefix + " " +
                                    pid + " >" + prefix + ".log 2>&1";
        EXPECT_EQ(std::system(command.c_str()), 0) << controller.readFile("/tmp/core.log");
        std::ifstream core(prefix + "." + pid, std::ios::binary);
        const std::string empty(pageSize, '\0');
        std::string pages;
        for (std::string page = empty; core.read(page.data(), pageSize);) {
            if (page != empty) {
                pages += page;
            }
        }
        controller.removeFile("/tmp/core." + pid);
        return pages;
    }

    void checkMemory() {
        waitUntil("no request is under way", [this] { return clients() == idleClients; });
        const std::string memory = coreImage();
        EXPECT_THAT(passwordFinder.in(memory), IsEmpty()) << "in the daemon's memory";

        SecretFinder known;
        known.add("the store's password", controller.storePassword());
        EXPECT_THAT(known.in(memory), ElementsAre("the store's password"));
    }

    void checkWire() {
        std::size_t logins = 0;
        for (const MonitoredCommand& command : storeMonitor->soFar()) {
            for (const std::string& word : command.words) {
                EXPECT_THAT(passwordFinder.in(word), IsEmpty())
                    << "in what " << command.words.front();
            }
            logins += command.words.size() == 3 && command.words[1] == createChannel ? 1 : 0;
        }
        EXPECT_GT(logins, 0U);
    }

    void checkTexts() {
        passwordFinder.add("the store's password", controller.storePassword());
        const std::string log = controller.readFile(logFile);
        EXPECT_NE(log, "");
        expectNothingTold(log, "in the log");
        expectNothingTold(controller.daemonOutput(), "on the standard output");
        expectNothingTold(controller.daemonErrors(), "on the standard error");
        EXPECT_THAT(commandLines(), Contains(ElementsAre("/usr/local/sbin/session-service")));
        for (const Words& words : commandLines()) {
            if (!isKadmin(words)) {
                for (const std::string& word : words) {
                    expectNothingTold(word, "in the arguments of " + words.front());
                }
            }
        }
    }
    void expectNothingTold(const std::string& text, const std::string& place) const {
        EXPECT_THAT(passwordFinder.in(text), IsEmpty()) << place;
        EXPECT_THAT(tokenFinder.in(text), IsEmpty()) << place;
    }

    // The tool takes the password among its arguments. Those of the shell that becomes the tool
    // hold it, too.
    static bool isKadmin(const Words& words) {
        return (words.size() == 3 && words[1] == "-c" && words[2].rfind("kadmin ", 0) == 0) ||
               words[0] == "kadmin" || (words.size() > 1 && words[1] == "/usr/local/bin/kadmin");
    }

    std::optional<Monitor> storeMonitor;
    SecretFinder passwordFinder;
    SecretFinder tokenFinder;
    long idleClients = 0;
};

TEST_F(Secrets, OfLocalAccountsAreForgotten) {
    // Long enough to be found where the start of a piece of freed memory has been used again. The
    // hashes are those of the two methods that systems use.
    const std::string alices = "Tamarisk-41-under-the-copper-roof-of-the-observatory";
    const std::string bobs = "Quince-87-beside-the-harbour-of-seven-wooden-cranes";
    controller.writeFile("/etc/passwd", controller.readFile("/etc/passwd") +
                                            "alice:x:1011:101:Alice:/:/usr/sbin/nologin\n"
                                            "bob:x:1012:102:Bob:/:/usr/sbin/nologin\n");
    controller.writeFile("/etc/shadow",
                         controller.readFile("/etc/shadow") +
                             "alice:$6$rounds=1000$rB4tK9wM$QUlfSYTXXle9OD0WSUFSNt6nPi68cqbFuHkmxX"
                             "rLT5XgJeHm0cuQpAqaaGUtGPDw.oQaAAH/b03NzxT.KPN99.:19000:0:99999:7:::\n"
                             "bob:$y$j75$Hq2vT8mZ$KwKqg7FuDQ3sA1XaMPBbp4v7u1/DKntKb4w5tNuKvfC"
                             ":19000:0:99999:7:::\n");
    usePamLines(
        "auth required pam_unix.so nodelay\n"
        "auth required /usr/local/lib/security/pam_session_role.so role=operators:aciopera; "
        "role=admins:aciadmin;\n"
        "account required pam_unix.so\n");

    loginAndOut("alice", alices);
    loginAndOut("bob", bobs);
    loginAndOut(administrator.name, administrator.password);
    loginAndOut(expired.name, expired.password);
    EXPECT_EQ(login("alice", bobs + ", which is another one").status(), "AUTH_FAILED");
    EXPECT_EQ(login("bob", alices + ", which is another one").status(), "AUTH_FAILED");
    EXPECT_EQ(login("nobody", "what-an-unknown-user-believes-to-be-it").status(), "AUTH_FAILED");
    EXPECT_EQ(login("alice", alices).status(), "OK");
    EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "400"}}).status(), "OK");
}

TEST_F(Secrets, OfAllShapesAreForgotten) {
    useAskingPam(allPrivileges + "messages=3");
    std::string longest;
    while (longest.size() < 1024) {
        longest += "word " + std::to_string(longest.size() * 7919) + ' ';
    }
    longest.resize(1024);
    for (const std::string& password : {
             std::string("g7#Kq2"),
             std::string("fifteen-bytes-1"),
             std::string("\"in double quotes, both of them\""),
             std::string("it's one with a single quote; and 'three more"),
             std::string(R"(back\slashes \" \\ and %s %n %1$s directives)"),
             std::string("line feeds\nand tabs\tand bells\a in between"),
             std::string("\xc3\xbc\xc3\xb6\xc3\xa4 \xe2\x82\xac \xf0\x9f\x94\x91 \xff\xfe\xfd"),
             longest,
         }) {
        loginAndOut("somebody", password);
    }
}

TEST_F(Secrets, OfRefusedLoginsAreForgotten) {
    expectErrorLine("PAM converse - input data error.");
    useAskingPam(allPrivileges + "auth=PAM_AUTH_ERR messages=32");
    expectRefusal("AUTH_FAILED", "refused+in+the+first+step+of+all");
    useAskingPam(allPrivileges + "messages=33");
    expectRefusal("AUTH_FAILED", "too+many+messages+ask+for+this+one");
    useAskingPam(allPrivileges + "prompt=Passphrase:");
    expectRefusal("AUTH_FAILED", "asked+for+in+other+words+than+usual");
    useAskingPam(allPrivileges + "style=7");
    expectRefusal("AUTH_FAILED", "asked+for+in+a+style+that+nobody+has");
    useAskingPam(allPrivileges + "acct=PAM_ACCT_EXPIRED");
    expectRefusal("AUTH_FAILED", "right+but+the+account+has+expired");
    useAskingPam("env=PRIVILEGES=0");
    expectRefusal("FORBIDDEN", "right+but+the+user+may+do+nothing");

    useAskingPam(allPrivileges);
    expectRefusal("FAILURE",
                  std::string(120, '~') + "too+long+by+one+byte" + std::string(885, '~'));
    const std::string spoilt = "changed+on+its+way+to+the+daemon";
    EXPECT_EQ(login("somebody", spoilt, "gg").status(), "OK") << "an empty password is as good";
    EXPECT_EQ(login("somebody", spoilt, "00").status(), "OK") << "an empty password is as good";
    for (int i = 0; i < 6; ++i) {
        frontEnd().insertSession();
    }
    expectRefusal("UNAVAILABLE", "comes+when+all+sessions+are+taken");
    store().hset(serviceUri, {{"ServiceEnabled", "false"}});
    expectRefusal("UNAVAILABLE", "comes+when+the+service+is+disabled");
}

TEST_F(Secrets, OfLoginsThatPamDoesNotServeAreForgotten) {
    expectErrorLine("Failed to create pam handler.");
    controller.removeFile(pamServiceFile);
    expectRefusal("AUTH_FAILED", "nobody+asks+for+this+one+at+all");
}

class SecretsOfHalfMadeSessions : public Secrets {
  protected:
    std::vector<Bind> randomDevice() override { return withRandomBytes(randomBytes).binds; }
};

TEST_F(SecretsOfHalfMadeSessions, AreForgotten) {
    for (const char* line : {"Failed to add session entry.", "Failed to create meta session table.",
                             "Failed to add session entry to Members."}) {
        expectErrorLine(line);
    }
    useAskingPam(allPrivileges);
    corrupt(randomUri);
    expectRefusal("FAILURE", "its+session+cannot+be+written");
    store().del(randomUri);
    corrupt(tokenKey(randomToken));
    expectRefusal("FAILURE", "its+token+cannot+be+written");
    store().del(randomUri);
    store().del(tokenKey(randomToken));
    corrupt(membersKey);
    expectRefusal("FAILURE", "its+member+cannot+be+written");
}

class SecretsOfKerberosLogins : public Secrets {
  protected:
    void SetUp() override {
        Secrets::SetUp();
        controller.writeFile("/etc/pam.d/q73.conf", "KrbAttrGrouping=1;\n");
        useAskingPam("env=pam_module=kerberos env=PRIVILEGES=1");
        useFakeKadmin("aci_group: aciuser;\n");
    }
};

TEST_F(SecretsOfKerberosLogins, AreForgotten) {
    loginAndOut("somebody", "g7#Kq2");
    loginAndOut("somebody", "goes+to+the+tool+as+it+stands");
    loginAndOut("somebody", "it's+one+that+'has+to+be'+quoted+for+the+shell''");
    useAskingPam("env=pam_module=kerberos auth=PAM_AUTH_ERR");
    expectRefusal("AUTH_FAILED", "does+not+get+as+far+as+the+tool");
}

TEST_F(SecretsOfKerberosLogins, AreForgottenWhenTheToolFails) {
    controller.writeFile("/usr/local/bin/kadmin", "no program at all");
    loginAndOut("somebody", "goes+to+a+tool+that+cannot+be+run");
    controller.removeFile("/usr/local/bin/kadmin");
    loginAndOut("somebody", "goes+to+a+tool+without+a+realm");
}

TEST_F(SecretsOfKerberosLogins, GoToNoProgramButTheTool) {
    const std::string password = "this+is+what+the+tool+gets";
    loginAndOut("somebody", password);
    EXPECT_THAT(commandLines(),
                Contains(AllOf(Contains("/usr/local/bin/kadmin"), Contains(password))));
    EXPECT_THAT(commandLines(), Contains(Contains("/tmp/kadmin.output")));
}

}  // namespace
}  // namespace testbed

#endif
