// Logging in and out through the page, and what it says when that fails.
#include "page/page_test.h"

namespace testbed {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class PageLogin : public PageTest {
  protected:
    std::string focused() {
        return browser().run("return document.activeElement.id || document.activeElement.tagName");
    }
    // One of these sessions for each.
    void insertSessions(int number, const Account& account) {
        for (int i = 0; i < number; ++i) {
            frontEnd().insertSession({.userName = account.name,
                                      .privilege = account.privilege,
                                      .session = {{"&&OwnerName", account.name}}});
        }
    }
};

TEST_F(PageLogin, ShowsWhoIsLoggedInAndLogsOut) {
    Browser& page = browser();
    EXPECT_EQ(page.text("#controller"), "Testbed Controller");
    EXPECT_EQ(focused(), "name");
    const std::string session = login(page);
    EXPECT_EQ(page.text("#user"), administrator.name);
    EXPECT_EQ(store().hget(session, "UserName"), jsonQuoted(administrator.name));

    page.click("#log-out");
    expectLoginMessage(page, "You are logged out.");
    EXPECT_FALSE(store().exists(session));
    EXPECT_EQ(focused(), "name");
    EXPECT_FALSE(page.isVisible("#account"));
    // Nothing of the session is left on the page.
    EXPECT_FALSE(page.run("return document.querySelector('#sessions').textContent.includes('" +
                          session.substr(session.rfind('/') + 1) + "')"));
}

TEST_F(PageLogin, SaysWhatToDoAboutAWrongPassword) {
    Browser& page = browser();
    page.click("#log-in");
    expectLoginMessage(page, "Type the user name.");
    page.type("#name", administrator.name);
    page.click("#log-in");
    expectLoginMessage(page, "Type the password.");
    enter(page, administrator.name, "Not-the-password");
    expectLoginMessage(page, "The user name or the password is wrong.");
    EXPECT_THAT(page.text("#login-message"), HasSubstr("Type both once more"));
    EXPECT_EQ(page.run("return document.querySelector('#login-message').role"), "alert");
    // The next attempt needs nothing but the password.
    EXPECT_EQ(focused(), "password");
    EXPECT_EQ(page.run("return document.querySelector('#password').value"), "");
    EXPECT_EQ(page.run("return document.querySelector('#name').value"), administrator.name);
    EXPECT_EQ(store().llen(membersKey), 0);

    page.press(administrator.password + std::string(enterKey));
    waitForPlaces(page, 1);
}

TEST_F(PageLogin, SaysWhatToDoWhenAllPlacesAreTaken) {
    insertSessions(8, operatorAccount);
    enter(browser(), administrator);
    expectLoginMessage(browser(), "All eight places are taken.");
    EXPECT_THAT(browser().text("#login-message"), HasSubstr("sessionctl delete ID"));
    EXPECT_EQ(browser().run("return document.querySelector('#password').value"),
              administrator.password);
}

TEST_F(PageLogin, SaysWhichLimitLeavesNoPlaceForOneUser) {
    insertSessions(6, reader);
    enter(browser(), reader);
    expectLoginMessage(browser(), "There is no place for you.");
    EXPECT_THAT(browser().text("#login-message"), HasSubstr("This user has 6 of the 8 sessions"));

    insertSessions(1, reader);
    enter(browser(), operatorAccount);
    expectLoginMessage(browser(), "for users who can configure the manager");
    waitUntil("the refused session is gone", [this] { return store().llen(membersKey) == 7; });
}

TEST_F(PageLogin, SaysThatThePasswordHasToBeChangedAndTakesNoPlace) {
    enter(browser(), expired);
    expectLoginMessage(browser(), "Your password has to be changed first.");
    EXPECT_THAT(browser().text("#login-message"), HasSubstr("Change it where"));
    waitUntil("the session is gone", [this] { return store().llen(membersKey) == 0; });
    EXPECT_THAT(tokens(), IsEmpty());
}

TEST_F(PageLogin, SaysWhatToDoWhenTheServiceIsOff) {
    store().hset(serviceUri, {{"ServiceEnabled", "false"}});
    enter(browser(), administrator);
    expectLoginMessage(browser(), "The session service is switched off.");
    EXPECT_THAT(browser().text("#login-message"), HasSubstr("Ask whoever looks after"));
}

TEST_F(PageLogin, SaysWhatToDoWhenTheStoreIsAwayAndWhenNobodyAnswers) {
    Browser& page = browser();
    expectWebErrorLine("redis.sock failed");
    stopDaemon();
    enter(page, administrator);
    expectLoginMessage(page, "The controller cannot do this now.");
    EXPECT_THAT(page.text("#login-message"), HasSubstr("Its store is away"));
    EXPECT_THAT(page.text("#login-message"), HasSubstr("Wait 5 seconds, then log in again"));
    EXPECT_THAT(page.text("#login-message"), HasSubstr("sessionctl check"));

    web.stop();
    page.click("#log-in");
    expectLoginMessage(page, "The controller cannot be reached.");
    EXPECT_THAT(page.text("#login-message"), HasSubstr("Check your network"));

    start();
    web.start();
    page.click("#log-in");
    waitForPlaces(page, 1);
}

TEST_F(PageLogin, SaysWhenASessionCannotBeEndedAndForgetsItAllTheSame) {
    const std::string session = login(browser());
    store().hset(serviceUri, {{"ServiceEnabled", "false"}});
    browser().click("#log-out");
    expectLoginMessage(browser(), "your session has not ended yet");
    EXPECT_THAT(browser().text("#login-message"), HasSubstr("The session service is switched off"));
    EXPECT_THAT(browser().text("#login-message"), HasSubstr("expires by itself in 5 minutes"));
    EXPECT_TRUE(store().exists(session));
}

TEST_F(PageLogin, ShowsThatItIsLoggingOutAndLeavesTheNextLoginAlone) {
    Browser& page = browser();
    login(page);
    holdAnswers(page, "DELETE");
    page.click("#log-out");
    expectLoginMessage(page, "Logging out …");
    EXPECT_EQ(focused(), "name");
    EXPECT_FALSE(page.isVisible("#sessions"));
    EXPECT_FALSE(page.isVisible("#account"));
    page.press(tabKey);
    release(page);
    expectLoginMessage(page, "You are logged out.");
    EXPECT_EQ(focused(), "password");

    // The next one is quicker than the answer, which would say more.
    answer(page, "DELETE", 503);
    holdAnswers(page, "DELETE");
    enter(page, administrator);
    waitForUser(page, administrator);
    page.click("#log-out");
    enter(page, operatorAccount);
    waitForUser(page, operatorAccount);
    release(page);
    release(page);
    frontEnd().insertSession();
    refreshSoon(page);
    waitForPlaces(page, 3);
    EXPECT_EQ(page.text("#login-message"), "");
    page.click("#log-out");
    expectLoginMessage(page, "You are logged out.");
}

TEST_F(PageLogin, SaysNothingOfATimeoutThatItHasNotRead) {
    Browser& page = browser();
    const auto loginWithoutReading = [&] {
        answer(page, "GET", 503);
        enter(page, administrator);
        page.waitFor("document.querySelector('#trouble').textContent.includes('does not answer')");
    };
    loginWithoutReading();
    answer(page, "GET", 401);
    refreshSoon(page);
    expectLoginMessage(page, "Your session has been ended.");

    loginWithoutReading();
    answer(page, "DELETE", 503);
    page.click("#log-out");
    expectLoginMessage(page, "The session expires by itself; nobody can use it any more.");
}

TEST_F(PageLogin, LeavesNothingOfItselfToTheNext) {
    Browser& page = browser();
    page.click("#show");
    login(page);
    page.type("#timeout", "5" + std::string(enterKey));
    EXPECT_EQ(page.run("return document.querySelector('#timeout').ariaInvalid"), "true");
    page.click("#log-out");
    expectLoginMessage(page, "You are logged out.");
    EXPECT_EQ(page.run("return document.querySelector('#password').type"), "password");
    EXPECT_EQ(page.run("return document.querySelector('#show').ariaPressed"), "false");

    enter(page, administrator);
    waitForUser(page, administrator);
    EXPECT_NE(page.run("return document.querySelector('#timeout').ariaInvalid"), "true");
}

TEST_F(PageLogin, ShowsThePasswordWhenAsked) {
    Browser& page = browser();
    const auto type = [&] { return page.run("return document.querySelector('#password').type"); };
    page.type("#password", "seen");
    EXPECT_EQ(type(), "password");
    page.click("#show");
    EXPECT_EQ(type(), "text");
    EXPECT_EQ(page.run("return document.querySelector('#show').ariaPressed"), "true");
    page.click("#show");
    EXPECT_EQ(type(), "password");
}

TEST_F(PageLogin, KeepsTheTokenInMemoryOnlyAndEndsWithThePage) {
    Browser& page = browser();
    login(page);
    ASSERT_EQ(tokens().size(), 1U);
    const nlohmann::json kept = page.run(R"(
        return Promise.all([indexedDB.databases(), caches.keys(), cookieStore.getAll()]).then(
            (lists) => [...lists.map((list) => list.length), localStorage.length,
                sessionStorage.length, document.cookie.length]);)");
    EXPECT_THAT(kept.get<std::vector<int>>(), testing::Each(0));
    EXPECT_FALSE(page.run(R"(
            const token = arguments[0];
            const seen = [document.documentElement.outerHTML, location.href, document.title,
                JSON.stringify(history.state), window.name];
            for (const name of Object.getOwnPropertyNames(window)) {
                seen.push(String(window[name]));
            }
            return seen.some((text) => text.includes(token));)",
                          {tokens().front()})
                     .get<bool>());

