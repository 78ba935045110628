// sessionctl: inspecting and repairing the session service from the console of the board.
#include <getopt.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <exception>
#include <string_view>

#include "base/process_state.h"
#include "frame/logger.h"
#include "sessionctl/commands.h"
#include "sessionctl/output.h"
#include "sessionctl/process_statistics.h"
#include "sessionctl/root_folder.h"
#include "sessionctl/terminal.h"
#include "sessions/records.h"

namespace session_service::console {
namespace {

constexpr const char* usage =
    "usage: sessionctl [OPTION...] COMMAND [ARGUMENT...]\n"
    "\n"
    "  list             list the sessions: user, client, idle time, time until expiry\n"
    "  show ID          show everything about a session except its token\n"
    "  delete ID...     log sessions out, through the daemon\n"
    "  login USER       ask for the password and try it, without creating a session\n"
    "  watch            show sessions as they come and go, until interrupted\n"
    "  check            check that the daemon has everything that it needs\n"
    "  stats            show what has been counted, and what the daemon takes\n"
    "  timeout SECONDS  change the time without use after which sessions expire\n"
    "  enable, disable  switch logins and logouts on or off\n"
    "  help [COMMAND]   show this, or more about a command\n"
    "\n"
    "  --json             print one JSON document; watch prints one on each line\n"
    "  --timeout SECONDS  how long to wait for the store and for the daemon (10)\n"
    "  --root FOLDER      work on the controller whose root is that folder\n"
    "  -h, --help  -V, --version\n"
    "\n"
    "Exit status: 0 done, 1 failed, 2 wrong usage, 3 the store cannot be used (check: 1).\n";

struct Command {
    std::string_view name;
    int minArguments;
    int maxArguments;
    const char* missing;  // what it takes, for who gave nothing
    const char* help;
};

constexpr int anyNumber = 1 << 20;

constexpr std::array<Command, 11> commands{{
    {"list", 0, 0, "",
     "usage: sessionctl list\n"
     "\n"
     "Lists the sessions, newest first. What does not fit into the width of the terminal is put\n"
     "on further lines.\n"},
    {"show", 1, 1, "the identifier of a session",
     "usage: sessionctl show ID\n"
     "\n"
     "Shows everything about a session except its token.\n"},
    {"delete", 0, anyNumber, "",
     "usage: sessionctl delete ID...\n"
     "       sessionctl delete --user NAME\n"
     "       sessionctl delete --all [--yes]\n"
     "\n"
     "Has the daemon log sessions out, with their events and audit entries.\n"
     "\n"
     "  --user NAME  all sessions of this user\n"
     "  --all        all sessions; asks first at a terminal\n"
     "  -y, --yes    do not ask\n"},
    {"login", 1, 1, "the name of a user",
     "usage: sessionctl login USER\n"
     "\n"
     "Asks for the password and tries it as the daemon would, without creating a session.\n"},
    {"watch", 0, 0, "",
     "usage: sessionctl watch\n"
     "\n"
     "Shows the sessions that exist, and those that come and go, until interrupted.\n"},
    {"check", 0, 0, "",
     "usage: sessionctl check\n"
     "\n"
     "Checks that the daemon has everything that it needs, and says what to do about the rest.\n"},
    {"stats", 0, 0, "",
     "usage: sessionctl stats [--prometheus] [--state FILE] [--output FILE]\n"
     "\n"
     "Shows what has been counted, from which source, and what the daemon takes.\n"
     "\n"
     "  --prometheus   metrics for Prometheus instead of a table\n"
     "  --state FILE   keep the counts in FILE, so that rotated logs do not lower them\n"
     "  --output FILE  write to FILE, in one step\n"},
    {"timeout", 1, 1, "a number of seconds",
     "usage: sessionctl timeout SECONDS\n"
     "\n"
     "Has the daemon change the time without use after which sessions expire, from 30 to 86400\n"
     "seconds, with its event. Sessions that exist keep theirs.\n"},
    {"enable", 0, 0, "",
     "usage: sessionctl enable\n"
     "\n"
     "Switches logins and logouts on. The daemon does not do that on request: it is written\n"
     "into the store, with its event.\n"},
    {"disable", 0, 0, "",
     "usage: sessionctl disable\n"
     "\n"
     "Switches logins and logouts off; sessions go on and expire. The daemon does not do that\n"
     "on request: it is written into the store, with its event.\n"},
    {"help", 0, 1, "", "usage: sessionctl help [COMMAND]\n"},
}};

[[noreturn]] void failUsage(const std::string& sentence) {
    throw CommandError(exit_status::usageError, sentence + " See \"sessionctl --help\".");
}

int parseNumber(std::string_view text, int min, int max, const std::string& what) {
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number < min || number > max) {
        failUsage(what + " takes a number from " + std::to_string(min) + " to " +
                  std::to_string(max) + ".");
    }
    return number;
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

// What was given on the command line.
struct Invocation {
    bool help = false;
    bool version = false;
    std::string root{};
    Deletions deletions{};
    StatsOptions stats{};
    const Command* command = nullptr;
    std::vector<std::string> arguments{};
};

const Command& findCommand(const std::string& name) {
    const auto* found = std::find_if(commands.begin(), commands.end(),
                                     [&](const Command& command) { return command.name == name; });
    if (found == commands.end()) {
        failUsage("\"" + escaped(name) + "\" is no command.");
    }
    return *found;
}

void parseOptions(int argumentCount, char** arguments, Options& options, Invocation& invocation) {
    // Beyond all characters.
    enum { json = 256, timeout, root, user, all, prometheus, state, output };
    const std::array<option, 12> knownOptions{{{"json", no_argument, nullptr, json},
                                               {"timeout", required_argument, nullptr, timeout},
                                               {"root", required_argument, nullptr, root},
                                               {"user", required_argument, nullptr, user},
                                               {"all", no_argument, nullptr, all},
                                               {"yes", no_argument, nullptr, 'y'},
                                               {"prometheus", no_argument, nullptr, prometheus},
                                               {"state", required_argument, nullptr, state},
                                               {"output", required_argument, nullptr, output},
                                               {"help", no_argument, nullptr, 'h'},
                                               {"version", no_argument, nullptr, 'V'},
                                               {}}};
    opterr = 0;
    for (int found = 0; (found = getopt_long(argumentCount, arguments, "hVy", knownOptions.data(),
                                             nullptr)) != -1;) {
        switch (found) {
            case json:
                options.json = true;
                break;
            case timeout:
                options.timeout = std::chrono::seconds(parseNumber(optarg, 1, 3600, "--timeout"));
                break;
            case root:
                invocation.root = optarg;
                break;
            case user:
                invocation.deletions.user = optarg;
                break;
            case all:
                invocation.deletions.all = true;
                break;
            case 'y':
                invocation.deletions.confirmed = true;
                break;
            case prometheus:
                invocation.stats.prometheus = true;
                break;
            case state:
                invocation.stats.state = optarg;
                break;
            case output:
                invocation.stats.output = optarg;
                break;
            case 'h':
                invocation.help = true;
                break;
            case 'V':
                invocation.version = true;
                break;
            default: {
                const bool isShort = optopt != 0 && optopt < json;
                const std::string name = isShort ? std::string{'-', static_cast<char>(optopt)}
                                                 : std::string(arguments[optind - 1]);
                failUsage("\"" + escaped(name) + "\" is no option, or lacks its value.");
            }
        }
    }
    for (int i = optind; i < argumentCount; ++i) {
        invocation.arguments.emplace_back(arguments[i]);
    }
}

void checkArgumentCount(const Command& command, int count) {
    const std::string name = "\"" + std::string(command.name) + "\"";
    if (count < command.minArguments) {
        failUsage(name + " takes " + command.missing + ".");
    }
    if (count > command.maxArguments) {
        failUsage("There are too many arguments for " + name + ".");
    }
}

// Options that only one command has.
void checkOptions(const Options& options, const Invocation& invocation) {
    const std::string_view name = invocation.command->name;
    const Deletions& deletions = invocation.deletions;
    if (name != "delete" && (deletions.user || deletions.all || deletions.confirmed)) {
        failUsage("--user, --all and --yes are for \"delete\".");
    }
    const StatsOptions& stats = invocation.stats;
    if (name != "stats" && (stats.prometheus || !stats.state.empty() || !stats.output.empty())) {
        failUsage("--prometheus, --state and --output are for \"stats\".");
    }
    if (stats.prometheus && options.json) {
        failUsage("--json and --prometheus exclude each other.");
    }
    if (name == "delete" && (invocation.arguments.empty() ? 0 : 1) + (deletions.user ? 1 : 0) +
                                    (deletions.all ? 1 : 0) !=
                                1) {
        failUsage("\"delete\" takes identifiers of sessions, or --user NAME, or --all.");
    }
}

int printHelp(const Command* command) {
    return print(command ? command->help : usage) ? exit_status::success : exit_status::failure;
}

int execute(const Options& options, Invocation& invocation) {
    const std::string_view name = invocation.command->name;
    const std::vector<std::string>& arguments = invocation.arguments;
    if (name == "list") {
        return runList(options);
    }
    if (name == "show") {
        return runShow(options, arguments.front());
    }
    if (name == "delete") {
        invocation.deletions.ids = arguments;
        return runDelete(options, invocation.deletions);
    }
    if (name == "login") {
        return runLogin(options, arguments.front());
    }
    if (name == "watch") {
        return runWatch(options);
    }
    if (name == "check") {
        return runCheck(options);
    }
    if (name == "stats") {
        return runStats(options, invocation.stats);
    }
    if (name == "timeout") {
        return runTimeout(options, parseNumber(arguments.front(), minSessionTimeout,
                                               maxSessionTimeout, "\"timeout\""));
    }
    return runEnable(options, name == "enable");
}

int run(int argumentCount, char** arguments, Options& options) {
    Invocation invocation;
    parseOptions(argumentCount, arguments, options, invocation);
    if (invocation.version) {
        return print("sessionctl " SESSIONCTL_VERSION "\n") ? exit_status::success
                                                            : exit_status::failure;
    }
    std::vector<std::string>& words = invocation.arguments;
    if (words.empty()) {
        if (invocation.help) {
            return printHelp(nullptr);
        }
        failUsage("A command is missing.");
    }
    invocation.command = &findCommand(words.front());
    words.erase(words.begin());
    if (invocation.help) {
        return printHelp(invocation.command);
    }
    checkArgumentCount(*invocation.command, static_cast<int>(words.size()));
    checkOptions(options, invocation);
    const std::string_view name = invocation.command->name;
    if (name == "help") {
        return printHelp(words.empty() ? nullptr : &findCommand(words.front()));
    }
    if (name == "show" || name == "delete") {
        std::transform(words.begin(), words.end(), words.begin(), parseIdentifier);
    }
    if (name == "stats") {
        invocation.stats.daemon = findDaemon(invocation.root.empty() ? "/" : invocation.root);
    }
    if (!invocation.root.empty()) {
        enterRoot(invocation.root);
    }
    return execute(options, invocation);
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
    useLocale();
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
