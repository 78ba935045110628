// The lists, and what can be done about them.
#include "page/page_test.h"

namespace testbed {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::Not;

constexpr const char* address = "192.0.2.17";

class PageSessions : public PageTest {
  protected:
    InsertedSession insert(const Account& account) {
        return frontEnd().insertSession(
            {.userName = account.name,
             .privilege = account.privilege,
             .session = {{"&&OwnerName", account.name},
                         {"ClientOriginIPAddress", jsonQuoted(address)}}});
    }
    static std::string row(const InsertedSession& session, const std::string& user) {
        return user + " | " + address + " | " + session.identifier;
    }
    static std::string ownRow(const std::string& uri, const std::string& user) {
        return user + " you | 127.0.0.1 | " + uri.substr(uri.rfind('/') + 1);
    }
    std::string message(Browser& page) { return page.text("#message"); }
};

TEST_F(PageSessions, AreAPictureOfPlacesAndATable) {
    const InsertedSession first = insert(operatorAccount);
    const InsertedSession second = insert(reader);
    const std::string own = login(browser());
    EXPECT_EQ(browser().text("#places-title"), "3 of 8 places taken");
    EXPECT_THAT(places(browser()), ElementsAre("operator", "reader", "admin you", "free", "free",
                                               "free", "free", "free"));
    EXPECT_THAT(rows(browser()), ElementsAre(ownRow(own, "admin"), row(second, "reader") + " | End",
                                             row(first, "operator") + " | End"));
    // Each button tells by its name what it ends.
    EXPECT_EQ(browser().text("#rows button"),
              "End the session " + second.identifier + " of reader");
}

TEST_F(PageSessions, KeepTheirPlaces) {
    const InsertedSession first = insert(operatorAccount);
    login(browser());
    frontEnd().remove(first.uri);
    refreshSoon(browser());
    waitForPlaces(browser(), 1);
    EXPECT_THAT(places(browser()),
                ElementsAre("free", "admin you", "free", "free", "free", "free", "free", "free"));
    insert(reader);
    refreshSoon(browser());
    waitForPlaces(browser(), 2);
    EXPECT_EQ(places(browser()).front(), "reader");
}

TEST_F(PageSessions, OfOtherKindsTakeNoPlaceAndAreNotEndedHere) {
    login(browser());
    frontEnd().insertSession({.identifier = "0000beef",
                              .userName = "console",
                              .sessionType = "\"HostConsole\"",
                              .session = {{"ClientOriginIPAddress", jsonQuoted(address)}}});
    refreshSoon(browser());
    browser().waitFor("document.querySelectorAll('#rows tr').length === 2");
    EXPECT_EQ(browser().text("#places-title"), "1 of 8 places taken");
    EXPECT_EQ(rows(browser()).back(), "console | 192.0.2.17 | 0000beef");
    EXPECT_FALSE(browser().isVisible("#end-others"));
}

TEST_F(PageSessions, AreEndedOneByOneAfterAQuestion) {
    const InsertedSession kept = insert(operatorAccount);
    const InsertedSession ended = insert(reader);
    Browser& page = browser();
    login(page);
    page.click("#rows button");
    EXPECT_TRUE(page.isVisible("#question"));
    EXPECT_EQ(page.text("#question-title"), "End this session?");
    EXPECT_EQ(page.text("#question-text li"), "reader from 192.0.2.17, " + ended.identifier);
    page.click("#no");
    EXPECT_FALSE(page.isVisible("#question"));
    EXPECT_TRUE(store().exists(ended.uri));

    page.click("#rows button");
    page.click("#yes");
    waitForMessage(page, "The session " + ended.identifier + " of reader has ended.");
    waitForPlaces(page, 2);
    EXPECT_FALSE(store().exists(ended.uri));
    EXPECT_TRUE(store().exists(kept.uri));
    // It is not for ever.
    page.run("testAhead(11)");
    page.waitFor("document.querySelector('#message').textContent === ''");
}

TEST_F(PageSessions, AreEndedAllButOnesOwnAfterAQuestion) {
    insert(operatorAccount);
    insert(reader);
    insert(administrator);
    Browser& page = browser();
    const std::string own = login(page);
    page.click("#end-others");
    EXPECT_EQ(page.text("#question-title"), "End 3 other sessions?");
    page.click("#no");
    EXPECT_EQ(store().llen(membersKey), 4);
    page.click("#end-others");
    page.click("#yes");
    waitForMessage(page, "You have ended 3 other sessions.");
    waitForPlaces(page, 1);
    EXPECT_EQ(store().lrange(membersKey), Words{"&&ObjectRef " + own});
    EXPECT_FALSE(page.isVisible("#end-others"));
}

TEST_F(PageSessions, OfOthersAreNotShownAndNotEndedWithoutThePrivilege) {
    const InsertedSession others = insert(administrator);
    const InsertedSession own = insert(reader);
    Browser& page = browser();
    const std::string session = login(page, reader);
    EXPECT_THAT(rows(page),
                ElementsAre(ownRow(session, "reader"), row(own, "reader") + " | End",
                            "not shown to you | not shown to you | " + others.identifier));
    EXPECT_EQ(places(page).front(), "somebody");
    EXPECT_EQ(page.text("#timeout-text"), "5 minutes");
    EXPECT_FALSE(page.isVisible("#timeout-form"));
    EXPECT_EQ(page.text("#end-others"), "End my other sessions");
    page.click("#end-others");
    page.click("#yes");
    waitForPlaces(page, 2);
    EXPECT_FALSE(store().exists(own.uri));
    EXPECT_TRUE(store().exists(others.uri));
}

TEST_F(PageSessions, HaveATimeoutThatIsChangedWithinItsBounds) {
    Browser& page = browser();
    login(page);
    EXPECT_EQ(page.text("#timeout-text"), "5 minutes");
    EXPECT_TRUE(page.isVisible("#bounds"));
    EXPECT_THAT(page.text("#bounds"), testing::StartsWith("30 to 86400 (30 seconds to 24 hours)"));
    for (const char* wrong : {"29", "86401", "1.5", "-60", "1e3", "soon"}) {
        page.type("#timeout", wrong + std::string(enterKey));
        EXPECT_EQ(message(page),
                  "This timeout is not possible.Type a whole number from 30 to 86400.")
            << wrong;
        EXPECT_EQ(page.run("return document.querySelector('#timeout').ariaInvalid"), "true");
    }
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "300");

