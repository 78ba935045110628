// Whether everybody can use the page: axe-core's rules for WCAG 2.2 AA in each state, both schemes,
// and on a telephone.
#include <algorithm>
#include <fstream>
#include <sstream>

#include "page/page_test.h"

namespace testbed {
namespace {

using nlohmann::json;

// What axe-core finds, and how many rules were kept. It leaves open the contrast of texts that
// others overlap, such as those behind a question: there the colours themselves are compared.
constexpr const char* checks = R"(
    ;
    const channels = (color) => color.match(/[\d.]+/g).map(Number);
    const luminance = (color) => channels(color).slice(0, 3).map((channel) => channel / 255)
        .map((part) => part <= 0.04045 ? part / 12.92 : ((part + 0.055) / 1.055) ** 2.4)
        .reduce((sum, part, i) => sum + part * [0.2126, 0.7152, 0.0722][i], 0);
    const background = (element) => {
        const { backgroundColor } = getComputedStyle(element);
        return channels(backgroundColor)[3] === 0 ? background(element.parentElement)
            : backgroundColor;
    };
    const hasContrast = (selector) => {
        const element = document.querySelector(selector);
        const [one, other] = [getComputedStyle(element).color, background(element)].map(luminance);
        return (Math.max(one, other) + 0.05) / (Math.min(one, other) + 0.05) >= 4.5;
    };
    const tags = ['wcag2a', 'wcag2aa', 'wcag21a', 'wcag21aa', 'wcag22aa', 'best-practice'];
    return axe.run(document, { runOnly: tags }).then(({ passes, violations, incomplete }) => {
        const open = incomplete.map((rule) => ({
            ...rule,
            nodes: rule.nodes.filter(({ target: [selector] }) =>
                rule.id !== 'color-contrast' || !hasContrast(selector)),
        }));
        return {
            passes: passes.length,
            faults: violations.concat(open).flatMap(({ id, nodes }) =>
                nodes.map(({ html }) => id + ': ' + html)),
        };
    });)";

class PageAccessibility : public PageTest {
  protected:
    void SetUp() override {
        PageTest::SetUp();
        const std::string command =
            std::string("'") + TEST_AXE_SCRIPT + "' '" + TEST_BUILD_FOLDER + "/axe-core'";
        std::string file = shellOutput(command);
        ASSERT_NE(file, "") << "axe-core could not be fetched from the npm registry: see above.";
        file.pop_back();
        std::ostringstream text;
        text << std::ifstream(file).rdbuf();
        axe = text.str();
        ASSERT_NE(axe, "");
    }

    // Nothing is wrong with the page as it is now, in either scheme, wide or narrow.
    void expectNoFaults(Browser& page, const std::string& state) {
        for (const std::string scheme : {"light", "dark"}) {
            page.useScheme(scheme);
            for (const int width : {1200, 360}) {
                page.resize(width, 800);
                EXPECT_LE(page.run("return document.documentElement.scrollWidth"), width) << state;
                const json found = page.run(axe + checks);
                EXPECT_EQ(found.at("faults"), json::array())
                    << state << ", " << scheme << ", " << width;
                EXPECT_GT(found.at("passes"), 10);
            }
        }
    }

  private:
    std::string axe;
};

TEST_F(PageAccessibility, OfLoggingInHasNoFaults) {
    Browser& page = browser();
    expectNoFaults(page, "login");
    enter(page, expired);
    expectLoginMessage(page, "Your password has to be changed first.");
    expectNoFaults(page, "refused login");
    page.click("#show");
    expectNoFaults(page, "password shown");
}

TEST_F(PageAccessibility, OfTheListsHasNoFaults) {
    frontEnd().insertSession(
        {.userName = "operator",
         .session = {{"ClientOriginIPAddress", "\"2001:db8:1234:5678:9abc:def0:1234:5678\""}}});
    frontEnd().insertSession({.session = {{"ClientOriginIPAddress", "\"192.0.2.1\""}}});
    Browser& page = browser();
    login(page);
    expectNoFaults(page, "lists");
    page.click("#end-others");
    expectNoFaults(page, "question");
    page.click("#no");
    page.type("#timeout", "5" + std::string(enterKey));
    expectNoFaults(page, "wrong timeout");
    store().hset(serviceUri, {{"ServiceEnabled", "false"}});
    refreshSoon(page);
    page.waitFor("document.querySelector('#trouble').textContent.includes('switched off')");
    expectNoFaults(page, "service off");
}

TEST_F(PageAccessibility, OfAReadersListsHasNoFaults) {
    frontEnd().insertSession();
    login(browser(), reader);
    expectNoFaults(browser(), "lists of a reader");
}

TEST_F(PageAccessibility, RespectsWhatOneHasChosen) {
    Browser& page = browser();
    const auto style = [&](const std::string& selector, const std::string& property) {
        return page.run(
            "return getComputedStyle(document.querySelector(arguments[0]))[arguments[1]]",
            {selector, property});
    };
    page.useScheme("light");
    const json light = style("body", "backgroundColor");
    page.useScheme("dark");
    EXPECT_NE(style("body", "backgroundColor"), light);

    EXPECT_NE(style("#bar", "transitionDuration"), "0s");
    page.devtools("Emulation.setEmulatedMedia",
                  {{"features", {{{"name", "prefers-reduced-motion"}, {"value", "reduce"}}}}});
    EXPECT_EQ(style("#bar", "transitionDuration"), "0s");
}

TEST_F(PageAccessibility, HasASentenceForThoseWithoutJavaScript) {
    Browser& page = browser();
    page.devtools("Emulation.setScriptExecutionDisabled", {{"value", true}});
    page.open(web.url() + "/");
    EXPECT_TRUE(page.isVisible("noscript p"));
    EXPECT_THAT(page.text("noscript p"), testing::StartsWith("This page needs JavaScript"));
    EXPECT_FALSE(page.isVisible("#login-form"));
}

}  // namespace
}  // namespace testbed
