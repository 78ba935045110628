// The fixture of tests about what a login does once PAM has admitted it: everything runs, and
// PAM admits everybody, with every privilege, unless the test says otherwise.
#pragma once

#include <algorithm>
#include <map>
#include <string>

#include "support/system_test.h"
#include "testbed/events_and_audit_log.h"

namespace testbed {

// The argument of the PAM module that gives every privilege.
inline const std::string allPrivileges = "env=PRIVILEGES=511 ";

// The store's content: a serialised value for each key, without those of requests and their
// replies.
using Snapshot = std::map<std::string, std::string>;

class PermissivePamTest : public SystemTest {
  protected:
    using SystemTest::SystemTest;

    void SetUp() override {
        usePamTest(allPrivileges);
        start();
    }

    Reply login(const RequestOptions& options = {}) {
        return frontEnd().login("alice", "a password", options);
    }

    // The daemon's random device gives these bytes, from the first one on, whenever it is
    // opened.
    DaemonOptions withRandomBytes(const std::string& bytes) {
        controller.writeFile("/random", bytes);
        return {.binds = {{controller.path("/random"), "/dev/urandom"}}};
    }
    void restart(const DaemonOptions& options = {}) {
        controller.daemon().kill();
        startDaemon(options);
    }
    // Four bytes, and what a login makes of them.
    static inline const std::string randomBytes = "\xd2\xc0\xa9\x0f";
    static inline const std::string randomIdentifier = "0fa9c0d2";
    static inline const std::string randomUri = std::string(sessionsUri) + "/" + randomIdentifier;
    static inline const std::string randomToken =
        "0fa9c0d20fa9c0d20fa9c0d20fa9c0d20fa9c0d20fa9c0d20fa9c0d20fa9c0d2";

    // Registers a script of the test's own in place of another service's.
    void useScript(const std::string& name, const std::string& lua) {
        store().hset("redisSHAScripts", {{name, store().run({"SCRIPT", "LOAD", lua}).text}});
    }

    // Takes all sessions out of the collection, so that further logins are admitted.
    void emptyCollection() { store().del(membersKey); }

    // Gives the key a value of a type that nobody expects.
    void corrupt(const std::string& key) {
        store().del(key);
        store().run({"SADD", key, "something else"});
    }

    // Blocks until so many sessions have expired. It waits for the audit entries, which come
    // last: if the store ended before, there would be an error line.
    void waitUntilExpired(std::ptrdiff_t sessions) {
        waitUntil(std::to_string(sessions) + " sessions have expired", [&] {
            const std::vector<Words> entries = auditEntries(store());
            return std::count_if(entries.begin(), entries.end(), [](const Words& entry) {
                       return entry.at(0) == "\"AuditEvent.1.1.UserLogout\"";
                   }) == sessions;
        });
    }

    // The tags of the log lines with exactly this message.
    Words tagsOf(const std::string& message) const {
        Words tags;
        for (const LogLine& line : logLines()) {
            if (line.message == message) {
                tags.push_back(line.tag);
            }
        }
        return tags;
    }

    Snapshot snapshot() {
        Snapshot snapshot;
        for (const std::string& key : store().keys("*")) {
            if (key.rfind("&&/request/", 0) != 0) {
                snapshot[key] = store().run({"DUMP", key}).text;
            }
        }
        return snapshot;
    }
    // The keys that were added, removed or changed since then, in ascending order.
    Words changedSince(const Snapshot& before) {
        const Snapshot after = snapshot();
        Words changed;
        for (const auto& [key, value] : before) {
            const auto found = after.find(key);
            if (found == after.end() || found->second != value) {
                changed.push_back(key);
            }
        }
        for (const auto& [key, value] : after) {
            if (before.find(key) == before.end()) {
                changed.push_back(key);
            }
        }
        std::sort(changed.begin(), changed.end());
        return changed;
    }
};

}  // namespace testbed
