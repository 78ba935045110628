// A real browser, without a window, driven through WebDriver.
//
// Everything blocks until the browser has done it, and throws Failure when the browser refuses or
// when what is waited for does not come.
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "testbed/controller.h"
#include "testbed/http_client.h"

namespace testbed {

// Keys, as WebDriver writes them.
inline constexpr const char* tabKey = "\uE004";
inline constexpr const char* enterKey = "\uE007";
inline constexpr const char* escapeKey = "\uE00C";

// One browser with a profile of its own.
class Browser {
  public:
    explicit Browser(std::string driverUrl);
    ~Browser();
    Browser(const Browser&) = delete;
    Browser& operator=(const Browser&) = delete;

    void open(const std::string& url);
    void reload();
    // Opens another tab and returns its name. The one in use goes on, out of sight, when that is
    // switched to.
    std::string openTab();
    void switchTo(const std::string& tab);
    std::string currentTab();

    // What follows happens in the first frame of the page.
    void enterFrame();

    // Runs the body of a function with these arguments; returns what it returns. A promise is
    // waited for.
    nlohmann::json run(const std::string& script,
                       const nlohmann::json& arguments = nlohmann::json::array());
    // Blocks until the expression holds.
    void waitFor(const std::string& expression);
    // The text of an element as it is stored, whether or not it is visible.
    std::string text(const std::string& selector);
    bool isVisible(const std::string& selector);

    // As a person would: an element that cannot be seen or reached is a Failure.
    void click(const std::string& selector);
    void type(const std::string& selector, const std::string& keys);
    // Types to whatever has the focus.
    void press(const std::string& keys);
    // Moves the mouse over the page.
    void moveMouse(int x, int y);

    // A command of the browser's own protocol.
    nlohmann::json devtools(const std::string& command, const nlohmann::json& parameters);
    void useScheme(const std::string& scheme);
    void resize(int width, int height, double scale = 1);
    // The whole page as a PNG file.
    std::string picture(int width);

    // What the browser has complained of since the last call, failed requests aside.
    std::vector<std::string> complaints();

  private:
    nlohmann::json command(const std::string& method, const std::string& path,
                           const nlohmann::json& body = nlohmann::json::object());
    std::string find(const std::string& selector);

    HttpClient driver;
    std::string session;
};

// The driver, and the browsers that a test uses. All have ended when it is gone.
class Browsers {
  public:
    // It runs in the private root of the controller, on the machine's network.
    explicit Browsers(Controller& controller);

    // Another browser; it must not outlive this object.
    std::unique_ptr<Browser> start() const;
    // A page of this machine that is none of the front end's.
    std::string otherPage() const { return url + "/status"; }

  private:
    std::unique_ptr<Process> driver;
    std::string url;
};

}  // namespace testbed