    page.type("#timeout", "600" + std::string(enterKey));
    waitForMessage(page, "The timeout is 10 minutes now.");
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "600");
    page.waitFor("document.querySelector('#timeout-text').textContent === '10 minutes'");
    // The own session keeps what it began with.
    page.waitFor("/^(5:00|4:5[5-9])$/.test(document.querySelector('#left').textContent)");
    EXPECT_EQ(store().hget(tokenKey(tokens().front()), "Timeout"), "300");
}

TEST_F(PageSessions, HaveATimeoutThatIsLeftToWhoeverIsTypingIt) {
    Browser& page = browser();
    login(page);
    for (const std::string typed : {"4", ""}) {
        page.type("#timeout", typed);
        const InsertedSession session = insert(reader);
        refreshSoon(page);
        waitForPlaces(page, 2);
        EXPECT_EQ(page.run("return document.querySelector('#timeout').value"), typed);
        frontEnd().remove(session.uri);
        refreshSoon(page);
        waitForPlaces(page, 1);
    }
    page.type("#timeout", "300");
    store().hset(serviceUri, {{"SessionTimeout", "900"}});
    refreshSoon(page);
    page.waitFor("document.querySelector('#timeout').value === '900'");
}

TEST_F(PageSessions, HaveATimeoutThatStaysAsTypedUntilItIsChangedToThat) {
    Browser& page = browser();
    login(page);
    auto typedAfterReading = [&, places = 1U]() mutable {
        insert(reader);
        refreshSoon(page);
        waitForPlaces(page, ++places);
        return page.run("return document.querySelector('#timeout').value");
    };
    answer(page, "PATCH", 503);
    page.type("#timeout", "600" + std::string(enterKey));
    page.waitFor("document.querySelector('#message').textContent.includes('cannot do this now')");
    EXPECT_EQ(typedAfterReading(), "600");
    release(page);
    page.press(enterKey);
    waitForMessage(page, "The timeout is 10 minutes now.");
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "600");

    holdAnswers(page, "PATCH");
    page.type("#timeout", "900" + std::string(enterKey));
    page.type("#timeout", "1200");
    release(page);
    waitForMessage(page, "The timeout is 15 minutes now.");
    EXPECT_EQ(typedAfterReading(), "1200");
}

