// What the demo prints: one line for each chapter, or everything.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace testbed {

class DemoOutput {
  public:
    // Verbose output has the details and every statement; other output has a line for each chapter.
    explicit DemoOutput(bool verbose);

    // A chapter has a name for its line and a title for verbose output.
    void beginChapter(const std::string& name, const std::string& title);
    void endChapter(const std::string& summary);
    // Where to write what only verbose output shows.
    std::ostream& details();
    // A statement that has been checked. One that is wrong is always printed.
    void check(bool right, const std::string& statement);
    // Shows how long a wait still takes, in seconds: on a terminal as a bar.
    void showWait(const std::string& what, long left, long whole);

    // Whether all statements so far were right, and how many there were.
    bool allRight() const { return wrongCount == 0; }
    int count() const { return checkedCount; }

  private:
    // Writes over what the current line of a terminal holds.
    void rewriteLine(const std::string& text);

    bool isVerbose;
    bool isTerminal;
    std::string chapter;
    int checkedInChapter = 0;
    std::vector<std::string> wrongInChapter;
    int checkedCount = 0;
    int wrongCount = 0;
    std::ostream nowhere{nullptr};
};

}  // namespace testbed
