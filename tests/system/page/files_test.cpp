// What the front end serves of the page, without a browser: who gets it, its headers, its size.
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "support/web_test.h"

namespace testbed {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

constexpr const char* ofBrowsers =
    "Accept: text/html,application/xhtml+xml,application/xml;q=0.9,*/*;q=0.8";
constexpr const char* pageFolder = TEST_SHIPPED_FRONT_END "/page";

std::string textOf(const fs::path& file) {
    std::ostringstream text;
    text << std::ifstream(file).rdbuf();
    return text.str();
}

class PageFiles : public WebTest {
  protected:
    HttpResponse get(const std::string& path, const std::string& header = "Accept:") {
        return client().request({.path = path, .headers = {header}});
    }
};

TEST_F(PageFiles, AreForThoseThatAskForHtml) {
    const HttpResponse page = get("/", ofBrowsers);
    EXPECT_EQ(page.status, 200);
    EXPECT_EQ(page.header("content-type"), "text/html; charset=utf-8");
    EXPECT_EQ(page.header("vary"), "Accept");
    EXPECT_EQ(page.body, textOf(fs::path(pageFolder) / "index.html"));
    const HttpResponse head =
        client().request({.method = "HEAD", .path = "/", .headers = {ofBrowsers}});
    EXPECT_EQ(head.status, 200);
    EXPECT_EQ(head.body, "");
    EXPECT_EQ(get("/?from=bookmark", ofBrowsers).status, 200);
}

TEST_F(PageFiles, LeaveTheRootToRedfishClientsAsItWas) {
    for (const char* accept : {"Accept:", "Accept: */*", "Accept: application/json"}) {
        const HttpResponse answer = get("/", accept);
        EXPECT_EQ(answer.status, 401) << accept;
        EXPECT_EQ(messageIds(answer), Words{"Base.1.12.NoValidSession"}) << accept;
    }
    EXPECT_EQ(client()
                  .request({.method = "POST", .path = "/", .headers = {ofBrowsers}, .body = "{}"})
                  .status,
              401);
    EXPECT_EQ(get("/redfish/v1", ofBrowsers).header("content-type"), "application/json");
    client().useToken(frontEnd().insertSession().token);
    EXPECT_EQ(get("/", "Accept: application/json").status, 404);
}

TEST_F(PageFiles, AreServedWithTheirTypesAndNothingElseIs) {
    for (const auto& [name, type] : Fields{{"index.html", "text/html; charset=utf-8"},
                                           {"style.css", "text/css; charset=utf-8"},
                                           {"main.js", "text/javascript; charset=utf-8"},
                                           {"icon.svg", "image/svg+xml"}}) {
        const HttpResponse answer = get("/page/" + name);
        EXPECT_EQ(answer.status, 200) << name;
        EXPECT_EQ(answer.header("content-type"), type) << name;
    }
    for (const char* path :
         {"/page", "/page/", "/page/none.js", "/page/../lua/main.lua", "/page/%2e%2e/lua/main.lua",
          "/page//etc/passwd", "/metadata.xml", "/lua/main.lua", "/index.html"}) {
        EXPECT_EQ(get(path).status, 401) << path;
    }
    for (const char* method : {"POST", "PUT", "DELETE", "PATCH"}) {
        EXPECT_GE(client().request({.method = method, .path = "/page/main.js"}).status, 400)
            << method;
    }
}

TEST_F(PageFiles, AreKeptByTheBrowserButAskedForEachTime) {
    const HttpResponse first = get("/page/main.js");
    EXPECT_EQ(first.header("cache-control"), "no-cache");
    ASSERT_NE(first.header("etag"), "");
    const HttpResponse again = get("/page/main.js", "If-None-Match: " + first.header("etag"));
    EXPECT_EQ(again.status, 304);
    EXPECT_EQ(again.body, "");
    EXPECT_EQ(again.header("cache-control"), "no-cache");
}

TEST_F(PageFiles, MayRunNothingFromElsewhereAndStandInNoFrame) {
    for (const char* path : {"/", "/page/index.html", "/page/main.js", "/page/icon.svg"}) {
        const HttpResponse answer = get(path, ofBrowsers);
        const std::string policy = answer.header("content-security-policy");
        for (const char* part :
             {"default-src 'none'", "script-src 'self';", "style-src 'self';", "img-src 'self';",
              "connect-src 'self';", "base-uri 'none'", "form-action 'none'",
              "frame-ancestors 'none'", "require-trusted-types-for 'script'"}) {
            EXPECT_THAT(policy, HasSubstr(part)) << path;
        }
        EXPECT_THAT(policy, Not(HasSubstr("unsafe"))) << path;
        EXPECT_EQ(answer.header("x-frame-options"), "DENY") << path;
        EXPECT_EQ(answer.header("x-content-type-options"), "nosniff") << path;
        EXPECT_EQ(answer.header("referrer-policy"), "no-referrer") << path;
        EXPECT_EQ(answer.header("cross-origin-opener-policy"), "same-origin") << path;
        EXPECT_EQ(answer.header("cross-origin-embedder-policy"), "require-corp") << path;
        EXPECT_EQ(answer.header("cross-origin-resource-policy"), "same-origin") << path;
        EXPECT_THAT(answer.header("strict-transport-security"), HasSubstr("max-age=31536000"));
    }
}

TEST(PageSources, AreSmallAndNameNothingFromElsewhere) {
    std::size_t size = 0;
    for (const fs::directory_entry& file : fs::directory_iterator(pageFolder)) {
        const std::string text = textOf(file);
        size += text.size();
        // The namespaces of SVG are names, not addresses.
        const std::string rest = std::regex_replace(text, std::regex("http://www\\.w3\\.org/"), "");
        EXPECT_THAT(rest, Not(HasSubstr("//www"))) << file;
        EXPECT_FALSE(std::regex_search(rest, std::regex("https?://"))) << file;
        for (const char* sink : {"innerHTML", "outerHTML", "insertAdjacentHTML", "document.write",
                                 "eval(", "localStorage", "sessionStorage", "document.cookie"}) {
            EXPECT_THAT(text, Not(HasSubstr(sink))) << file;
        }
    }
    EXPECT_LT(size, 40000U);
}

TEST(PageSources, HaveNoInlineCodeAndNoInlineStyle) {
    const std::string page = textOf(fs::path(pageFolder) / "index.html");
    EXPECT_FALSE(std::regex_search(page, std::regex("<style|\\bstyle=|\\bon[a-z]+=|javascript:")));
    EXPECT_FALSE(std::regex_search(page, std::regex("<script(?![^>]*\\bsrc=)")));
}

}  // namespace
}  // namespace testbed
