// Storms of requests that mean harm, and what must outlast them: the daemon itself, a plain
// login and logout, the log's form, and every key and file that no request may touch.
//
// HOSTILE_REQUESTS in the environment sets how many requests each test sends, HOSTILE_SEED
// the seed of the first hundred. Each further hundred has the next seed, so that one that
// fails is repeated by itself.
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>
#include <tuple>

#include "support/hostile_requests.h"
#include "support/system_test.h"

namespace testbed {
namespace {

namespace fs = std::filesystem;

constexpr unsigned long requestsOfAStorm = 100;

// How logins go while the storms last.
struct House {
    const char* name;
    std::string pam;
    const char* privilege;
    Message welcome;
    bool asksKadmin = false;
};
void PrintTo(const House& house, std::ostream* out) {
    *out << house.name;
}

const House welcoming{
    "Welcoming", "style=echo_off env=PRIVILEGES=511", "511", {"Base.1.12.Created", {}}};
const House guarded{"Guarded",
                    std::string("env=PRIVILEGES=511 password=") + administrator.password,
                    "511",
                    {"Base.1.12.Created", {}}};
const House passwordsExpired{
    "PasswordsExpired",
    "style=echo_off env=PRIVILEGES=511 acct=PAM_NEW_AUTHTOK_REQD",
    "511",
    {"Base.1.12.PasswordChangeRequired", {'"' + std::string(administrator.uri) + '"'}}};
const House kerberos{"Kerberos",
                     "style=echo_off env=pam_module=kerberos",
                     operatorAccount.privilege,
                     {"Base.1.12.Created", {}},
                     true};

unsigned long fromEnvironment(const char* name, unsigned long otherwise) {
    const char* text = std::getenv(name);
    return text == nullptr ? otherwise : std::strtoul(text, nullptr, 10);
}

bool startsWith(const std::string& text, const std::string& start) {
    return text.compare(0, start.size(), start) == 0;
}

bool endsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// Whether a text is `start` and so many hexadecimal digits.
bool isDrawn(const std::string& text, const std::string& start, std::size_t digits) {
    return text.size() == start.size() + digits && startsWith(text, start) &&
           text.find_first_not_of("0123456789abcdef", start.size()) == std::string::npos;
}

// "Nov 21 01:27:00 1763688420 [Error]: text": a letter stands for letters, a digit for digits.
bool hasDate(const std::string& line) {
    const std::string form = "Aaa 99 99:99:99 9";
    if (line.size() < form.size()) {
        return false;
    }
    for (std::size_t i = 0; i < form.size(); ++i) {
        const auto found = static_cast<unsigned char>(line[i]);
        const auto wanted = static_cast<unsigned char>(form[i]);
        const bool fits = std::isalpha(wanted) != 0   ? std::isalpha(found) != 0
                          : std::isdigit(wanted) != 0 ? std::isdigit(found) != 0
                                                      : found == wanted;
        // The day of the month is padded with a blank.
        if (!fits && !(i == 4 && found == ' ')) {
            return false;
        }
    }
    return true;
}

// Whether the daemon has a message like this. What was forged would begin like none of them.
bool isKnownMessage(const std::string& message) {
    static const Words starts{
        "Cannot get SHA script ",
        "Create session: &&ReturnChannel not found.",
        "Create session: &&RequestData not found.",
        "Empty request data.",
        "Failed to add session entry",
        "Failed to execute command.",
        "Failed to generate LogEntry",
        "Failed to generate life cycle event. ",
        "Failed to get sessions.",
        "Failed to increase the counter &&EVENT_GROUP_ID_COUNTER",
        "Failed to create meta session table.",
        "Failed to reset the EventGroupId counter.",
        "Failed to update Return Status.",
        "LogEntry collection doesn't exist, Session Service will not generate audit log.",
        "Max EventGroupId value ",
        "Not containing recognized token &&",
        "OperationFailed: Failed to SetMultipleFields.",
        "PAM: password change required.",
        "Password exceeds maxlength.",
        "Privilege value out of range stoi",
        "Privilege value type error stoi",
        "Privilege value type error: stoi",
        "Request SessionType is not Redfish.",
        "Request data format is incorrect.",
        "ReturnChannel is not found.",
        "&&TargetURI is not found.",
        "Session Service disabled.",
        "SessionService disabled.",
        "The LogEntry cannot be generated since logs already reached the max count.",
        "The LogEntry is not generated since the severity of the message is not desired.",
        "The default max value was set to invalid value.",
        "return false: ",
    };
    return endsWith(message, " does not pass the PAM auth.") ||
           std::any_of(starts.begin(), starts.end(),
                       [&](const std::string& start) { return startsWith(message, start); });
}

bool isLogLine(const std::string& line) {
    if (!hasDate(line)) {
        return false;
    }
    const std::size_t epoch = std::string("Nov 21 01:27:00 ").size();
    const std::size_t tag = line.find_first_not_of("0123456789", epoch);
    const std::string rest = line.substr(tag);
    const std::string tagForm = " [Error]: ";
    return (startsWith(rest, tagForm) || startsWith(rest, " [Debug]: ")) &&
           std::none_of(rest.begin(), rest.end(),
                        [](unsigned char code) { return code < 0x20 || code == 0x7f; }) &&
           isKnownMessage(rest.substr(tagForm.size()));
}

// Whole tasks for the store: each one in a single step, so that nothing else comes between.
// What the storms themselves wrote, megabytes of it, is not looked at closely.
constexpr char snapshotScript[] = R"(
local content = {}
for _, key in ipairs(redis.call('KEYS', '*')) do
  local kind = redis.call('TYPE', key).ok
  content[#content + 1] = {
    key, kind, key:find('&&/hostile/', 1, true) == 1 and '' or redis.call('DUMP', key),
    redis.call('PTTL', key),
    kind == 'hash' and redis.call('HGETALL', key) or {}}
end
return content)";
// The arguments are keys and what they hold, serialised.
constexpr char restoringScript[] = R"(
local kept = {}
for i = 1, #ARGV, 2 do
  redis.call('RESTORE', ARGV[i], 0, ARGV[i + 1], 'REPLACE')
  kept[ARGV[i]] = true
end
for _, key in ipairs(redis.call('KEYS', '*')) do
  if not kept[key] then redis.call('DEL', key) end
end)";
// The arguments are commands, each behind the number of its words.
constexpr char commandsScript[] = R"(
local i = 1
while i <= #ARGV do
  redis.pcall(unpack(ARGV, i + 1, i + ARGV[i]))
  i = i + ARGV[i] + 1
