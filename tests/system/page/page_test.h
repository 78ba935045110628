// The fixture of all tests of the page in a browser.
//
// Besides what WebTest checks, a test fails when a browser has complained of anything but a failed
// request: a script's error, or something that the page's policy has blocked.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "page/browser.h"
#include "support/web_test.h"

namespace testbed {

class PageTest : public WebTest {
  protected:
    void SetUp() override;
    void TearDown() override;

    // The test's own browser, which shows the page; made at first use.
    Browser& browser();
    // Another one, which lives as long as the test.
    Browser& newBrowser();

    std::string otherPage() const { return browsers->otherPage(); }

    // Fills in the form and sends it.
    static void enter(Browser& page, const std::string& user, const std::string& password);
    static void enter(Browser& page, const Account& account) {
        enter(page, account.name, account.password);
    }
    // The same, up to the lists; returns the session's address.
    std::string login(Browser& page, const Account& account = administrator);
    // Blocks until no request of the page waits for an answer.
    static void waitForAnswers(Browser& page);
    // Keeps the answers to further requests of this method from the page, until they are released.
    static void holdAnswers(Browser& page, const std::string& method);
    // Answers further requests of this method with this status, in place of the front end.
    static void answer(Browser& page, const std::string& method, int status);
    // Undoes the first of these that is not undone yet.
    static void release(Browser& page);
    // Blocks until the page says exactly this of a change.
    static void waitForMessage(Browser& page, const std::string& text);
    // Blocks until the page says this instead of the form's other message.
    static void expectLoginMessage(Browser& page, const std::string& text);

    // The table, a text a row: "admin you | 127.0.0.1 | 0123abcd | End".
    static Words rows(Browser& page);
    // The picture of the places: "admin", "admin you", "free".
    static Words places(Browser& page);
    // Lets the time pass that the page takes between two readings.
    static void refreshSoon(Browser& page);
    static void waitForPlaces(Browser& page, std::size_t taken);
    // Blocks until the page shows the lists of this user.
    static void waitForUser(Browser& page, const Account& account);
    // When the session was last used, in seconds.
    long lastUse(const std::string& token) {
        return std::stol(store().hget(tokenKey(token), "LastAccessed"));
    }
    // The tokens of all sessions.
    Words tokens();

  private:
    std::unique_ptr<Browsers> browsers;
    std::vector<std::unique_ptr<Browser>> started;
};

}  // namespace testbed
