#include "testbed/controller.h"

#include <signal.h>
#include <sys/random.h>
#include <sys/stat.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <utility>

namespace testbed {

namespace {

namespace fs = std::filesystem;

constexpr const char* daemonPath = "/usr/local/sbin/session-service";
// What is shipped, and what the testbed adds.
constexpr std::array seedFiles{TESTBED_STORE_FILES "/resources.txt",
                               TESTBED_FILES "/seed/resources.txt"};
constexpr const char* suppressionFile = "/usr/local/share/memcheck.supp";
constexpr std::array scripts{"resourceChange", "logGeneratorHelper"};

std::string readWhole(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string randomDigits(std::size_t count) {
    std::string text(count, '\0');
    if (getrandom(text.data(), count, 0) != static_cast<ssize_t>(count)) {
        throw Failure("No random bytes.");
    }
    for (char& digit : text) {
        digit = "0123456789abcdef"[static_cast<unsigned char>(digit) % 16];
    }
    return text;
}

// Splits a line of the seed: words between blanks, or between single quotes.
Words splitCommand(const std::string& line) {
    Words words;
    for (std::size_t at = line.find_first_not_of(' '); at < line.size();
         at = line.find_first_not_of(' ', at)) {
        const bool quoted = line[at] == '\'';
        const std::size_t begin = quoted ? at + 1 : at;
        const std::size_t end = std::min(line.find(quoted ? '\'' : ' ', begin), line.size());
        words.push_back(line.substr(begin, end - begin));
        at = quoted ? end + 1 : end;
    }
    return words;
}

// How many commands of this name the server has carried out since its start.
long long calls(StoreClient& store, const std::string& name) {
    const std::string statistics = store.run({"INFO", "commandstats"}).text;
    const std::string label = "cmdstat_" + name + ":calls=";
    const std::size_t at = statistics.find(label);
    return at == std::string::npos ? 0 : std::stoll(statistics.substr(at + label.size()));
}

// What the kernel calls a program that valgrind runs.
#ifdef __aarch64__
constexpr const char* memcheckName = "memcheck-arm64-linux";
#else
constexpr const char* memcheckName = "memcheck-amd64-linux";
#endif

}  // namespace

Controller::Controller(const ControllerOptions& options)
    : root(folder.path() + "/root"), password("testbed " + randomDigits(24)), sandbox(root) {
    // hiredis sends without guarding against a peer that has gone.
    ::signal(SIGPIPE, SIG_IGN);

    fs::copy(TESTBED_FILES "/root", root, fs::copy_options::recursive);
    for (const char* directory : {"/run/session-service-store", "/var/log", "/usr/local/bin"}) {
        fs::create_directories(path(directory));
    }
    install(TESTBED_SESSION_ROLE_MODULE, "/usr/local/lib/security/pam_session_role.so");
    sandbox.bind({TESTBED_DAEMON, daemonPath, Bind::Kind::readOnly});
    if (const std::string profiles = TESTBED_PROFILES; !profiles.empty()) {
        // Where programs that count their coverage keep it.
        sandbox.bind({profiles, profiles, Bind::Kind::writable});
    }

    writeFile(keyFile, randomDigits(64) + "\n");
    std::string storeConfiguration = readFile("/etc/redis/redis.conf");
    storeConfiguration += "requirepass \"" + password + "\"\n";
    writeFile("/run/session-service-store/redis.requirepass", password);
    if (options.storeOverTcp) {
        storeConfiguration += "port 6379\n";
        writeFile("/run/session-service-store/redis.port", "6379");
    } else {
        writeFile("/run/session-service-store/redis.port", "0");
        writeFile("/run/session-service-store/redis.unixsocket",
                  "/run/session-service-store/redis.sock");
    }
    writeFile("/etc/redis/redis.conf", storeConfiguration);
    for (const char* secret : {keyFile, "/etc/shadow", "/etc/redis/redis.conf",
                               "/run/session-service-store/redis.requirepass"}) {
        chmod(path(secret).c_str(), S_IRUSR | S_IWUSR);
    }

    if (options.sharedNetwork || options.storeOverTcp) {
        sandbox.shareNetwork();
    }
}

void Controller::start() {
    startStore();
    loadScripts();
    seedStore();
    startDaemon();
    waitUntilServing();
}

void Controller::startStore() {
    storeProcess = startProgram({.command = {"/usr/bin/redis-server", "/etc/redis/redis.conf"}});
    waitUntil("the store answers", [this] {
        if (const auto ended = storeProcess->exitStatus()) {
            throw Failure("The store ended with " + toText(*ended) + ": " +
                          readWhole(folder.path() + "/redis-server.out"));
        }
        try {
            return connect().run({"PING"}).text == "PONG";
        } catch (const Failure&) {
            return false;
        }
    });
}

void Controller::loadScripts() {
    StoreClient store = connect();
    for (const char* name : scripts) {
        const std::string text =
            readWhole(TESTBED_STORE_FILES "/scripts/" + std::string(name) + ".lua");
        const Value digest = store.run({"SCRIPT", "LOAD", text});
        store.hset("redisSHAScripts", {{name, digest.text}});
    }
}

void Controller::seedStore() {
    StoreClient store = connect();
    for (const char* file : seedFiles) {
        std::istringstream seed(readWhole(file));
        for (std::string line; std::getline(seed, line);) {
            if (!line.empty() && line.front() != '#') {
                store.run(splitCommand(line));
            }
        }
    }
}

void Controller::stopStore() {
    if (!storeProcess) {
        return;
    }
    try {
        connect().command({"SHUTDOWN", "NOSAVE"});
    } catch (const Failure&) {
        // The server answers a shutdown by closing the connection.
    }
    storeProcess->wait();
    storeProcess.reset();
}

void Controller::startDaemon(const DaemonOptions& options) {
    daemonProcess.reset();
    subscriptionsBefore = 0;
    connectionsBefore = 0;
    if (storeProcess) {
        StoreClient store = connect();
        subscriptionsBefore = calls(store, "subscribe");
        connectionsBefore = calls(store, "auth");
    }
    Launch launch{.command = {daemonPath},
                  .environment = options.environment,
                  .binds = options.binds,
                  .limits = options.limits,
                  .runner = options.runner,
                  .sandboxOptions = options.sandboxOptions,
                  .ofThisBuild = true,
                  .streams = {.input = options.input}};
    launch.environment.merge(sanitizerOptions());
    if (underValgrind()) {
        install(TESTBED_FILES "/memcheck.supp", suppressionFile);
        // A forked child has lost what only the stacks of other threads lead to.
        launch.runner = {"/usr/bin/valgrind",
                         "--quiet",
                         "--suppressions=" + std::string(suppressionFile),
                         "--leak-check=full",
                         "--show-leak-kinds=definite",
                         "--keep-debuginfo=yes",
                         "--child-silent-after-fork=yes",
                         "--vgdb=no"};
        launch.name = memcheckName;
    }
    daemonProcess = startProgram(launch);
}

void Controller::waitUntilServing() {
    StoreClient store = connect();
    // The daemon tries the third channel's subscription before its worker subscribes it, so
    // that three subscribed channels alone do not mean that the worker listens.
    constexpr long long subscriptionsOfStart = 4;
    // Start-up, the two request threads, the expiry, the PATCH worker with its preparation
    // (two), and the one here. The expiry subscribes nothing.
    constexpr long long connectionsOfStart = 8;
    waitUntil("the daemon serves", [&] {
        if (const auto ended = daemon().exitStatus()) {
            throw Failure("The daemon ended with " + toText(*ended) + ": " + daemonErrors());
        }
        if (calls(store, "subscribe") < subscriptionsBefore + subscriptionsOfStart ||
            calls(store, "auth") < connectionsBefore + connectionsOfStart) {
            return false;
        }
        return daemonListens();
    });
}

bool Controller::daemonListens() const {
    StoreClient store = connect();
    return store.subscribers(createChannel) > 0 && store.subscribers(deleteChannel) > 0 &&
           store.subscribers(patchChannel) > 0;
}

Process& Controller::daemon() {
    if (!daemonProcess) {
        throw Failure("The daemon has not been started.");
    }
    return *daemonProcess;
}

std::string Controller::daemonOutput() const {
    return outputOf("session-service");
}

std::string Controller::daemonErrors() const {
    return errorsOf("session-service");
}

std::unique_ptr<Process> Controller::startProgram(const Launch& launch) {
    Launch complete = launch;
    const std::string program =
        folder.path() + "/" + fs::path(launch.command.front()).filename().string();
    complete.streams.output = program + ".out";
    complete.streams.errors = program + ".err";
    if (TESTBED_EMULATED && launch.ofThisBuild) {
        complete.runner = {TESTBED_EMULATOR};
        complete.name = fs::path(TESTBED_EMULATOR).filename().string();
    }
    return sandbox.start(complete);
}

std::map<std::string, std::string> Controller::sanitizerOptions() {
    if (!TESTBED_SANITIZED) {
        return {};
    }
    // The sanitizers look up the real crypt at the start of a program, where it would be
    // missing, because only a PAM module brings it in; hence the preload.
    return {
        {"LD_PRELOAD", "libcrypt.so.1"},
        {"ASAN_OPTIONS", "detect_leaks=1:detect_stack_use_after_return=1:verify_asan_link_order=0"},
        {"UBSAN_OPTIONS", "print_stacktrace=1"},
        {"TSAN_OPTIONS", "second_deadlock_stack=1"}};
}

std::string Controller::outputOf(const std::string& program) const {
    return readWhole(folder.path() + "/" + program + ".out");
}

std::string Controller::errorsOf(const std::string& program) const {
    return readWhole(folder.path() + "/" + program + ".err");
}

StoreClient Controller::connect() const {
    return {socketPath(), password};
}

FakeFrontEnd Controller::frontEnd() const {
    return {socketPath(), password, path(keyFile),
            [this] { return daemonProcess && !daemonProcess->exitStatus(); }};
}

Monitor Controller::monitor() const {
    return {socketPath(), password};
}

void Controller::writeFile(const std::string& inside, const std::string& text) {
    fs::create_directories(fs::path(path(inside)).parent_path());
    std::ofstream file(path(inside), std::ios::binary | std::ios::trunc);
    file << text;
    if (!file.flush()) {
        throw Failure(inside + " cannot be written.");
    }
}

std::string Controller::readFile(const std::string& inside) const {
    return readWhole(path(inside));
}

bool Controller::fileExists(const std::string& inside) const {
    return fs::exists(path(inside));
}

void Controller::removeFile(const std::string& inside) {
    fs::remove(path(inside));
}

void Controller::install(const std::string& outside, const std::string& inside) {
    fs::create_directories(fs::path(path(inside)).parent_path());
    fs::copy_file(outside, path(inside), fs::copy_options::overwrite_existing);
}

}  // namespace testbed