end)";

// What one key of the store holds.
struct Stored {
    std::string kind;
    Fields fields;           // of a hash
    std::string serialised;  // of everything
    long long timeToLive = 0;
};

// What is known of a storm while it goes on.
struct Storm {
    unsigned seed = 0;
    std::vector<HostileRequest> requests{};
    // Keys that the front end itself wrote.
    std::set<std::string> made{};
    // Keys that its requests had the daemon write to. By contract these are the reply key,
    // the return channel of a login (a key of that name gets an empty &&ResponseData), and
    // a message list beside the reply or request key; hashes keep the fields that they had.
    // Whoever may send requests chooses these names, so the daemon cannot protect them.
    std::set<std::string> named{};
    std::set<std::string> messageLists{};
};

class HostileFrontEnd : public SystemTest,
                        public testing::WithParamInterface<std::tuple<House, unsigned>> {
  protected:
    void SetUp() override {
        usePamTest(house().pam);
        if (house().asksKadmin) {
            useFakeKadmin("aci_group: aciopera;\n");
            controller.writeFile("/etc/pam.d/q73.conf", "KrbAttrGrouping=1;\n");
        }
        start();
        threads = countThreads();
        insertCanaries();
        buildFences();
        for (const std::string& password :
             {std::string(administrator.password), std::string("'; touch /tmp/started; '"),
              std::string("$(touch /tmp/started)"), std::string("-w"), std::string("%s%n\n"),
              std::string(), std::string("a\0b", 3), std::string(1024, 'p')}) {
            passwords.push_back(frontEnd().encryptPassword(password));
        }
        returns.emplace(controller.connect());
        returns->subscribe(fenceReturn);
        // The messages of a reply are still there after any stall.
        store().hset("webDefaultValue", {{"REDIS_CONNECTION_DEFAULT_TIMEOUT", "600000"}});
        baseline = readStore();
        expectPlainLife();
        settle();
        restoreStore();
        // What is logged from here on is of requests.
        controller.removeFile(logFile);
        filesBefore = readFiles();
    }

    static const House& house() { return std::get<0>(GetParam()); }

    // A hundred requests, or fewer, and everything that has to be there afterwards.
    void endureStorm(unsigned seed, unsigned long count) {
        Storm storm{.seed = seed};
        try {
            rage(storm, count);
            for (const char* channel : {createChannel, deleteChannel, patchChannel}) {
                passFence(channel);
            }
            settle();
            EXPECT_EQ(countThreads(), threads);
            checkStore(storm);
            checkFiles();
            restoreStore();
            controller.writeFile(persistentFile, filesBefore.at(persistentFile));
            waitForExpiry();
            checkLog();
            expectPlainLife();
            settle();
        } catch (const Failure& failure) {
            ADD_FAILURE() << failure.what();
        }
        if (HasFailure()) {
            tell(storm);
        }
    }

    // Sessions still expire.
    void expectExpiry() {
        const InsertedSession session = frontEnd().insertSession({.timeout = "0"});
        waitUntil("a session expires", [&] { return !store().exists(tokenKey(session.token)); });
        waitForExpiry();
        settle();
        checkLog();
    }

    // How often the requests came to each outcome.
    std::map<std::string, unsigned long> outcomes{
        {"AUTH_FAILED", 0}, {"EXCEPTION", 0}, {"FAILURE", 0},     {"FORBIDDEN", 0},
        {"OK", 0},          {"OK_EMPTY", 0},  {"UNAVAILABLE", 0},
    };

  private:
    static inline const std::string fenceReturn = "&&/fence/return";
    // Resources that each name the next one twice, from the first one on.
    static inline const std::string branch = "canary/branch/";
    static inline const std::string canarySession = std::string(sessionsUri) + "/" + "cafe0001";

    // One key of each kind, keys that a text falling apart would hit, and a session.
    void insertCanaries() {
        store().run({"SET", "canary/text", "sings"});
        store().run({"RPUSH", "canary/list", "sings", "&&ObjectRef x"});
        store().run({"SADD", "canary/set", "sings"});
        store().run({"ZADD", "canary/sorted", "1", "sings"});
        store().run({"XADD", "canary/stream", "*", "it", "sings"});
        store().run({"HSET", "canary/hash", "it", "sings", "UserName", "\"canary\""});
        for (const char* word : {"x", "a", "b", "c", "before", "%s", "touch", "1", "-1", "(nil)"}) {
            store().run({"HSET", word, "it", "sings"});
        }
        for (int level = 1; level < 32; ++level) {
            const std::string next = branch + std::to_string(level + 1);
            store().run({"HSET", branch + std::to_string(level), "&&Object a " + next, "",
                         "&&Object b " + next, ""});
        }
        store().run({"HSET", branch + "32", "it", "sings"});
        frontEnd().insertSession({.identifier = "cafe0001",
                                  .token = std::string(64, 'c'),
                                  .userName = "canary",
                                  .timeout = "86400",
                                  .member = false});
    }

    // Requests that are answered whatever state the service is in, and change nothing: a
    // password that is too long, a session of another type, a method that is not PATCH.
    void buildFences() {
        store().hset("&&/fence/body",
                     {{"Password", frontEnd().encryptPassword(std::string(1025, 'p'))}});
        store().hset("&&/fence/target", {{"SessionType", "\"Other\""}});
        store().hset("&&/fence/request", {{"&&ReturnChannel", fenceReturn},
                                          {"&&RequestData", "&&/fence/body"},
                                          {"&&TargetURI", "&&/fence/target"},
                                          {"&&RequestMethod", "GET"}});
    }

    // Returns once the daemon has served everything that was published on the channel.
    void passFence(const std::string& channel) {
        constexpr std::chrono::milliseconds attention{100};
        const std::string reply = "&&/fence/reply/" + std::to_string(++fenceCount);
        store().publish(channel, "&&/fence/request " + reply);
        const Deadline end = deadlineFromNow();
        for (;;) {
            const auto ended = controller.daemon().exitStatus();
            const Deadline now = std::chrono::steady_clock::now();
            const std::optional<Value> message = returns->next(now + attention);
            if (message && message->elements.at(2).text == reply) {
                return;
            }
            if (ended) {
                throw Failure("The daemon ended with " + toText(*ended) + ".");
            }
            if (now > end) {
                throw Failure("Nothing comes of requests on " + channel + " any more.");
            }
        }
    }

    // Returns once no request is being served. Connections are not left behind.
    void settle() {
        // Three subscribers and the expiry; here the test, its front end and its fences.
        const std::string lasting = "connected_clients:7\r";
        waitUntil("the connections of all requests are closed", [&] {
            return store().run({"INFO", "clients"}).text.find(lasting) != std::string::npos;
        });
    }

    void rage(Storm& storm, unsigned long count) {
        HostileRequests requests(storm.seed, {namesOfOthers(), {canarySession}, passwords});
        for (unsigned long i = 0; i < count; ++i) {
            if (i % 10 == 0) {
                mend(storm);
            }
            storm.requests.push_back(requests.next());
            const HostileRequest& request = storm.requests.back();
            note(storm, request);
            runAll(request.preparation);
            store().publish(request.channel, request.notice);
            // Some pile up while the hashes of the next ones are written.
            if (i % 3 != 0) {
                passFence(request.channel);
            }
        }
    }

    Words namesOfOthers() const {
        Words names;
        for (const auto& key : baseline) {
            if (!startsWith(key.first, "&&/fence/") && !startsWith(key.first, branch)) {
                names.push_back(key.first);
            }
        }
        names.push_back(branch + "1");
        return names;
    }

    static void note(Storm& storm, const HostileRequest& request) {
        for (const Words& command : request.preparation) {
            storm.made.insert(command.at(1));
            const auto channel = std::find(command.begin(), command.end(), "&&ReturnChannel");
            if (channel != command.end() && channel + 1 != command.end()) {
                storm.named.insert((channel + 1)->c_str());
            }
        }
        const std::string notice = request.notice.c_str();
        const std::size_t blank = notice.find(' ');
        const std::string requestKey = notice.substr(0, blank);
        const std::string replyKey = notice.substr(blank + 1);
        storm.named.insert(replyKey);
        storm.messageLists.insert(replyKey.substr(0, replyKey.rfind('/') + 1) + "ExtendedInfo");
        storm.messageLists.insert(replyKey + "/ExtendedInfo");
        storm.messageLists.insert(requestKey + "/ExtendedInfo");
    }

    void runAll(const std::vector<Words>& commands) {
        Words script{"EVAL", commandsScript, "0"};
        for (const Words& command : commands) {
            script.push_back(std::to_string(command.size()));
            script.insert(script.end(), command.begin(), command.end());
        }
        store().run(script);
    }

    // Gives the service back what storms took, so that the next requests get far.
    void mend(Storm& storm) {
        std::vector<Words> commands{{"DEL", membersKey}};
        for (const std::string& key : storm.made) {
            const auto found = baseline.find(key);
            if (found != baseline.end()) {
                commands.push_back({"RESTORE", key, "0", found->second.serialised, "REPLACE"});
            }
        }
        for (Words& command : HostileRequests::insertVictims()) {
            if (command.at(1) != sessionsUri) {
                storm.made.insert(command.at(1));
            }
            commands.push_back(std::move(command));
        }
        runAll(commands);
    }

    void restoreStore() {
        Words script{"EVAL", restoringScript, "0"};
        for (const auto& [key, value] : baseline) {
            script.push_back(key);
            script.push_back(value.serialised);
        }
        store().run(script);
    }

    // Returns once no session of a storm is being expired: the lock is free for a deletion.
    void waitForExpiry() {
        waitUntil("nothing expires any more", [&] {
            return frontEnd().remove(std::string(sessionsUri) + "/nobody").status() == "OK_EMPTY";
        });
    }

    std::map<std::string, Stored> readStore() {
        std::map<std::string, Stored> content;
        for (const Value& entry : store().run({"EVAL", snapshotScript, "0"}).elements) {
            Stored& stored = content[entry.elements.at(0).text];
            stored.kind = entry.elements.at(1).text;
            stored.serialised = entry.elements.at(2).text;
            stored.timeToLive = entry.elements.at(3).integer;
            const std::vector<Value>& fields = entry.elements.at(4).elements;
            for (std::size_t i = 0; i + 1 < fields.size(); i += 2) {
                stored.fields[fields[i].text] = fields[i + 1].text;
            }
        }
        return content;
    }

    void checkStore(const Storm& storm) {
        const std::map<std::string, Stored> content = readStore();
        for (const auto& [key, before] : baseline) {
            if (storm.made.count(key) == 0) {
                SCOPED_TRACE(key);
                const auto found = content.find(key);
                EXPECT_TRUE(found != content.end());
                if (found != content.end()) {
                    checkUntouched(key, before, found->second);
                }
            }
        }
        for (const auto& [key, stored] : content) {
            EXPECT_TRUE(mayBeThere(storm, key)) << "unexpected key " << key.substr(0, 200);
            if (!startsWith(key, "&&/fence/")) {
                countOutcome(stored);
            }
        }
        if (storm.made.count(membersKey) == 0) {
            for (const std::string& member : store().lrange(membersKey)) {
                EXPECT_TRUE(isDrawn(member, "&&ObjectRef " + std::string(sessionsUri) + "/", 8))
                    << member;
            }
        }
    }

    static void checkUntouched(const std::string& key, const Stored& before, const Stored& after) {
        // What the service keeps there, and what a reply consists of.
        static const std::map<std::string, std::set<std::string>> kept{
            {serviceUri, {"SessionTimeout", "@odata.etag"}},
            {sessionsUri, {"Members@odata.count", "@odata.etag"}},
            {"/redfish/v1/EventService", {"&&EVENT_GROUP_ID_COUNTER"}},
            {"/redfish/v1/Managers/1/LogServices/AuditLog/Entries",
             {"&&LastId", "Members@odata.count"}},
        };
        static const std::set<std::string> replyFields{
            "&&ReturnStatus", "&&ExtendedInfo", "&&Location", "&&X-Auth-Token", "&&ResponseData"};
        EXPECT_EQ(after.kind, before.kind);
        EXPECT_EQ(after.timeToLive, before.timeToLive);
        if (before.kind != "hash") {
            EXPECT_EQ(after.serialised, before.serialised);
            return;
        }
        const auto changing = kept.find(key);
        const auto mayChange = [&](const std::string& field) {
            return changing != kept.end() && changing->second.count(field) != 0;
        };
        for (const auto& [field, value] : before.fields) {
            const auto found = after.fields.find(field);
            EXPECT_TRUE(mayChange(field) || (found != after.fields.end() && found->second == value))
                << "changed: " << field;
        }
        for (const auto& field : after.fields) {
            EXPECT_TRUE(before.fields.count(field.first) != 0 || mayChange(field.first) ||
                        replyFields.count(field.first) != 0)
                << "unexpected field " << field.first.substr(0, 200);
        }
    }

    bool mayBeThere(const Storm& storm, const std::string& key) const {
        const std::string session = std::string(sessionsUri) + "/";
        const std::string entries = "/redfish/v1/Managers/1/LogServices/AuditLog/Entries/";
        return baseline.count(key) != 0 || storm.made.count(key) != 0 ||
               storm.named.count(key) != 0 || startsWith(key, "&&/request/") ||
               startsWith(key, "&&/fence/") || isDrawn(key, session, 8) ||
               isDrawn(key, "&&" + session, 8) || isDrawn(key, "&&X-AUTH-TOKEN-", 64) ||
               key == membersKey || key == "&&EventStream" || startsWith(key, entries) ||
               key == "&&" + entries + "Members" || belongsToMessages(storm, key);
    }

    // A list of messages, its entries, or their arguments. Keys of entries are cut.
    static bool belongsToMessages(const Storm& storm, const std::string& key) {
        constexpr std::size_t maxEntryLength = 511;
        return std::any_of(storm.messageLists.begin(), storm.messageLists.end(),
                           [&](const std::string& list) {
                               return key == list || startsWith(key, list + "/") ||
                                      (list.size() + 2 > maxEntryLength &&
                                       startsWith(key, list.substr(0, maxEntryLength)));
                           });
    }

    void countOutcome(const Stored& reply) {
        const auto status = reply.fields.find("&&ReturnStatus");
        if (status != reply.fields.end() && outcomes.count(status->second) != 0) {
            ++outcomes[status->second];
        }
    }

    // What the private root consists of, by path inside.
    std::map<std::string, std::string> readFiles() const {
        const std::string root = controller.path("");
        std::map<std::string, std::string> files;
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
            const std::string inside = entry.path().string().substr(root.size());
            if (startsWith(inside, "/var/log/") || inside == "/tmp/pam.records" ||
                inside == "/tmp/kadmin.arguments") {
                continue;
            }
            const fs::file_status status = entry.symlink_status();
            std::string& content = files[inside];
            if (status.type() == fs::file_type::regular) {
                std::ifstream file(entry.path(), std::ios::binary);
                content.assign(std::istreambuf_iterator<char>(file), {});
            } else {
                content = "of kind " + std::to_string(static_cast<int>(status.type()));
            }
        }
        return files;
    }

    void checkFiles() {
        std::map<std::string, std::string> files = readFiles();
        // A PATCH writes its value there, and nothing else.
        std::string& properties = files[persistentFile];
        const std::string before = filesBefore.at(persistentFile);
        const std::size_t value = before.find("=") + 1;
        EXPECT_EQ(properties.substr(0, value), before.substr(0, value));
        EXPECT_EQ(properties.find('\n', value), properties.size() - 1);
        properties = before;
        for (const auto& [path, content] : filesBefore) {
            const auto found = files.find(path);
            EXPECT_TRUE(found != files.end() && found->second == content) << "changed: " << path;
        }
        for (const auto& file : files) {
            EXPECT_EQ(filesBefore.count(file.first), 1U) << "unexpected file " << file.first;
        }
        controller.removeFile("/tmp/pam.records");
        controller.removeFile("/tmp/kadmin.arguments");
    }

    // The log is removed once it was found in order; the daemon begins another one.
    void checkLog() {
        for (const fs::directory_entry& entry :
             fs::directory_iterator(controller.path("/var/log"))) {
            std::ifstream log(entry.path(), std::ios::binary);
            for (std::string line; std::getline(log, line);) {
                // A line without its end is being written.
                EXPECT_TRUE(log.eof() || isLogLine(line)) << line.substr(0, 1000);
            }
            if (!HasFailure()) {
                fs::remove(entry.path());
            }
        }
    }

    // A login, a logout and a PATCH as they have always been.
    void expectPlainLife() {
        Request login = frontEnd().prepareLogin(administrator.name, administrator.password);
        login.send();
        const Reply welcome = login.reply();
        EXPECT_EQ(welcome.published, login.replyKey());
        EXPECT_EQ(welcome.status(), "OK");
        EXPECT_EQ(welcome.fields.size(), 4U);
        EXPECT_EQ(welcome.messages, std::vector<Message>{house().welcome});
        EXPECT_EQ(store().hget(welcome.location(), "UserName"), "\"admin\"");
        EXPECT_EQ(store().hget(tokenKey(welcome.token()), "UserName"), "admin");
        EXPECT_EQ(store().hget(tokenKey(welcome.token()), "Privilege"), house().privilege);
        EXPECT_EQ(store().lrange(membersKey), Words{"&&ObjectRef " + welcome.location()});

        const Reply farewell = frontEnd().remove(welcome.location());
        EXPECT_EQ(farewell.status(), "OK_EMPTY");
        EXPECT_EQ(farewell.messages, std::vector<Message>{});
        EXPECT_FALSE(store().exists(welcome.location()));
        EXPECT_FALSE(store().exists(tokenKey(welcome.token())));
        EXPECT_FALSE(store().exists(membersKey));

        EXPECT_EQ(frontEnd().patch({{"SessionTimeout", "300"}}).status(), "OK");
        EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "300");
    }

    std::ptrdiff_t countThreads() {
        const std::string tasks = "/proc/" + std::to_string(controller.daemon().pid()) + "/task";
        return std::distance(fs::directory_iterator(tasks), fs::directory_iterator());
    }

    static void tell(const Storm& storm) {
        std::cerr << "--- " << storm.requests.size()
                  << " requests, to be repeated with HOSTILE_SEED=" << storm.seed
                  << " HOSTILE_REQUESTS=" << storm.requests.size() << "\n";
        for (const HostileRequest& request : storm.requests) {
            std::cerr << toText(request);
        }
    }

    std::optional<StoreClient> returns;
    unsigned long fenceCount = 0;
    std::ptrdiff_t threads = 0;
    Words passwords;
    std::map<std::string, Stored> baseline;
    std::map<std::string, std::string> filesBefore;
};

