// The page's own functions, called in the browser.
#include "page/page_test.h"

namespace testbed {
namespace {

using nlohmann::json;

// Functions of a module, called with the arguments of each case.
class PageModule : public PageTest {
  protected:
    json call(const std::string& module, const std::string& function, const json& cases) {
        return browser().run(R"(
            const [module, name, cases] = arguments;
            return import('/page/' + module).then((exports) =>
                cases.map((given) => exports[name](...given)));)",
                             {module, function, cases});
    }
    // The title and the advice for an answer; `function` is one of words.js.
    std::string wordsFor(const std::string& function, int status, const std::string& id,
                         const std::string& resolution = "") {
        return browser().run(
            R"(
            const [name, status, MessageId, Resolution] = arguments;
            const entries = MessageId ? [{ MessageId, Resolution, Message: 'What it says.' }] : [];
            const answer = {
                status,
                body: { error: { '@Message.ExtendedInfo': entries } },
                header: (name) => name === 'Retry-After' ? '7' : null,
            };
            return import('/page/words.js').then((words) => {
                const { title, advice } = words[name](answer, 'do it');
                return title + ' ' + advice;
            });)",
            {function, status, id, resolution});
    }
};

TEST_F(PageModule, TellsTimeAndReadsTimeouts) {
    EXPECT_EQ(
        call("clock.js", "clockText", {{0}, {0.2}, {7}, {59.5}, {300}, {3599}, {3723}, {86400}}),
        (json{"0:00", "0:01", "0:07", "1:00", "5:00", "59:59", "1:02:03", "24:00:00"}));
    EXPECT_EQ(call("clock.js", "spanText", {{0}, {1}, {30}, {60}, {90}, {3600}, {5400}, {86400}}),
              (json{"0 seconds", "1 second", "30 seconds", "1 minute", "1 minute 30 seconds",
                    "1 hour", "1 hour 30 minutes", "24 hours"}));
    // Last use, timeout, now. A clock that is set back gives no more than the timeout.
    EXPECT_EQ(
        call("clock.js", "secondsLeft",
             {{100, 300, 100}, {100, 300, 250}, {100, 300, 400}, {100, 300, 9999}, {100, 300, 20}}),
        (json{300, 150, 0, 0, 300}));
    EXPECT_EQ(call("words.js", "timeoutFrom",
                   {{"30"},
                    {" 300 "},
                    {"86400"},
                    {"0300"},
                    {"29"},
                    {"86401"},
                    {""},
                    {"-30"},
                    {"30.5"},
                    {"1e3"},
                    {"0x40"},
                    {"thirty"},
                    {"99999999999999999999"}}),
              (json{30, 300, 86400, 300, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                    nullptr, nullptr, nullptr}));
}

TEST_F(PageModule, HasWordsForEachRefusal) {
    const auto words = [&](int status, const char* id, const char* resolution = "") {
        return wordsFor("loginFailure", status, id, resolution);
    };
    using testing::HasSubstr;
    EXPECT_THAT(words(0, ""), HasSubstr("cannot be reached. Check your network"));
    EXPECT_THAT(words(401, "ExtendedError.1.2.InvalidCredentials"),
                HasSubstr("password is wrong. Type both once more"));
    EXPECT_THAT(words(503, "Base.1.12.SessionLimitExceeded", "Reduce the number of other sessions"),
                HasSubstr("eight places are taken. Ask somebody to log out"));
    EXPECT_THAT(words(503, "Base.2.0.SessionLimitExceeded", "This user has 6 of the 8 sessions"),
                HasSubstr("no place for you. This user has 6"));
    EXPECT_THAT(words(503, "ExtendedError.1.2.ServiceDisabled"),
                HasSubstr("switched off. Nobody can log in until"));
    EXPECT_THAT(words(201, "Base.1.12.PasswordChangeRequired"),
                HasSubstr("has to be changed first. It is right, but has expired"));
    EXPECT_THAT(words(503, "Base.1.12.ServiceTemporarilyUnavailable"),
                HasSubstr("Wait 7 seconds, then log in again. If it goes on, run"));
    EXPECT_THAT(words(429, "Base.1.12.ServiceTemporarilyUnavailable"),
                HasSubstr("Too many logins are waiting. Wait 7 seconds"));
    EXPECT_THAT(words(400, "Base.1.12.StringValueTooLong"), HasSubstr("255 bytes at most"));
    EXPECT_THAT(words(403, "Base.1.12.InsufficientPrivilege"), HasSubstr("the privilege Login"));
    EXPECT_THAT(words(500, "Base.1.12.InternalError", "Do that."),
                HasSubstr("refuses this (status 500). What it says. Do that."));
    EXPECT_THAT(words(502, ""), HasSubstr("look into the controller's logs"));

    EXPECT_THAT(wordsFor("failure", 403, "Base.1.12.InsufficientPrivilege"),
                HasSubstr("may not do this. Ask somebody"));
    EXPECT_THAT(wordsFor("failure", 412, "Base.1.12.PreconditionFailed"),
                HasSubstr("changed this meanwhile. Look at what it is now"));
    EXPECT_THAT(wordsFor("failure", 503, "ExtendedError.1.2.ServiceDisabled"),
                HasSubstr("no session can be ended"));
    EXPECT_THAT(wordsFor("failure", 503, "Base.1.12.ServiceTemporarilyUnavailable"),
                HasSubstr("then do it again"));
}

TEST_F(PageModule, StandsAnswersOfAnyShape) {
    for (const json& body : json{{},
                                 {1},
                                 "text",
                                 {{"error", 5}},
                                 {{"error", {{"@Message.ExtendedInfo", 7}}}},
                                 {{"@Message.ExtendedInfo", {nullptr, 3, {{"MessageId", 4}}}}}}) {
        EXPECT_EQ(browser().run(R"(
                      const answer = { status: 500, body: Object(arguments[0]), header: () => null };
                      return import('/page/words.js').then((words) =>
                          words.loginFailure(answer).title);)",
                                json::array({body})),
                  "The controller refuses this (status 500).")
            << body;
    }
}

}  // namespace
}  // namespace testbed