    page.reload();
    page.waitFor("document.querySelector('#login').hidden === false");
    waitUntil("the session has ended with its page", [&] { return tokens().empty(); });
}

TEST_F(PageLogin, IsPossibleWithTheKeyboardAlone) {
    Browser& page = browser();
    const InsertedSession other = frontEnd().insertSession();
    page.press(administrator.name);
    page.press(tabKey);
    page.press(administrator.password);
    page.press(tabKey);
    EXPECT_EQ(focused(), "show");
    page.press(tabKey);
    EXPECT_EQ(focused(), "log-in");
    page.press(enterKey);
    waitForPlaces(page, 2);
    // The focus is where the new content begins.
    EXPECT_EQ(focused(), "H1");

    Words order;
    const auto next = [&] {
        page.press(tabKey);
        order.push_back(focused());
    };
    next();
    next();
    EXPECT_THAT(order, ElementsAre("end-others", "BUTTON"));
    EXPECT_EQ(page.run("return getComputedStyle(document.activeElement).outlineStyle"), "solid");

    page.press(enterKey);
    EXPECT_TRUE(page.isVisible("#question"));
    EXPECT_EQ(focused(), "no");
    page.press(escapeKey);
    page.waitFor("!document.querySelector('#question').open");
    // Back where it was.
    EXPECT_EQ(focused(), "BUTTON");
    page.press(enterKey);
    page.press(tabKey);
    EXPECT_EQ(focused(), "yes");
    page.press(enterKey);
    waitForPlaces(page, 1);
    EXPECT_FALSE(store().exists(other.uri));
    // Its row has gone, and with it the button.
    EXPECT_EQ(focused(), "table-title");
    next();
    EXPECT_EQ(focused(), "timeout");
}

}  // namespace
}  // namespace testbed
