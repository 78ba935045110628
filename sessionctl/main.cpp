// sessionctl: inspecting and repairing the session service from the console of the board.
#include <getopt.h>
#include <signal.h>

#include <array>
#include <charconv>
#include <cstdio>
#include <exception>
#include <string_view>

#include "base/process_state.h"
#include "frame/logger.h"
#include "sessionctl/commands.h"
#include "sessionctl/output.h"
#include "sessions/records.h"

namespace session_service::console {
namespace {

constexpr const char* usage =
    "usage: sessionctl [--json] [--timeout SECONDS] COMMAND\n"
    "\n"
    "  list         list the sessions: user, client, idle time, time until expiry\n"
    "  show ID      show everything about a session except its token\n"
    "  delete ID    log a session out, through the daemon\n"
    "  login USER   ask for the password and try it, without creating a session\n"
    "  watch        show sessions as they come and go, until interrupted\n"
    "  check        check that the daemon has everything that it needs\n"
    "\n"
    "  --json             print one JSON document; watch prints one on each line\n"
    "  --timeout SECONDS  how long to wait for the store and for the daemon (10)\n"
    "  --help, --version\n"
    "\n"
    "Exit status: 0 done, 1 failed, 2 wrong usage, 3 the store cannot be used (check: 1).\n";

[[noreturn]] void failUsage(const std::string& sentence) {
    throw CommandError(exit_status::usageError, sentence + " See \"sessionctl --help\".");
}

std::chrono::seconds parseTimeout(std::string_view text) {
    constexpr int maxSeconds = 3600;
    int seconds = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    if (error != std::errc() || end != text.data() + text.size() || seconds < 1 ||
        seconds > maxSeconds) {
        failUsage("--timeout takes a number from 1 to " + std::to_string(maxSeconds) + ".");
    }
    return std::chrono::seconds(seconds);
}

// The identifier, which may be given as the session's URI. The daemon takes what follows the last
// slash, so an identifier with a slash would name another session.
std::string parseIdentifier(std::string text) {
    if (text.starts_with(sessionUriPrefix)) {
        text.erase(0, sessionUriPrefix.size());
    }
    if (text.empty() || text.find('/') != std::string::npos) {
        failUsage("\"" + escaped(text) + "\" is no session identifier.");
    }
    return text;
}

int runWithoutArgument(const Options& options, const std::string& command) {
    if (command == "list") {
        return runList(options);
    }
    if (command == "watch") {
        return runWatch(options);
    }
    if (command == "check") {
        return runCheck(options);
    }
    if (command == "show" || command == "delete") {
        failUsage("\"" + command + "\" takes the identifier of a session.");
    }
    if (command == "login") {
        failUsage("\"" + command + "\" takes the name of a user.");
    }
    failUsage("\"" + escaped(command) + "\" is no command.");
}

int runWithArgument(const Options& options, const std::string& command,
                    const std::string& argument) {
    if (command == "show") {
        return runShow(options, parseIdentifier(argument));
    }
    if (command == "delete") {
        return runDelete(options, parseIdentifier(argument));
    }
    if (command == "login") {
        return runLogin(options, argument);
    }
    failUsage("\"" + escaped(command) + "\" is no command that takes an argument.");
}

int run(int argumentCount, char** arguments, Options& options) {
    // Beyond all characters: there are no short options.
    enum { json = 256, timeout, help, version };
    const std::array<option, 5> knownOptions{{{"json", no_argument, nullptr, json},
                                              {"timeout", required_argument, nullptr, timeout},
                                              {"help", no_argument, nullptr, help},
                                              {"version", no_argument, nullptr, version},
                                              {}}};
    opterr = 0;
    for (int found = 0;
         (found = getopt_long(argumentCount, arguments, "", knownOptions.data(), nullptr)) != -1;) {
        switch (found) {
            case json:
                options.json = true;
                break;
            case timeout:
                options.timeout = parseTimeout(optarg);
                break;
            case help:
                return print(usage) ? exit_status::success : exit_status::failure;
            case version:
                return print("sessionctl " SESSIONCTL_VERSION "\n") ? exit_status::success
                                                                    : exit_status::failure;
            default: {
                const bool isShort = optopt != 0 && optopt < json;
                const std::string name = isShort ? std::string{'-', static_cast<char>(optopt)}
                                                 : std::string(arguments[optind - 1]);
                failUsage("\"" + escaped(name) + "\" is no option, or lacks its value.");
            }
        }
    }
    switch (argumentCount - optind) {
        case 0:
            failUsage("A command is missing.");
        case 1:
            return runWithoutArgument(options, arguments[optind]);
        case 2:
            return runWithArgument(options, arguments[optind], arguments[optind + 1]);
        default:
            failUsage("There are too many arguments.");
    }
}

// Tells a person, or the program that reads the JSON, why the command failed.
int reportError(const Options& options, int status, const std::string& sentence) {
    if (!options.json || status == exit_status::usageError) {
        std::fprintf(stderr, "sessionctl: %s\n", sentence.c_str());
    } else if (!print(formatJson({{"error", sentence}}, -1))) {
        return exit_status::failure;
    }
    return status;
}

}  // namespace
}  // namespace session_service::console

int main(int argumentCount, char** arguments) {
    using namespace session_service;
    using namespace session_service::console;

    // hiredis sends without MSG_NOSIGNAL, and whoever reads the output may stop doing so.
    signal(SIGPIPE, SIG_IGN);
    openStandardStreams();
    // What the daemon would log goes to standard error.
    static Logger standardError;
    logger = &standardError;
    Options options;
    try {
        return run(argumentCount, arguments, options);
    } catch (const CommandError& error) {
        return reportError(options, error.status, error.what());
    } catch (const std::exception& failure) {
        return reportError(options, exit_status::failure, failure.what());
    }
}
