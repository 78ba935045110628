// Redfish clients that people use, as the machine has them, at work through the web front end.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstring>
#include <sstream>

#include "support/web_test.h"
#include "testbed/events_and_audit_log.h"

namespace testbed {
namespace {

using testing::HasSubstr;
using testing::Not;

struct Outcome {
    ExitStatus ending;
    std::string output;  // of both standard streams
};

// A program of the machine, outside all sandboxes; the destructor ends it.
class Client {
  public:
    // The environment is bare, so that no settings of whoever runs the test reach it.
    Client(const Words& command, const std::string& folder, const std::string& outputFile) {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 1, outputFile.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
        posix_spawn_file_actions_addclosefrom_np(&actions, 3);

        // The testbed ignores SIGPIPE; its clients must not.
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
        sigset_t signals;
        sigfillset(&signals);
        posix_spawnattr_setsigdefault(&attributes, &signals);

        const Words environment{"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8",
                                "HOME=" + folder};
        const int error = posix_spawn(&pid, command.front().c_str(), &actions, &attributes,
                                      pointersTo(command).data(), pointersTo(environment).data());
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
        if (error != 0) {
            throw Failure(command.front() + " could not be started: " + std::strerror(error));
        }
    }
    ~Client() {
        if (!ended) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    ExitStatus wait() {
        int status = 0;
        waitUntil("the client ends", [&] { return waitpid(pid, &status, WNOHANG) == pid; });
        ended = true;
        return WIFSIGNALED(status) ? ExitStatus{true, WTERMSIG(status)}
                                   : ExitStatus{false, WEXITSTATUS(status)};
    }

  private:
    static std::vector<char*> pointersTo(const Words& words) {
        std::vector<char*> pointers;
        for (const std::string& word : words) {
            pointers.push_back(const_cast<char*>(word.c_str()));
        }
        pointers.push_back(nullptr);
        return pointers;
    }

    pid_t pid = -1;
    bool ended = false;
};

class WebClients : public WebTest {
  protected:
    Outcome run(const Words& command) {
        const std::string output = "/tmp/client.output";
        Client client(command, controller.path("/tmp"), controller.path(output));
        const ExitStatus ending = client.wait();
        return {ending, controller.readFile(output)};
    }

    static void expectSuccess(const Outcome& outcome) {
        EXPECT_EQ(toText(outcome.ending), toText(ExitStatus{})) << outcome.output;
    }

    // The wrong password has to be the reason of the refusal, not what the client makes of it.
    void expectRefusal() {
        EXPECT_GE(countLogged("admin does not pass the PAM auth."), 1);
        expectTrail(0);
        expectNoSession();
    }

    long countEntries(const std::string& message) {
        const std::vector<Words> entries = auditEntries(store());
        return std::count_if(entries.begin(), entries.end(), [&](const Words& entry) {
            return entry.at(0) == "\"AuditEvent.1.1." + message + "\"";
        });
    }

    // The administrator has logged in so many times, and out as often. The service makes an entry
    // a moment after its reply.
    void expectTrail(long logins) {
        waitUntil("each session has its entries",
                  [&] { return countEntries("UserLogout") >= logins; });
        EXPECT_EQ(countEntries("UserLogin"), logins);
        EXPECT_EQ(countEntries("UserLogout"), logins);
        for (const Words& entry : auditEntries(store())) {
            EXPECT_THAT(entry.at(1), HasSubstr(administrator.name));
        }
    }

    // Those of HTTP Basic end soon after their last use.
    void expectNoSession() {
        waitUntil("no session is left", [this] {
            return store().llen(membersKey) == 0 &&
                   store().hget(sessionsUri, "Members@odata.count") == "0" &&
                   store().keys(std::string(sessionsUri) + "/*").empty() &&
                   store().keys(tokenKey("*")).empty();
        });
    }

    // For clients that log in as often as they like.
    void expectSessionsThatEnded() {
        expectNoSession();
        const long logins = countEntries("UserLogin");
        EXPECT_GE(logins, 1);
        expectTrail(logins);
    }

    std::string storedTimeout() { return store().hget(serviceUri, "SessionTimeout"); }
};

class Curl : public WebClients {
  protected:
    // What is left of the answer: status, Location and X-Auth-Token; the body is in a file.
    Outcome curl(const Words& arguments) {
        Words command{"/usr/bin/curl",
                      "-q",
                      "--silent",
                      "--show-error",
                      "--fail-with-body",
                      "--cacert",
                      web.certificatePath(),
                      "--output",
                      controller.path(bodyFile),
                      "--write-out",
                      "%{http_code} %header{location} %header{x-auth-token}"};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return run(command);
    }
    Outcome login(const std::string& password) {
        return curl({"--header", "Content-Type: application/json", "--data",
                     R"({"UserName": "admin", "Password": ")" + password + "\"}",
                     web.url() + sessionsUri});
    }

