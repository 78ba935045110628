// What the page does by itself: refreshing while somebody is there, and counting down.
#include "page/page_test.h"

namespace testbed {
namespace {

using testing::HasSubstr;

class PageTime : public PageTest {
  protected:
    static int requests(Browser& page) { return page.run("return testRequests"); }
    // What the page shows as left, in seconds.
    static long left(Browser& page) {
        return page.run(
            "return document.querySelector('#left').textContent.split(':')"
            ".reduce((sum, part) => 60 * sum + Number(part), 0)");
    }
    // Lets time pass for the page, up to its next look at the clock.
    static void pass(Browser& page, int seconds) {
        // It may just have been used.
        constexpr long reading = 6;
        const long before = left(page);
        page.run("testAhead(arguments[0])", {seconds});
        waitUntil("the countdown follows",
                  [&] { return left(page) <= before - seconds + reading; });
    }
    static std::string presence(Browser& page) { return page.text("#presence"); }
};

TEST_F(PageTime, RefreshesListsWhileThePageIsInSightWhichCountsAsUse) {
    Browser& page = browser();
    login(page);
    const std::string token = tokens().front();
    const long before = lastUse(token);
    frontEnd().insertSession({.userName = "operator"});
    waitForPlaces(page, 2);
    EXPECT_GT(lastUse(token), before);
    EXPECT_THAT(presence(page), HasSubstr("refreshed every 5 seconds"));
    waitUntil("it counts down to what the store has", [&] {
        const long shown = left(page);
        return std::abs(lastUse(token) + 300 - uptime() - shown) <= 1;
    });
}

TEST_F(PageTime, StopsRefreshingOutOfSightAndExpires) {
    Browser& page = browser();
    login(page);
    const std::string inSight = page.currentTab();
    const std::string other = page.openTab();
    page.switchTo(other);
    page.switchTo(inSight);
    page.run("testAhead(6)");
    waitUntil("it refreshes in sight",
              [&, before = requests(page)] { return requests(page) > before; });

    // The page goes out of sight, and the driver goes on to look at it.
    page.devtools("Target.activateTarget", {{"targetId", other}});
    page.waitFor("document.visibilityState === 'hidden'");
    page.waitFor("document.querySelector('#presence').textContent.includes('not refreshed')");
    // What was asked for in sight still counts as use once it arrives.
    waitForAnswers(page);
    const int before = requests(page);
    const std::string token = tokens().front();
    const long used = lastUse(token);
    pass(page, 100);
    pass(page, 100);
    EXPECT_EQ(requests(page), before);
    EXPECT_EQ(lastUse(token), used);
    page.run("testAhead(100)");
    expectLoginMessage(page, "Your session has expired.");
    EXPECT_THAT(page.text("#login-message"), HasSubstr("it had not been used for 5 minutes"));
    EXPECT_EQ(page.run("return document.title"), "Your session has expired.");
}

TEST_F(PageTime, RefreshesAgainWhenThePageComesBackIntoSight) {
    Browser& page = browser();
    login(page);
    const std::string inSight = page.currentTab();
    page.devtools("Target.activateTarget", {{"targetId", page.openTab()}});
    page.waitFor("document.visibilityState === 'hidden'");
    waitForAnswers(page);
    frontEnd().insertSession();
    pass(page, 150);
    EXPECT_EQ(page.text("#places-title"), "1 of 8 places taken");
    page.devtools("Target.activateTarget", {{"targetId", inSight}});
    waitForPlaces(page, 2);
}

TEST_F(PageTime, StopsRefreshingWhenNobodyIsThereAndWarnsOfTheEnd) {
    Browser& page = browser();
    login(page);
    page.moveMouse(300, 300);
    pass(page, 120);
    page.waitFor("document.querySelector('#presence').textContent.includes('Nobody seems')");
    const int before = requests(page);
    pass(page, 60);
    EXPECT_EQ(page.text("#message"), "");
    pass(page, 62);
    EXPECT_EQ(requests(page), before);
    EXPECT_THAT(page.text("#message"), HasSubstr("Your session is about to expire."));
    EXPECT_THAT(page.run("return document.title").get<std::string>(), HasSubstr(" left"));

    // A mouse that rests is nobody; one that moves is.
    page.moveMouse(300, 300);
    EXPECT_EQ(requests(page), before);
    page.moveMouse(310, 300);
    page.waitFor("document.querySelector('#presence').textContent.includes('You are here')");
    page.waitFor("document.querySelector('#left').textContent.startsWith('4:5')");
    EXPECT_GT(requests(page), before);
    EXPECT_EQ(page.text("#message"), "");
    EXPECT_EQ(page.run("return document.title"), "Sessions");

    pass(page, 125);
    page.press(tabKey);
    page.waitFor("document.querySelector('#presence').textContent.includes('You are here')");
}

TEST_F(PageTime, TellsWhenTheSessionHasReallyExpired) {
    // Shorter than the page's refreshing, so that nothing keeps it alive.
    store().hset(serviceUri, {{"SessionTimeout", "4"}});
    Browser& page = browser();
    const std::string session = login(page);
    EXPECT_LE(left(page), 4);
    expectLoginMessage(page, "Your session has expired.");
    EXPECT_THAT(page.text("#login-message"), HasSubstr("it had not been used for 4 seconds"));
    waitUntil("the session has expired", [&] { return !store().exists(session); });
    EXPECT_EQ(page.text("#rows"), "");
}

TEST_F(PageTime, EndsTheSessionWithThePage) {
    login(browser());
    browser().open("about:blank");
    waitUntil("the session has ended with its page", [&] { return tokens().empty(); });
}

TEST_F(PageTime, EndsTheSessionWhenThePageIsReloadedWhileItLogsOut) {
    Browser& page = browser();
    login(page);
    // The request does not leave the browser before the page has gone.
    page.devtools("Fetch.enable", {{"patterns", {{{"urlPattern", "*/Sessions/*"}}}}});
    page.run("document.querySelector('#log-out').click()");
    page.reload();
    EXPECT_EQ(tokens().size(), 1U);
    page.devtools("Fetch.disable", nlohmann::json::object());
    waitUntil("the session has ended", [&] { return tokens().empty(); });
}

}  // namespace
}  // namespace testbed
