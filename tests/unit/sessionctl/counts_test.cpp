#include "sessionctl/counts.h"

#include <gtest/gtest.h>

#include "sessionctl/local_moment.h"

namespace session_service::console {
namespace {

using nlohmann::json;

TEST(RefusedLogin, IsReadWithItsTimeAndReason) {
    const auto login =
        parseRefusedLogin(R"(192.0.2.1 [2026-01-02T03:04:05+01:00] "ann" wrong name or password)");
    ASSERT_TRUE(login);
    EXPECT_EQ(login->time, *parseTimestamp("2026-01-02T02:04:05Z"));
    EXPECT_EQ(login->reason, "wrong name or password");
}

TEST(RefusedLogin, HasTheLastPartOfAMessageIdentifierForAReason) {
    const auto login = parseRefusedLogin(
        R"(192.0.2.1 [2026-01-02T03:04:05+01:00] "ann" Base.1.12.SessionLimitExceeded)");
    ASSERT_TRUE(login);
    EXPECT_EQ(login->reason, "SessionLimitExceeded");
}

TEST(RefusedLogin, ForAnUnknownReasonCountsAsAnother) {
    for (const char* reason : {"", " ", "x", "Base.1.12.", "\x1b[2J"}) {
        const auto login = parseRefusedLogin(
            std::string(R"(192.0.2.1 [2026-01-02T03:04:05+01:00] "ann" )") + reason);
        ASSERT_TRUE(login) << reason;
        EXPECT_EQ(login->reason, otherReason);
    }
}

TEST(RefusedLogin, TakesQuotesOfANameForNoEnd) {
    const auto login = parseRefusedLogin(
        R"(192.0.2.1 [2026-01-02T03:04:05+01:00] "a\" too many logins \\" name too long)");
    ASSERT_TRUE(login);
    EXPECT_EQ(login->reason, "name too long");
}

TEST(RefusedLogin, IsNoneInALineOfAnotherForm) {
    for (const char* line :
         {"", "x", "192.0.2.1", "192.0.2.1 [", "192.0.2.1 ] [", "192.0.2.1 [x] \"ann\" unavailable",
          "192.0.2.1 [2026-01-02T03:04:05+01:00]", "192.0.2.1 [2026-01-02T03:04:05+01:00] ann x",
          "192.0.2.1 [2026-01-02T03:04:05+01:00] \"ann", R"([2026-01-02T03:04:05+01:00] "ann\")"}) {
        EXPECT_FALSE(parseRefusedLogin(line)) << line;
    }
}

TEST(Access, IsReadWithItsStatus) {
    const auto access =
        parseAccess(R"(192.0.2.1 [2026-01-02T03:04:05+00:00] "DELETE /redfish/v1/x" 204 0 0.003)");
    ASSERT_TRUE(access);
    EXPECT_EQ(access->time, *parseTimestamp("2026-01-02T03:04:05+00:00"));
    EXPECT_EQ(access->method, "DELETE");
    EXPECT_EQ(access->path, "/redfish/v1/x");
    EXPECT_EQ(access->status, 204);
}

TEST(Access, IsNoneInALineOfAnotherForm) {
    for (const char* line :
         {"", "x", "192.0.2.1 [2026-01-02T03:04:05+00:00]",
          "192.0.2.1 [2026-01-02T03:04:05+00:00] \"-\" 400 0 0.1",
          "192.0.2.1 [2026-01-02T03:04:05+00:00] \"GET /x\"",
          "192.0.2.1 [2026-01-02T03:04:05+00:00] \"GET /x\" x", "[x] \"GET /x\" 200"}) {
        EXPECT_FALSE(parseAccess(line)) << line;
    }
}

TEST(CountsState, IsReadAsItWasWritten) {
    json state = Counter().toState();
    EXPECT_EQ(Counter::fromState(state).toState(), state);
    state.update(json{{"admitted", 7},
                      {"refused", {{"unavailable", 2}}},
                      {"logouts", 3},
                      {"expiries", 1},
                      {"changes", 0},
                      {"maxSessions", 5},
                      {"auditSince", 1763688420},
                      {"refusedSince", 1763688421},
                      {"accessSince", 1763688422},
                      {"lastAuditEntry", "/log/3"},
                      {"openSessions", {{"/s/1", 1763688420}}},
                      {"requestedLogouts", {"/s/2"}},
                      {"refusedPosition", {{"inode", 1}, {"offset", 2}, {"beginning", 5}}},
                      {"accessPosition", {{"inode", 3}, {"offset", 4}, {"beginning", 6}}}});
    EXPECT_EQ(Counter::fromState(state).toState(), state);
}

TEST(CountsState, OfAnotherFormIsRefused) {
    const json state = Counter().toState();
    for (const auto& [name, value] : state.items()) {
        json incomplete = state;
        incomplete.erase(name);
        EXPECT_THROW(Counter::fromState(incomplete), json::exception) << name;
        json wrong = state;
        wrong[name] = true;
        if (name != "admitted" && name != "logouts" && name != "expiries" && name != "changes" &&
            name != "maxSessions" && !name.ends_with("Since")) {
            EXPECT_THROW(Counter::fromState(wrong), json::exception) << name;
        }
    }
    EXPECT_THROW(Counter::fromState(json::array()), json::exception);
}

}  // namespace
}  // namespace session_service::console
