#include "page/browser.h"

#include <openssl/evp.h>

#include <filesystem>
#include <regex>
#include <utility>

namespace testbed {

namespace {

using nlohmann::json;

constexpr const char* driverProgram = "/usr/bin/chromedriver";
constexpr const char* browserProgram = "/usr/lib/chromium/chromium";
// What names an element in WebDriver's JSON.
constexpr const char* elementKey = "element-6066-11e4-a52e-4f735466cecf";

// The same fonts on every machine.
constexpr const char* fontConfiguration = R"(<?xml version="1.0"?>
<!DOCTYPE fontconfig SYSTEM "fonts.dtd">
<fontconfig>
    <dir>/usr/share/fonts</dir>
    <cachedir>/tmp/fonts</cachedir>
    <alias binding="strong">
        <family>sans-serif</family>
        <prefer><family>Inter</family></prefer>
    </alias>
    <alias binding="strong">
        <family>sans</family>
        <prefer><family>Inter</family></prefer>
    </alias>
    <alias binding="strong">
        <family>monospace</family>
        <prefer><family>DejaVu Sans Mono</family></prefer>
    </alias>
</fontconfig>
)";

std::string decodedBase64(const std::string& text) {
    std::string bytes(text.size() / 4 * 3, '\0');
    const int length = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                                       reinterpret_cast<const unsigned char*>(text.data()),
                                       static_cast<int>(text.size()));
    const std::size_t padding = text.size() - text.find_last_not_of('=') - 1;
    if (length < 0) {
        throw Failure("This is not base64.");
    }
    bytes.resize(static_cast<std::size_t>(length) - padding);
    return bytes;
}

}  // namespace

