// The fixture of all tests that run sessionctl inside the private root.
#pragma once

#include <sys/wait.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>

#include "support/system_test.h"
#include "support/terminal_program.h"

namespace testbed {

// The result of one run of the command.
struct Outcome {
    int status = -1;
    std::string output;
    std::string errors;

    // The output, which has to be JSON.
    nlohmann::json json() const { return nlohmann::json::parse(output); }
};

// The command outside of the private root, as a person at the machine calls it.
inline Words outsideCommand(const Controller& controller, const Words& arguments) {
    Words command{TEST_SESSIONCTL, "--root", controller.path("")};
    if (std::find(arguments.begin(), arguments.end(), "--timeout") == arguments.end()) {
        command.insert(command.end(), {"--timeout", "300"});
    }
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

inline std::map<std::string, std::string> outsideEnvironment(
    std::map<std::string, std::string> environment = {}) {
    environment.merge(Controller::sanitizerOptions());
    environment.insert({{"PATH", "/usr/sbin:/usr/bin:/sbin:/bin"}, {"TZ", "UTC0"}});
    return environment;
}

// Runs it to its end; its output is no terminal.
inline Outcome runOutside(Controller& controller, const Words& arguments,
                          const std::map<std::string, std::string>& environment = {}) {
    const std::string output = "/tmp/outside.out";
    const std::string errors = "/tmp/outside.err";
    controller.writeFile(output, "");
    controller.writeFile(errors, "");
    Words command{"env", "-i"};
    for (const auto& [name, value] : outsideEnvironment(environment)) {
        command.push_back(name + "=" + value);
    }
    const Words rest = outsideCommand(controller, arguments);
    command.insert(command.end(), rest.begin(), rest.end());
    const pid_t pid =
        spawn(command, {.output = controller.path(output), .errors = controller.path(errors)});
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status));
    return {WEXITSTATUS(status), controller.readFile(output), controller.readFile(errors)};
}

class SessionctlTest : public SystemTest {
  protected:
    explicit SessionctlTest(const ControllerOptions& options = {}) : SystemTest(options) {
        controller.bind({TEST_SESSIONCTL, program, Bind::Kind::readOnly});
    }
    void TearDown() override {
        for (const Account& account : {administrator, operatorAccount, reader, expired}) {
            for (const std::string& text :
                 {controller.outputOf("sessionctl"), controller.errorsOf("sessionctl")}) {
                EXPECT_EQ(text.find(account.password), std::string::npos) << text;
            }
        }
        SystemTest::TearDown();
    }

    // Starts it, with a long timeout unless the arguments give another. `input` is a path of the
    // machine.
    std::unique_ptr<Process> startSessionctl(const Words& arguments,
                                             const std::string& input = "/dev/null") {
        Launch launch{.command = {program},
                      .environment = Controller::sanitizerOptions(),
                      .ofThisBuild = true,
                      .machineNetwork = machineNetwork,
                      .streams = {.input = input}};
        if (std::find(arguments.begin(), arguments.end(), "--timeout") == arguments.end()) {
            launch.command.insert(launch.command.end(), {"--timeout", "300"});
        }
        launch.command.insert(launch.command.end(), arguments.begin(), arguments.end());
        return controller.startProgram(launch);
    }
    // Runs it to its end, with `input` on its standard input.
    Outcome sessionctl(const Words& arguments, const std::string& input = "") {
        controller.writeFile("/tmp/sessionctl.input", input);
        const std::string output = controller.outputOf("sessionctl");
        const std::string errors = controller.errorsOf("sessionctl");
        const auto process = startSessionctl(arguments, controller.path("/tmp/sessionctl.input"));
        const ExitStatus ending = process->wait();
        EXPECT_FALSE(ending.bySignal) << toText(ending);
        return {ending.value, controller.outputOf("sessionctl").substr(output.size()),
                controller.errorsOf("sessionctl").substr(errors.size())};
    }

    // Whether sessionctl reaches what listens on the machine's loopback.
    bool machineNetwork = false;
    static constexpr const char* program = "/usr/local/sbin/sessionctl";
};

// The same, with everything running.
class RunningSessionctlTest : public SessionctlTest {
  protected:
    using SessionctlTest::SessionctlTest;
    void SetUp() override { start(); }
};

}  // namespace testbed
