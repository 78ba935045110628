#include "support/system_test.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <iostream>
#include <regex>
#include <sstream>

namespace testbed {

namespace {

constexpr const char* pamModule = "/usr/local/lib/security/pam_test.so";
constexpr const char* pamRecordFile = "/tmp/pam.records";
constexpr const char* pamBlockFile = "/tmp/pam.block";
constexpr int leastDescriptorOfValgrind = 1000;
constexpr const char* kadminArguments = "/tmp/kadmin.arguments";

constexpr std::array sanitizerReports{"ERROR: AddressSanitizer", "ERROR: LeakSanitizer",
                                      "WARNING: ThreadSanitizer", "FATAL: ThreadSanitizer",
                                      "runtime error:"};

void expectNoPassword(const std::string& text, const std::string& place) {
    for (const Account& account : {administrator, operatorAccount, reader, expired}) {
        EXPECT_FALSE(contains(text, account.password)) << place << ": " << text;
    }
}

// "Nov 21 01:39:00 1700000000 [Error]: message"
LogLine toLogLine(const std::string& line) {
    constexpr std::size_t dateLength = 15;
    const std::size_t epochEnd = line.find(' ', dateLength + 1);
    const std::size_t tagEnd = line.find(": ", epochEnd);
    if (tagEnd == std::string::npos) {
        return {"", "", "", line};
    }
    return {line.substr(0, dateLength), line.substr(dateLength + 1, epochEnd - dateLength - 1),
            line.substr(epochEnd + 1, tagEnd - epochEnd - 1), line.substr(tagEnd + 2)};
}

}  // namespace

SystemTest::SystemTest(const ControllerOptions& options) : controller(options) {
    controller.install(TEST_PAM_MODULE, pamModule);
}

void SystemTest::TearDown() {
    if (controller.daemonStarted()) {
        stopDaemon();
        checkDaemon();
    }
    if (HasFailure()) {
        std::cerr << "--- log of the daemon\n"
                  << earlierLog << controller.readFile(logFile) << "--- its standard error\n"
                  << controller.daemonErrors() << "---\n";
    }
}

void SystemTest::checkDaemon() {
    if (const auto ended = controller.daemon().exitStatus()) {
        EXPECT_EQ(toText(*ended), toText(expectedStatus)) << "for the end of the daemon";
    }
    const std::string errors = controller.daemonErrors();
    for (const char* report : sanitizerReports) {
        EXPECT_FALSE(contains(errors, report)) << errors;
    }
    if (underValgrind()) {
        EXPECT_FALSE(std::regex_search(errors, std::regex("==[0-9]+== "))) << errors;
    }
    expectNoPassword(errors, "standard error");
    expectNoPassword(controller.daemonOutput(), "standard output");
    expectNoPassword(earlierLog + controller.readFile(logFile), "log");
    Words errorMessages;
    for (const LogLine& line : logLines()) {
        if (line.tag == "[Error]") {
            errorMessages.push_back(line.message);
        }
    }
    expectErrorLines(errorMessages, expectedErrors);
}

void SystemTest::start() {
    startStore();
    startDaemon();
}

void SystemTest::startStore() {
    controller.startStore();
    controller.loadScripts();
    controller.seedStore();
    StoreClient store = controller.connect();
    store.run({"CONFIG", "SET", "slowlog-log-slower-than", "0"});
    store.run({"CONFIG", "SET", "slowlog-max-len", "10000"});
}

// Of the last commands, as the store keeps them: up to 32 words of up to 128 bytes.
void SystemTest::checkCommands() {
    try {
        for (const Value& entry : controller.connect().run({"SLOWLOG", "GET", "-1"}).elements) {
            for (const Value& word : entry.elements.at(3).elements) {
                expectNoPassword(word.text, "command");
            }
        }
    } catch (const Failure&) {
        // A store that is gone, or full, does not tell.
    }
}

void SystemTest::startDaemon(const DaemonOptions& options) {
    keepLog();
    controller.startDaemon(options);
    controller.waitUntilServing();
}

ExitStatus SystemTest::runDaemon(const DaemonOptions& options) {
    keepLog();
    controller.startDaemon(options);
    return controller.daemon().wait();
}

void SystemTest::stopDaemon() {
    releasePam();
    checkCommands();
    controller.stopStore();
    storeConnection.reset();
    fakeFrontEnd.reset();
    try {
        controller.daemon().wait();
    } catch (const Failure& failure) {
        ADD_FAILURE() << failure.what();
        controller.daemon().kill();
    }
}

std::ptrdiff_t SystemTest::openDescriptors() {
    const std::filesystem::directory_iterator folder(
        "/proc/" + std::to_string(controller.daemon().pid()) + "/fd");
    return std::count_if(begin(folder), end(folder), [](const auto& descriptor) {
        return std::stoi(descriptor.path().filename()) < leastDescriptorOfValgrind;
    });
}

// The daemon begins its log anew with each start.
void SystemTest::keepLog() {
    earlierLog += controller.readFile(logFile);
    controller.removeFile(logFile);
}

std::vector<LogLine> SystemTest::logLines() const {
    std::vector<LogLine> lines;
    std::istringstream log(earlierLog + controller.readFile(logFile));
    for (std::string line; std::getline(log, line);) {
        lines.push_back(toLogLine(line));
    }
    return lines;
}

long SystemTest::countLogged(const std::string& message) const {
    const std::vector<LogLine> lines = logLines();
    return std::count_if(lines.begin(), lines.end(),
                         [&](const LogLine& line) { return line.message == message; });
}

void SystemTest::waitForLog(const std::string& message) const {
    waitUntil("the log holds \"" + message + "\"", [&] { return countLogged(message) > 0; });
}

void SystemTest::usePamTest(const std::string& arguments) {
    const std::string module = std::string(pamModule) + " record=" + pamRecordFile + " ";
    usePamLines("auth required " + module + "block=" + pamBlockFile + " " + arguments +
                "\naccount required " + module + arguments + "\n");
}

void SystemTest::usePamLines(const std::string& lines) {
    controller.writeFile(pamServiceFile, lines);
}

void SystemTest::holdPam() {
    controller.writeFile(pamBlockFile, "");
}

void SystemTest::waitUntilPamHolds() {
    ++heldLogins;
    waitUntil("a login is held inside PAM", [this] {
        const std::vector<PamRecord> records = pamRecords();
        return static_cast<std::size_t>(
                   std::count_if(records.begin(), records.end(), [](const PamRecord& record) {
                       return record.at("entry") == "auth";
                   })) >= heldLogins;
    });
}

void SystemTest::releasePam() {
    controller.removeFile(pamBlockFile);
}

std::vector<PamRecord> SystemTest::pamRecords() const {
    std::vector<PamRecord> records;
    PamRecord record;
    for (const std::string& field : splitAtZeroBytes(controller.readFile(pamRecordFile))) {
        if (field.empty()) {
            records.push_back(record);
            record.clear();
            continue;
        }
        const std::size_t separator = field.find('=');
        record[field.substr(0, separator)] = field.substr(separator + 1);
    }
    return records;
}

void SystemTest::useFakeKadmin(const std::string& output) {
    controller.install(TEST_FAKE_KADMIN, "/usr/local/bin/kadmin");
    controller.writeFile("/tmp/kadmin.output", output);
}

std::vector<Words> SystemTest::kadminCalls() const {
    std::vector<Words> calls;
    const Words parts = splitAtZeroBytes(controller.readFile(kadminArguments));
    for (auto part = parts.begin(); part != parts.end();) {
        const auto first = part + 1;
        part = first + std::stol(*part);
        calls.emplace_back(first, part);
    }
    return calls;
}

StoreClient& SystemTest::store() {
    if (!storeConnection) {
        storeConnection.emplace(controller.connect());
    }
    return *storeConnection;
}

FakeFrontEnd& SystemTest::frontEnd() {
    if (!fakeFrontEnd) {
        fakeFrontEnd.emplace(controller.frontEnd());
    }
    return *fakeFrontEnd;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

void expectErrorLines(const Words& lines, const Words& expected) {
    for (const std::string& line : lines) {
        const bool isExpected = std::any_of(expected.begin(), expected.end(),
                                            [&](const auto& text) { return contains(line, text); });
        EXPECT_TRUE(isExpected) << "unexpected error line: " << line;
    }
    for (const std::string& text : expected) {
        const bool isThere = std::any_of(lines.begin(), lines.end(),
                                         [&](const auto& line) { return contains(line, text); });
        EXPECT_TRUE(isThere) << "missing error line: " << text;
    }
}

Words splitAtZeroBytes(const std::string& text) {
    Words parts;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\0', at), text.size());
        parts.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return parts;
}

Words splitLines(const std::string& text) {
    std::istringstream stream(text);
    Words lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

}  // namespace testbed