    static constexpr char bodyFile[] = "/tmp/client.body";
};

TEST_F(Curl, LogsInReadsChangesAndLogsOut) {
    const Outcome session = login(administrator.password);
    expectSuccess(session);
    std::string status;
    std::string location;
    std::string token;
    std::istringstream(session.output) >> status >> location >> token;
    EXPECT_EQ(status, "201");
    EXPECT_EQ(store().hget(tokenKey(token), "SessionID"), location);

    const Words tokenHeader{"--header", "X-Auth-Token: " + token};
    const auto withToken = [&](Words arguments) {
        arguments.insert(arguments.end(), tokenHeader.begin(), tokenHeader.end());
        return curl(arguments);
    };
    const Outcome read = withToken({web.url() + location});
    expectSuccess(read);
    EXPECT_THAT(read.output, HasSubstr("200"));
    EXPECT_THAT(controller.readFile(bodyFile), HasSubstr(R"("UserName":"admin")"));

    expectSuccess(withToken({"--request", "PATCH", "--header", "Content-Type: application/json",
                             "--data", R"({"SessionTimeout": 900})", web.url() + serviceUri}));
    EXPECT_EQ(storedTimeout(), "900");

    expectSuccess(withToken({"--request", "DELETE", web.url() + location}));
    expectNoSession();
    expectTrail(1);

    const Outcome late = withToken({web.url() + location});
    EXPECT_EQ(toText(late.ending), toText(ExitStatus{false, 22})) << late.output;
    EXPECT_THAT(late.output, HasSubstr("401"));
}

TEST_F(Curl, IsRefusedWithAWrongPassword) {
    const Outcome refused = login("not the password");
    EXPECT_EQ(toText(refused.ending), toText(ExitStatus{false, 22})) << refused.output;
    expectRefusal();
    EXPECT_THAT(refused.output, HasSubstr("401"));
    EXPECT_THAT(controller.readFile(bodyFile), HasSubstr("InvalidCredentials"));
}

TEST_F(Curl, IsRedirectedFromHttpToHttps) {
    const Outcome followed = curl({"--location", web.plainUrl() + "/redfish"});
    expectSuccess(followed);
    EXPECT_THAT(controller.readFile(bodyFile), HasSubstr("/redfish/v1/"));
}

class Redfishtool : public WebClients {
  protected:
    Outcome redfishtool(const std::string& authentication, const std::string& password,
                        const Words& arguments) {
        Words command{"/usr/bin/redfishtool",
                      "-r",
                      web.address() + ":8443",
                      "-u",
                      administrator.name,
                      "-p",
                      password,
                      "-A",
                      authentication,
                      "-S",
                      "Always"};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return run(command);
    }
};

TEST_F(Redfishtool, LogsInOnceAndFindsItsOwnSession) {
    const Outcome list =
        redfishtool("Session", administrator.password, {"SessionService", "Sessions", "list"});
    expectSuccess(list);
    EXPECT_THAT(list.output, HasSubstr("admin"));
    expectTrail(1);
    expectNoSession();
}

// Both ways to log in.
class RedfishtoolAuthentication : public Redfishtool,
                                  public testing::WithParamInterface<std::string> {
  protected:
    Outcome redfishtool(const Words& arguments) {
        return Redfishtool::redfishtool(GetParam(), administrator.password, arguments);
    }
};

TEST_P(RedfishtoolAuthentication, ReadsTheService) {
    const Outcome read = redfishtool({"SessionService"});
    expectSuccess(read);
    EXPECT_THAT(read.output, HasSubstr(R"("SessionTimeout": 300)"));
    expectSessionsThatEnded();
}

TEST_P(RedfishtoolAuthentication, ReadsAllSessions) {
    const HttpResponse other = newClient().login(reader.name, reader.password);
    const Outcome all = redfishtool({"SessionService", "Sessions", "-a"});
    expectSuccess(all);
    EXPECT_THAT(all.output, HasSubstr(other.location()));
    EXPECT_THAT(all.output, HasSubstr(GetParam() == "Basic" ? R"("Members@odata.count": 1)"
                                                            : R"("Members@odata.count": 2)"));
    HttpClient theirs = newClient();
    theirs.useToken(other.token());
    EXPECT_EQ(theirs.remove(other.location()).status, 204);
    expectNoSession();
}

TEST_P(RedfishtoolAuthentication, ReadsAllAccounts) {
    const Outcome all = redfishtool({"AccountService", "Accounts", "-a"});
    expectSuccess(all);
    EXPECT_THAT(all.output, HasSubstr(reader.uri));
    expectSessionsThatEnded();
}

TEST_P(RedfishtoolAuthentication, ChangesTheTimeout) {
    expectSuccess(redfishtool({"SessionService", "setSessionTimeout", "200"}));
    EXPECT_EQ(storedTimeout(), "200");
    expectSessionsThatEnded();
}

TEST_P(RedfishtoolAuthentication, FailsToChangeTheTimeoutToAValueOutOfRange) {
    const Outcome refused = redfishtool({"SessionService", "patch", R"({"SessionTimeout":1})"});
    EXPECT_NE(toText(refused.ending), toText(ExitStatus{})) << refused.output;
    EXPECT_EQ(storedTimeout(), "300");
    expectSessionsThatEnded();
}

TEST_P(RedfishtoolAuthentication, IsRefusedWithAWrongPassword) {
    const Outcome refused =
        Redfishtool::redfishtool(GetParam(), "not the password", {"SessionService"});
    EXPECT_NE(toText(refused.ending), toText(ExitStatus{})) << refused.output;
    expectRefusal();
}

INSTANTIATE_TEST_SUITE_P(Of, RedfishtoolAuthentication, testing::Values("Basic", "Session"),
                         [](const auto& test) { return test.param; });

// All ways to log in that sushy has.
class Sushy : public WebClients, public testing::WithParamInterface<std::string> {
  protected:
    // Runs these lines between login and logout.
    Outcome sushy(const std::string& password, const std::string& lines) {
        const std::string script = "/tmp/client.script";
        controller.writeFile(script,
                             "import sys, sushy\n"
                             "url, certificate, user, password = sys.argv[1:]\n"
                             "authentication = sushy.auth." +
                                 GetParam() +
                                 "(user, password)\n"
                                 "client = sushy.Sushy(url + '/redfish/v1', auth=authentication,\n"
                                 "                     verify=certificate)\n" +
                                 lines + "client._auth.close()\n");
        // Debian's own interpreter has the module, and must not look for it elsewhere.
        return run({"/usr/bin/python3", "-I", controller.path(script), web.url(),
                    web.certificatePath(), administrator.name, password});
    }
    void expectSessionsAsTheyWere() {
        if (GetParam() != "BasicAuth") {
            expectTrail(1);
        }
        expectSessionsThatEnded();
    }
};

TEST_P(Sushy, LogsInReadsChangesAndLogsOut) {
    expectSuccess(sushy(administrator.password,
                        "service = client.get_session_service()\n"
                        "assert service.session_timeout == 300, service.session_timeout\n"
                        "client._conn.patch(service.path, data={'SessionTimeout': 400})\n"
                        "service.refresh(force=True)\n"
                        "assert service.session_timeout == 400, service.session_timeout\n"));
    EXPECT_EQ(storedTimeout(), "400");
    expectSessionsAsTheyWere();
}

TEST_P(Sushy, FindsTheSystemAndItsOwnSessionIfThatIsToBeSeen) {
    const std::string users = GetParam() == "BasicAuth" ? "[]" : "[user]";
    expectSuccess(sushy(administrator.password,
                        "service = client.get_session_service()\n"
                        "users = [each.username for each in service.sessions.get_members()]\n"
                        "assert users == " +
                            users +
                            ", users\n"
                            "systems = client.get_system_collection().members_identities\n"
                            "assert systems == ('/redfish/v1/Systems/1',), systems\n"));
    expectSessionsAsTheyWere();
}

TEST_P(Sushy, IsToldWhatIsWrongWithAValue) {
    expectSuccess(sushy(administrator.password,
                        "service = client.get_session_service()\n"
                        "try:\n"
                        "    client._conn.patch(service.path, data={'SessionTimeout': 1})\n"
                        "    sys.exit('The value was taken.')\n"
                        "except sushy.exceptions.BadRequestError as refusal:\n"
                        "    assert 'SessionTimeout' in str(refusal), refusal\n"));
    EXPECT_EQ(storedTimeout(), "300");
    expectSessionsAsTheyWere();
}

TEST_P(Sushy, IsRefusedWithAWrongPassword) {
    const Outcome refused = sushy("not the password", "client.get_session_service()\n");
    EXPECT_EQ(toText(refused.ending), toText(ExitStatus{false, 1})) << refused.output;
    EXPECT_THAT(refused.output, HasSubstr("AccessError"));
    expectRefusal();
}

INSTANTIATE_TEST_SUITE_P(With, Sushy,
                         testing::Values("BasicAuth", "SessionAuth", "SessionOrBasicAuth"),
                         [](const auto& test) { return test.param; });

// Logs in by HTTP Basic.
class FenceRedfish : public WebClients {
  protected:
    Outcome fence(const std::string& action, const std::string& password) {
        return run({"/usr/sbin/fence_redfish", "--ip=" + web.address(), "--ipport=8443",
                    "--username=" + std::string(administrator.name), "--password=" + password,
                    "--ssl-insecure", "--action=" + action});
    }
};

TEST_F(FenceRedfish, TellsThatTheSystemIsOn) {
    const Outcome status = fence("status", administrator.password);
    expectSuccess(status);
    EXPECT_THAT(status.output, HasSubstr("Status: ON"));
    expectSessionsThatEnded();
}

TEST_F(FenceRedfish, MonitorsTheSystem) {
    expectSuccess(fence("monitor", administrator.password));
    expectSessionsThatEnded();
}

TEST_F(FenceRedfish, IsRefusedWithAWrongPassword) {
    const Outcome refused = fence("status", "not the password");
    EXPECT_EQ(toText(refused.ending), toText(ExitStatus{false, 1})) << refused.output;
    expectRefusal();
    EXPECT_THAT(refused.output, Not(HasSubstr("Status:")));
}

// Plays of the collection community.general, which logs in by HTTP Basic unless it is given a
// token.
class Ansible : public WebClients {
  protected:
    // Plays these tasks, in YAML.
    Outcome play(const std::string& password, const std::string& tasks) {
        const std::string playbook = "/tmp/client.yml";
        controller.writeFile(playbook, R"(
- hosts: localhost
  connection: local
  gather_facts: false
  vars:
    ansible_python_interpreter: /usr/bin/python3
    access: &access
      baseuri: )" + web.address() + R"(:8443
      category: Sessions
    credentials: &credentials
      <<: *access
      username: )" + administrator.name + R"(
      password: )" + password + R"(
  tasks:
)" + tasks);
        return run(
            {"/usr/bin/ansible-playbook", "--inventory", "localhost,", controller.path(playbook)});
    }
};

TEST_F(Ansible, ListsChangesAndClearsWithUserAndPassword) {
    for (const Account& account : {reader, operatorAccount}) {
        EXPECT_EQ(newClient().login(account.name, account.password).status, 201);
    }
    expectSuccess(play(administrator.password, R"(
    - community.general.redfish_info: { <<: *credentials, command: GetSessions }
      register: listed
    - assert:
        that: listed.redfish_facts.session.entries | map(attribute='UserName') | sort
              == ['operator', 'reader']
    - community.general.redfish_config:
        <<: *credentials
        command: SetSessionService
        sessions_config: { SessionTimeout: 450 }
      register: set
    - assert: { that: set is changed }
    - community.general.redfish_command: { <<: *credentials, command: ClearSessions }
)"));
    EXPECT_EQ(storedTimeout(), "450");
    expectNoSession();
}

TEST_F(Ansible, LogsInChangesAndLogsOutWithAToken) {
    expectSuccess(play(administrator.password, R"(
    - community.general.redfish_command: { <<: *credentials, command: CreateSession }
      register: login
    - set_fact: { token: "{{ login.session.token }}" }
    - community.general.redfish_info:
        <<: *access
        auth_token: "{{ token }}"
        command: GetSessions
      register: listed
    - assert:
        that: listed.redfish_facts.session.entries | map(attribute='UserName') == ['admin']
    - community.general.redfish_config:
        <<: *access
        auth_token: "{{ token }}"
        command: SetSessionService
        sessions_config: { SessionTimeout: 450 }
    - community.general.redfish_command:
        <<: *access
        auth_token: "{{ token }}"
        command: DeleteSession
        session_uri: "{{ login.session.uri }}"
)"));
    EXPECT_EQ(storedTimeout(), "450");
    expectTrail(1);
    expectNoSession();
}

// It ends the members in their order, with the token of one of them.
TEST_F(Ansible, ClearsTheSessionsOfOthersAndItsOwn) {
    EXPECT_EQ(newClient().login(reader.name, reader.password).status, 201);
    expectSuccess(play(administrator.password, R"(
    - community.general.redfish_command: { <<: *credentials, command: CreateSession }
      register: login
    - community.general.redfish_command:
        <<: *access
        auth_token: "{{ login.session.token }}"
        command: ClearSessions
)"));
    expectNoSession();
}

TEST_F(Ansible, IsRefusedWithAWrongPassword) {
    const Outcome refused = play("wrong", R"(
    - community.general.redfish_command: { <<: *credentials, command: ClearSessions }
)");
    EXPECT_EQ(toText(refused.ending), toText(ExitStatus{false, 2})) << refused.output;
    EXPECT_THAT(refused.output, HasSubstr("401"));
    expectRefusal();
}

}  // namespace
}  // namespace testbed