TEST_P(HostileFrontEnd, LeavesDaemonAndStrangersUnharmed) {
    const unsigned long requests = fromEnvironment("HOSTILE_REQUESTS", 200);
    auto seed = static_cast<unsigned>(fromEnvironment("HOSTILE_SEED", std::get<1>(GetParam())));
    for (unsigned long sent = 0; sent < requests && !HasFailure(); sent += requestsOfAStorm) {
        endureStorm(seed++, std::min(requestsOfAStorm, requests - sent));
    }
    if (HasFailure()) {
        return;
    }
    expectExpiry();
    // Storms that do not get far show little.
    EXPECT_GT(outcomes["OK"], 0U);
    EXPECT_GT(outcomes["OK_EMPTY"], 0U);
    std::cout << requests << " requests:";
    for (const auto& [outcome, count] : outcomes) {
        std::cout << ' ' << outcome << ' ' << count;
    }
    std::cout << '\n';
}

INSTANTIATE_TEST_SUITE_P(A, HostileFrontEnd,
                         testing::Combine(testing::Values(welcoming, guarded, passwordsExpired,
                                                          kerberos),
                                          testing::Values(1000U, 2000U, 3000U)),
                         [](const auto& instance) {
                             return std::get<0>(instance.param).name +
                                    std::to_string(std::get<1>(instance.param));
                         });

}  // namespace
}  // namespace testbed
