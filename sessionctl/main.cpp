// sessionctl: the session service for the person at the board's console.
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
    "  list         the sessions: who, from where, idle for and expiring in how long\n"
    "  show ID      all of one session, but for its token\n"
    "  delete ID    log a session out, through the daemon\n"
    "  login USER   ask for the password and try it, without making a session\n"
    "  watch        the sessions as they come and go, until interrupted\n"
    "  check        is everything as the daemon needs it?\n"
    "\n"
    "  --json             one JSON document; for watch, one a line\n"
    "  --timeout SECONDS  how long to wait for the store and for the daemon (10)\n"
    "  --help, --version\n"
    "\n"
    "Exit status: 0 done, 1 failed, 2 wrong usage, 3 the store cannot be used (check: 1).\n";

[[noreturn]] void misused(const std::string& sentence) {
    throw Problem(wrongUsage, sentence + " See \"sessionctl --help\".");
}

std::chrono::seconds parseTimeout(std::string_view text) {
    constexpr int maxSeconds = 3600;
    int seconds = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    if (error != std::errc() || end != text.data() + text.size() || seconds < 1 ||
        seconds > maxSeconds) {
        misused("--timeout takes a number from 1 to " + std::to_string(maxSeconds) + ".");
    }
    return std::chrono::seconds(seconds);
}

// The identifier, which may be given as the session's URI. The daemon takes what follows the
// last slash: an identifier with one would name another session.
std::string parseIdentifier(std::string text) {
    if (text.starts_with(sessionUriPrefix)) {
        text.erase(0, sessionUriPrefix.size());
    }
    if (text.empty() || text.find('/') != std::string::npos) {
        misused("\"" + escaped(text) + "\" is no session identifier.");
    }
    return text;
}

int runPlain(const Options& options, const std::string& command) {
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
        misused("\"" + command + "\" takes the identifier of a session.");
    }
    if (command == "login") {
        misused("\"" + command + "\" takes the name of a user.");
    }
    misused("\"" + escaped(command) + "\" is no command.");
}

int runWith(const Options& options, const std::string& command, const std::string& argument) {
    if (command == "show") {
        return runShow(options, parseIdentifier(argument));
    }
    if (command == "delete") {
        return runDelete(options, parseIdentifier(argument));
    }
    if (command == "login") {
        return runLogin(options, argument);
    }
    misused("\"" + escaped(command) + "\" is no command that takes an argument.");
}

int run(int argumentCount, char** arguments, Options& options) {
    // Beyond the letters, of which none is an option.
    enum { json = 256, timeout, help, version };
    const std::array<option, 5> known{{{"json", no_argument, nullptr, json},
                                       {"timeout", required_argument, nullptr, timeout},
                                       {"help", no_argument, nullptr, help},
                                       {"version", no_argument, nullptr, version},
                                       {}}};
    opterr = 0;
    for (int given = 0;
         (given = getopt_long(argumentCount, arguments, "", known.data(), nullptr)) != -1;) {
        switch (given) {
            case json:
                options.json = true;
                break;
            case timeout:
                options.timeout = parseTimeout(optarg);
                break;
            case help:
                return print(usage) ? done : failed;
            case version:
                return print("sessionctl " SESSIONCTL_VERSION "\n") ? done : failed;
            default: {
                const bool isLetter = optopt != 0 && optopt < json;
                const std::string refused = isLetter ? std::string{'-', static_cast<char>(optopt)}
                                                     : std::string(arguments[optind - 1]);
                misused("\"" + escaped(refused) + "\" is no option, or lacks its value.");
            }
        }
    }
    switch (argumentCount - optind) {
        case 0:
            misused("A command is missing.");
        case 1:
            return runPlain(options, arguments[optind]);
        case 2:
            return runWith(options, arguments[optind], arguments[optind + 1]);
        default:
            misused("There are too many arguments.");
    }
}

// A failure, for the person or for the program.
int report(const Options& options, int status, const std::string& sentence) {
    if (!options.json || status == wrongUsage) {
        std::fprintf(stderr, "sessionctl: %s\n", sentence.c_str());
    } else if (!print(jsonText({{"error", sentence}}, -1))) {
        return failed;
    }
    return status;
}

}  // namespace
}  // namespace session_service::console

int main(int argumentCount, char** arguments) {
    using namespace session_service;
    using namespace session_service::console;

    // hiredis sends without MSG_NOSIGNAL, and a reader of the output may go.
    signal(SIGPIPE, SIG_IGN);
    openStandardStreams();
    // What the daemon would log goes to standard error.
    static Logger standardError;
    logger = &standardError;
    Options options;
    try {
        return run(argumentCount, arguments, options);
    } catch (const Problem& problem) {
        return report(options, problem.status, problem.what());
    } catch (const std::exception& failure) {
        return report(options, failed, failure.what());
    }
}
