// A program of the machine at a terminal of its own.
#pragma once

#include <map>
#include <string>

#include "testbed/process.h"
#include "testbed/store_client.h"

namespace testbed {

class TerminalProgram {
  public:
    // Starts the program, with that environment and no other, at a terminal with so many columns.
    TerminalProgram(const Words& command, unsigned columns,
                    const std::map<std::string, std::string>& environment);
    // Ends the program if it still runs.
    ~TerminalProgram();
    TerminalProgram(const TerminalProgram&) = delete;
    TerminalProgram& operator=(const TerminalProgram&) = delete;

    // What it has written so far, with the terminal's line ends taken back.
    std::string output();
    // Blocks until it has written the text.
    void waitFor(const std::string& text);
    // What somebody types. The terminal echoes it.
    void type(const std::string& text);
    // Blocks until the program has ended.
    ExitStatus wait();

  private:
    int terminal = -1;
    int programSide = -1;
    pid_t pid = -1;
    std::string received;
};

}  // namespace testbed
