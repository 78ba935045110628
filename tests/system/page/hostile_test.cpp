// What comes from the store is text, whatever it holds; and the page runs nothing but its own
// files.
#include "page/page_test.h"

namespace testbed {
namespace {

class PageHostility : public PageTest {
  protected:
    std::string insert(const std::string& user, const std::string& address) {
        return frontEnd()
            .insertSession({.session = {{"UserName", jsonQuoted(user)},
                                        {"ClientOriginIPAddress", jsonQuoted(address)}}})
            .identifier;
    }
};

TEST_F(PageHostility, OfNamesIsShownAndNotRun) {
    Browser& page = browser();
    const Words names{"<script>window.hit = 1</script>", "<img src=x onerror='window.hit = 1'>",
                      "</td></tr><b>bold</b>", "`rm -rf /`", std::string(250, 'W')};
    Words expected;
    for (const std::string& name : names) {
        const std::string id = insert(name, "<svg onload='window.hit = 1'>" + name);
        expected.push_back(name + "|<svg onload='window.hit = 1'>" + name + "|" + id);
    }
    // What is invisible, or turns other characters round, is shown by its number.
    const std::string hidden = insert("\u202Enimda", "192.0.2.1");
    expected.push_back("\\u{202e}nimda|192.0.2.1|" + hidden);
    login(page);
    const Words shown = page.run(R"(
        return [...document.querySelectorAll('#rows tr')].slice(1).reverse().map((row) =>
            [...row.querySelectorAll('bdi')].slice(0, 3).map((cell) => cell.textContent)
                .join('|'));)");
    EXPECT_EQ(shown, expected);
    EXPECT_EQ(page.run("return document.querySelectorAll("
                       "'#rows script, #rows img, #rows svg, #rows b, #places script, #places img')"
                       ".length"),
              0);

    // In the question and in the message, too. The audit log does not take names with blanks.
    expectErrorLine("Failed to generate LogEntry");
    page.click("#rows tr:last-child button");
    EXPECT_EQ(page.text("#question-text bdi"), names.front());
    page.click("#yes");
    const std::string& first = expected.front();
    waitForMessage(page, "The session " + first.substr(first.rfind('|') + 1) + " of " +
                             names.front() + " has ended.");
    waitForPlaces(page, 6);
    EXPECT_TRUE(page.run("return window.hit === undefined"));

    for (const int width : {1200, 360}) {
        page.resize(width, 800);
        EXPECT_LE(page.run("return document.documentElement.scrollWidth"), width);
    }
}

TEST_F(PageHostility, OfAddressesLeadsNowhere) {
    Browser& page = browser();
    for (const char* uri : {"https://192.0.2.1/redfish/v1/SessionService/Sessions/1",
                            "//192.0.2.1/1", "/redfish/v1/SessionService/Sessions/../../Systems",
                            "/redfish/v1/SessionService/Sessions/1?a=b", "/redfish/v1/Systems/1"}) {
        store().run({"LPUSH", membersKey, std::string("&&ObjectRef ") + uri});
    }
    const std::string own = login(page);
    EXPECT_EQ(rows(page).size(), 1U);
    EXPECT_EQ(page.text("#places-title"), "1 of 8 places taken");
    EXPECT_TRUE(page.run(R"(
        return performance.getEntriesByType('resource').every(
            ({ name }) => name.startsWith(location.origin + '/redfish/v1')
                || name.startsWith(location.origin + '/page/'));)"));
}

TEST_F(PageHostility, OfMoreSessionsThanCanBeIsCounted) {
    for (int i = 0; i < 70; ++i) {
        frontEnd().insertSession({.session = {{"ClientOriginIPAddress", "\"192.0.2.1\""}}});
    }
    store().hset(frontEnd().insertSession().uri, {{"UserName", "{\"no\":[\"text\"]}"}});
    // A real login finds no place.
    const InsertedSession own = frontEnd().insertSession();
    Browser& page = browser();
    page.run(R"(
        const [token, uri] = arguments;
        const get = window.fetch;
        window.fetch = (path, options) => options.method !== 'POST' ? get(path, options)
            : Promise.resolve(new Response(JSON.stringify({ UserName: 'admin' }),
                { status: 201, headers: { 'X-Auth-Token': token, Location: uri } }));)",
             {own.token, own.uri});
    enter(page, administrator);
    waitForPlaces(page, 8);
    EXPECT_EQ(rows(page).size(), 64U);
    EXPECT_THAT(page.text("#freshness"), testing::HasSubstr("8 more are not shown."));
    EXPECT_THAT(rows(page)[1], testing::StartsWith(R"({"no":["text"]})"));
}

TEST_F(PageHostility, OfScriptsIsBlocked) {
    Browser& page = browser();
    page.run(R"(
        const added = (tag) => document.body.appendChild(document.createElement(tag));
        for (const attack of [
            () => { added('script').textContent = 'window.hit = 1'; },
            () => { added('script').append('window.hit = 1'); },
            () => { added('script').src = 'data:text/javascript,window.hit = 1'; },
            () => { added('p').setAttribute('onclick', 'window.hit = 1'); },
            () => { added('img').src = 'https://192.0.2.1/'; },
            () => { document.body.setAttribute('style', 'background: url(https://192.0.2.1/)'); },
        ]) {
            try {
                attack();
            } catch {}
        }
        document.querySelector('body > p')?.click();)");
    EXPECT_TRUE(page.run("return window.hit === undefined"));
    EXPECT_EQ(page.run("return getComputedStyle(document.body).backgroundImage"), "none");
    EXPECT_TRUE(
        page.run("try { document.body.innerHTML = '<b>'; return false; } catch { return true; }"));
    EXPECT_FALSE(page.complaints().empty());
}

TEST_F(PageHostility, OfFramesIsRefused) {
    Browser& page = browser();
    const auto framed = [&](const std::string& path) {
        page.open(otherPage());
        page.run(R"(
            const frame = document.createElement('iframe');
            frame.src = arguments[0];
            document.body.append(frame);
            return new Promise((resolve) => { frame.onload = () => resolve(null); });)",
                 {web.url() + path});
        page.enterFrame();
        return page.run("return location.href");
    };
    EXPECT_EQ(framed("/redfish/v1"), web.url() + "/redfish/v1");
    EXPECT_EQ(framed("/"), "chrome-error://chromewebdata/");
    EXPECT_EQ(framed("/page/index.html"), "chrome-error://chromewebdata/");
    page.complaints();
}

}  // namespace
}  // namespace testbed