TEST_F(PageSessions, HaveATimeoutThatIsChangedAgainBeforeItIsRead) {
    Browser& page = browser();
    login(page);
    const auto waitForRequests = [&](int before, int further) {
        page.waitFor("testRequests >= " + std::to_string(before + further));
        waitForAnswers(page);
    };
    const auto requests = [&] { return page.run("return testRequests").get<int>(); };
    // A reading that is older than the changes.
    waitForAnswers(page);
    holdAnswers(page, "GET");
    int before = requests();
    refreshSoon(page);
    waitForRequests(before, 2);
    page.type("#timeout", "600" + std::string(enterKey));
    waitForMessage(page, "The timeout is 10 minutes now.");
    page.type("#timeout", "900" + std::string(enterKey));
    waitForMessage(page, "The timeout is 15 minutes now.");

    // It comes to its end, and the next one does not.
    holdAnswers(page, "GET");
    before = requests();
    release(page);
    waitForRequests(before, 2);
    EXPECT_EQ(page.text("#timeout-text"), "15 minutes");
    page.type("#timeout", "1200");
    before = requests();
    page.run(R"(
        const button = document.querySelector('#timeout-form button');
        button.click();
        button.click();)");
    waitForRequests(before, 2);
    release(page);
    page.waitFor("document.querySelector('#timeout-text').textContent === '20 minutes'");
    EXPECT_EQ(message(page), "The timeout is 20 minutes now.");
}

TEST_F(PageSessions, OfTwoBrowsersSeeAndEndEachOther) {
    Browser& one = browser();
    Browser& two = newBrowser();
    login(one);
    const std::string ended = login(two, operatorAccount);
    refreshSoon(one);
    waitForPlaces(one, 2);
    EXPECT_THAT(rows(one), Contains(testing::StartsWith("operator | 127.0.0.1 | ")));

    one.click("#rows button");
    one.click("#yes");
    waitForPlaces(one, 1);
    EXPECT_FALSE(store().exists(ended));
    refreshSoon(two);
    expectLoginMessage(two, "Your session has been ended.");
    EXPECT_EQ(two.run("return document.title"), "Your session has been ended.");
    EXPECT_FALSE(two.isVisible("#account"));
}

TEST_F(PageSessions, OfTwoBrowsersDoNotOverwriteEachOthersTimeout) {
    Browser& one = browser();
    login(one);
    one.type("#timeout", "600" + std::string(enterKey));
    one.waitFor("document.querySelector('#timeout-text').textContent === '10 minutes'");
    // The other one's change, which this page has not read yet.
    one.run(
        "const get = window.fetch; window.fetch = (path, options) => "
        "options.method === 'GET' ? new Promise(() => {}) : get(path, options);");
    Browser& two = newBrowser();
    login(two);
    two.type("#timeout", "900" + std::string(enterKey));
    two.waitFor("document.querySelector('#timeout-text').textContent === '15 minutes'");

    one.type("#timeout", "1200" + std::string(enterKey));
    one.waitFor("document.querySelector('#message').textContent.includes('Somebody else has')");
    EXPECT_EQ(store().hget(serviceUri, "SessionTimeout"), "900");
}

TEST_F(PageSessions, CannotBeEndedWhileTheServiceIsOff) {
    insert(operatorAccount);
    Browser& page = browser();
    login(page);
    EXPECT_TRUE(page.isVisible("#rows button"));
    store().hset(serviceUri, {{"ServiceEnabled", "false"}});
    refreshSoon(page);
    page.waitFor("document.querySelector('#trouble').textContent.includes('switched off')");
    EXPECT_FALSE(page.isVisible("#rows button"));
    EXPECT_FALSE(page.isVisible("#end-others"));
    store().hset(serviceUri, {{"ServiceEnabled", "true"}});
    refreshSoon(page);
    page.waitFor("document.querySelector('#trouble').textContent === ''");
    EXPECT_TRUE(page.isVisible("#rows button"));
}

TEST_F(PageSessions, StayInSightWhileTheStoreIsAway) {
    insert(operatorAccount);
    Browser& page = browser();
    login(page);
    const Words before = rows(page);
    expectWebErrorLine("redis.sock failed");
    stopDaemon();
    refreshSoon(page);
    page.waitFor("document.querySelector('#trouble').textContent.includes('does not answer')");
    EXPECT_THAT(page.text("#trouble"), testing::HasSubstr("Its store may be away."));
    EXPECT_THAT(page.text("#trouble"), testing::HasSubstr("What you see is from "));
    EXPECT_EQ(rows(page), before);
    page.click("#rows button");
    page.click("#yes");
    page.waitFor("document.querySelector('#message').textContent.includes('cannot do this now')");
    EXPECT_EQ(rows(page), before);

    // A store that comes back knows no session any more.
    start();
    refreshSoon(page);
    expectLoginMessage(page, "Your session has been ended.");
}

}  // namespace
}  // namespace testbed
