#include "testbed/demo_output.h"

#include <unistd.h>

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <sstream>

namespace testbed {
namespace {

constexpr int nameWidth = 15;
constexpr int summaryWidth = 50;

std::string chapterLine(const std::string& name, const std::string& text) {
    std::ostringstream line;
    line << "  " << std::left << std::setw(nameWidth) << name << std::setw(summaryWidth) << text;
    return line.str();
}

}  // namespace

DemoOutput::DemoOutput(bool verbose) : isVerbose(verbose), isTerminal(isatty(STDOUT_FILENO) != 0) {}

void DemoOutput::rewriteLine(const std::string& text) {
    if (isTerminal) {
        std::cout << "\r" << text << std::flush;
    }
}

void DemoOutput::beginChapter(const std::string& name, const std::string& title) {
    chapter = name;
    checkedInChapter = 0;
    wrongInChapter.clear();
    if (isVerbose) {
        std::cout << "\n== " << title << "\n";
    } else {
        rewriteLine(chapterLine(name, "..."));
    }
}

void DemoOutput::endChapter(const std::string& summary) {
    if (isVerbose) {
        return;
    }
    rewriteLine("");
    std::cout << chapterLine(chapter, summary);
    if (wrongInChapter.empty()) {
        std::cout << std::right << std::setw(2) << checkedInChapter << " right\n";
    } else {
        std::cout << wrongInChapter.size() << " of " << checkedInChapter << " WRONG\n";
    }
    for (const std::string& statement : wrongInChapter) {
        std::cout << "      [WRONG] " << statement << "\n";
    }
    std::cout << std::flush;
}

std::ostream& DemoOutput::details() {
    return isVerbose ? std::cout : nowhere;
}

void DemoOutput::check(bool right, const std::string& statement) {
    details() << (right ? "   [right] " : "   [WRONG] ") << statement << "\n";
    ++checkedInChapter;
    ++checkedCount;
    if (!right) {
        wrongInChapter.push_back(statement);
        ++wrongCount;
    }
}

void DemoOutput::showWait(const std::string& what, long left, long whole) {
    constexpr long barLength = 20;
    const auto filled =
        static_cast<std::size_t>(std::clamp(left * barLength / std::max(whole, 1L), 0L, barLength));
    if (isVerbose) {
        std::cout << "   " << what << ": " << left << " s left\n" << std::flush;
    } else {
        rewriteLine(chapterLine(chapter, what + " [" + std::string(filled, '#') +
                                             std::string(barLength - filled, '.') + "] " +
                                             std::to_string(left) + " s"));
    }
}

}  // namespace testbed
