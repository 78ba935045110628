// A private root for the programs of the testbed, made with bubblewrap. It needs no
// privileges where user namespaces are allowed, and leaves the machine untouched.
//
// Inside, a program is user 0 without capabilities unless it asks for another number.
// It sees a folder of ours as its root, the machine's /usr read-only below it (but not
// /usr/local, which is ours again), a /proc and process numbers of its own, the usual few
// devices, and a loopback network.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "testbed/process.h"

namespace testbed {

// A file or folder of the machine that is visible inside.
struct Bind {
    enum class Kind { readOnly, writable, device };

    std::string outside;
    std::string inside;
    Kind kind = Kind::readOnly;
};

// One program to start.
struct Launch {
    std::vector<std::string> command;
    // Added to PATH and TZ, the only variables otherwise.
    std::map<std::string, std::string> environment{};
    std::vector<Bind> binds{};
    // Limits as prlimit takes them, such as "--nofile=64".
    std::vector<std::string> limits{};
    // A program that runs the command, such as valgrind, with its arguments.
    std::vector<std::string> runner{};
    // Further options for bubblewrap, after all others.
    std::vector<std::string> sandboxOptions{};
    // Whether the command belongs to the same build as the testbed. An emulator runs it when
    // that build is for another machine.
    bool ofThisBuild = false;
    // The program's name in the kernel in the end; empty: the last part of the command's first
    // word.
    std::string name{};
    // The program's user and group inside, to whom all files of the root belong.
    int user = 0;
    // The machine's own network instead of a private one, so that clients outside reach the
    // program.
    bool machineNetwork = false;
    Streams streams{};
};

class Sandbox {
  public:
    // The folder becomes the root; the folders and links that a root needs are made in it.
    explicit Sandbox(std::string rootFolder);

    // From now on all programs share one loopback network instead of having one each.
    void shareNetwork();
    // For every program started from now on.
    void bind(Bind bind) { binds.push_back(std::move(bind)); }

    // Starts a program. Returns once the sandbox exists, perhaps before the program runs. When
    // the sandbox cannot be made, the program's standard error says why.
    std::unique_ptr<Process> start(const Launch& launch) const;

  private:
    std::string root;
    std::vector<Bind> binds;
    std::unique_ptr<Process> networkHolder;
};

}  // namespace testbed