Browser::Browser(std::string driverUrl) : driver({.url = std::move(driverUrl)}) {
    const json options = {{"binary", browserProgram},
                          // The private root is a sandbox already, and another one cannot be made
                          // inside it.
                          {"args",
                           {"--headless=new", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
                            "--disable-dev-shm-usage", "--disable-background-networking",
                            "--no-first-run", "--window-size=1200,900"}}};
    const json answer = command("POST", "/session",
                                {{"capabilities",
                                  {{"alwaysMatch",
                                    {{"acceptInsecureCerts", true},
                                     {"goog:loggingPrefs", {{"browser", "ALL"}}},
                                     {"goog:chromeOptions", options}}}}}});
    session = "/session/" + answer.at("sessionId").get<std::string>();
    // Lets a test push the page's clock ahead, count its requests, and see how many wait for an
    // answer.
    devtools("Page.addScriptToEvaluateOnNewDocument", {{"source", R"(
        {
            const [now, request] = [Date.now, window.fetch];
            let ahead = 0;
            Date.now = () => now() + ahead;
            window.testAhead = (seconds) => { ahead += 1000 * seconds; };
            window.testRequests = 0;
            window.testWaiting = 0;
            window.fetch = (...given) => {
                ++window.testRequests;
                ++window.testWaiting;
                return request(...given).finally(() => { --window.testWaiting; });
            };
        })"}});
}

Browser::~Browser() {
    try {
        command("DELETE", "");
    } catch (const Failure&) {
        // The driver's end ends it, too.
    }
}

json Browser::command(const std::string& method, const std::string& path, const json& body) {
    HttpRequest request{.method = method, .path = session + path};
    if (method == "POST") {
        request.body = body.dump();
    }
    const HttpResponse answer = driver.request(request);
    json value = answer.json().at("value");
    if (answer.status != 200) {
        throw Failure("The browser refuses " + path + ": " +
                      value.value("message", "").substr(0, 500));
    }
    return value;
}

void Browser::open(const std::string& url) {
    command("POST", "/url", {{"url", url}});
}

void Browser::reload() {
    command("POST", "/refresh");
}

std::string Browser::openTab() {
    return command("POST", "/window/new", {{"type", "tab"}}).at("handle");
}

void Browser::switchTo(const std::string& tab) {
    command("POST", "/window", {{"handle", tab}});
}

std::string Browser::currentTab() {
    return command("GET", "/window");
}

void Browser::enterFrame() {
    command("POST", "/frame", {{"id", 0}});
}

json Browser::run(const std::string& script, const json& arguments) {
    return command("POST", "/execute/sync", {{"script", script}, {"args", arguments}});
}

void Browser::waitFor(const std::string& expression) {
    try {
        waitUntil("the page is so that " + expression,
                  [&] { return run("return Boolean(" + expression + ")").get<bool>(); });
    } catch (const Failure& failure) {
        throw Failure(failure.what() + std::string("; it says ") +
                      run("return document.body.innerText").dump());
    }
}

std::string Browser::text(const std::string& selector) {
    return run("return document.querySelector(arguments[0]).textContent", {selector});
}

bool Browser::isVisible(const std::string& selector) {
    return command("GET", "/element/" + find(selector) + "/displayed");
}

std::string Browser::find(const std::string& selector) {
    return command("POST", "/element", {{"using", "css selector"}, {"value", selector}})
        .at(elementKey);
}

void Browser::click(const std::string& selector) {
    command("POST", "/element/" + find(selector) + "/click");
}

void Browser::type(const std::string& selector, const std::string& keys) {
    const std::string element = find(selector);
    command("POST", "/element/" + element + "/clear");
    command("POST", "/element/" + element + "/value", {{"text", keys}});
}

void Browser::press(const std::string& keys) {
    const json focused = command("GET", "/element/active");
    command("POST", "/element/" + focused.at(elementKey).get<std::string>() + "/value",
            {{"text", keys}});
}

void Browser::moveMouse(int x, int y) {
    command("POST", "/actions",
            {{"actions",
              {{{"type", "pointer"},
                {"id", "mouse"},
                {"actions", {{{"type", "pointerMove"}, {"duration", 0}, {"x", x}, {"y", y}}}}}}}});
}

json Browser::devtools(const std::string& name, const json& parameters) {
    return command("POST", "/goog/cdp/execute", {{"cmd", name}, {"params", parameters}});
}

void Browser::useScheme(const std::string& scheme) {
    devtools("Emulation.setEmulatedMedia",
             {{"features", {{{"name", "prefers-color-scheme"}, {"value", scheme}}}}});
}

void Browser::resize(int width, int height, double scale) {
    devtools(
        "Emulation.setDeviceMetricsOverride",
        {{"width", width}, {"height", height}, {"deviceScaleFactor", scale}, {"mobile", false}});
}

std::string Browser::picture(int width) {
    resize(width, 600);
    resize(width, run("return document.documentElement.scrollHeight"));
    return decodedBase64(devtools("Page.captureScreenshot", {{"format", "png"}}).at("data"));
}

std::vector<std::string> Browser::complaints() {
    std::vector<std::string> texts;
    for (const json& entry : command("POST", "/se/log", {{"type", "browser"}})) {
        if (entry.at("source") != "network") {
            texts.push_back(entry.at("message"));
        }
    }
    return texts;
}

Browsers::Browsers(Controller& controller) {
    if (!std::filesystem::exists(driverProgram) || !std::filesystem::exists(browserProgram)) {
        throw Failure("The browser or its driver is missing: scripts/install-packages browser");
    }
    controller.writeFile("/etc/fonts/fonts.conf", fontConfiguration);
    driver = controller.startProgram({.command = {driverProgram, "--port=0"},
                                      .environment = {{"HOME", "/tmp"}},
                                      .machineNetwork = true});
    std::smatch port;
    std::string output;
    waitUntil("the browser's driver listens", [&] {
        if (const auto ended = driver->exitStatus()) {
            throw Failure("The browser's driver ended with " + toText(*ended) + ": " +
                          controller.errorsOf("chromedriver"));
        }
        output = controller.outputOf("chromedriver");
        return std::regex_search(output, port, std::regex("successfully on port (\\d+)"));
    });
    url = "http://127.0.0.1:" + port.str(1);
}

std::unique_ptr<Browser> Browsers::start() const {
    return std::make_unique<Browser>(url);
}

}  // namespace testbed
