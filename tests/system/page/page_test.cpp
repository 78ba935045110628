#include "page/page_test.h"

#include <algorithm>

namespace testbed {

namespace {

Words wordsFrom(const nlohmann::json& list) {
    return list.get<Words>();
}

}  // namespace

void PageTest::SetUp() {
    WebTest::SetUp();
    browsers = std::make_unique<Browsers>(controller);
}

void PageTest::TearDown() {
    for (const auto& page : started) {
        EXPECT_EQ(page->complaints(), Words{});
    }
    started.clear();
    browsers.reset();
    WebTest::TearDown();
}

Browser& PageTest::browser() {
    return started.empty() ? newBrowser() : *started.front();
}

Browser& PageTest::newBrowser() {
    Browser& page = *started.emplace_back(browsers->start());
    page.open(web.url() + "/");
    // It says whose controller this is, and with that waits for nothing more.
    page.waitFor("document.querySelector('#host').textContent !== ''");
    return page;
}

void PageTest::enter(Browser& page, const std::string& user, const std::string& password) {
    page.type("#name", user);
    page.type("#password", password);
    page.click("#log-in");
}

std::string PageTest::login(Browser& page, const Account& account) {
    const Words before = store().lrange(membersKey);
    enter(page, account);
    page.waitFor("document.querySelector('#freshness').textContent.startsWith('As of')");
    for (const std::string& member : store().lrange(membersKey)) {
        if (std::find(before.begin(), before.end(), member) == before.end()) {
            return member.substr(member.find(' ') + 1);
        }
    }
    throw Failure("There is no session of the page.");
}

void PageTest::waitForAnswers(Browser& page) {
    page.waitFor("testWaiting === 0");
}

void PageTest::holdAnswers(Browser& page, const std::string& method) {
    page.run(R"(
        const [method] = arguments;
        const request = window.fetch;
        const released = new Promise((resolve) => (window.testReleases ??= []).push(resolve));
        window.fetch = async (path, options) => {
            const answer = await request(path, options);
            await (options.method === method && released);
            return answer;
        };)",
             {method});
}

void PageTest::answer(Browser& page, const std::string& method, int status) {
    page.run(R"(
        const [method, status] = arguments;
        const request = window.fetch;
        let isReleased = false;
        (window.testReleases ??= []).push(() => { isReleased = true; });
        window.fetch = async (path, options) => isReleased || options.method !== method
            ? request(path, options) : new Response('{}', { status });)",
             {method, status});
}

void PageTest::release(Browser& page) {
    page.run("testReleases.shift()()");
}

void PageTest::waitForMessage(Browser& page, const std::string& text) {
    page.waitFor("document.querySelector('#message').textContent === " +
                 nlohmann::json(text).dump());
}

void PageTest::expectLoginMessage(Browser& page, const std::string& text) {
    page.waitFor("document.querySelector('#login-message').textContent.includes(" +
                 nlohmann::json(text).dump() + ")");
    EXPECT_TRUE(page.isVisible("#login-message"));
}

Words PageTest::rows(Browser& page) {
    return wordsFrom(page.run(R"(
        return [...document.querySelectorAll('#rows tr')].map((row) =>
            [...row.children].map((cell) => {
                const seen = cell.cloneNode(true);
                seen.querySelectorAll('.unseen').forEach((part) => part.remove());
                return seen.textContent.trim();
            }).filter(Boolean).join(' | '));)"));
}

Words PageTest::places(Browser& page) {
    return wordsFrom(page.run(R"(
        return [...document.querySelectorAll('#places li')].map((place) =>
            [...place.children].map((part) => part.textContent).filter(Boolean).join(' '));)"));
}

void PageTest::refreshSoon(Browser& page) {
    page.run("testAhead(5)");
}

void PageTest::waitForPlaces(Browser& page, std::size_t taken) {
    page.waitFor("document.querySelector('#places-title').textContent === '" +
                 std::to_string(taken) + " of 8 places taken'");
}

void PageTest::waitForUser(Browser& page, const Account& account) {
    page.waitFor("document.querySelector('#user').textContent === '" + std::string(account.name) +
                 "'");
}

Words PageTest::tokens() {
    Words found;
    for (const std::string& key : store().keys(tokenKey("*"))) {
        found.push_back(key.substr(tokenKey("").size()));
    }
    return found;
}

}  // namespace testbed
