#include "sessionctl/pam_service.h"

#include <dlfcn.h>
#include <security/pam_appl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <optional>
#include <set>

#include "base/text_file.h"
#include "sessionctl/output.h"

namespace session_service::console {
namespace {

constexpr std::array<const char*, 2> serviceFolders{"/etc/pam.d/", "/usr/lib/pam.d/"};

// Removes the next word from the text and returns it; in square brackets it may hold blanks.
std::string takeWord(std::string& text) {
    constexpr const char* blanks = " \t";
    text.erase(0, text.find_first_not_of(blanks));
    std::size_t end = text.find_first_of(blanks);
    if (text.starts_with('[')) {
        const std::size_t bracket = text.find(']');
        end = bracket == std::string::npos ? bracket : bracket + 1;
    }
    std::string word = text.substr(0, end);
    text.erase(0, word.size());
    return word;
}

std::string toLower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return text;
}

std::optional<PamRule> parseRule(std::string line) {
    line.erase(std::min(line.find('#'), line.size()));
    PamRule rule;
    rule.type = toLower(takeWord(line));
    if (rule.type == "@include") {
        rule.type.clear();
        rule.control = "include";
    } else {
        rule.optional = rule.type.starts_with('-');
        rule.type.erase(0, rule.optional ? 1 : 0);
        rule.control = toLower(takeWord(line));
    }
    rule.module = takeWord(line);
    if (rule.module.empty()) {
        return std::nullopt;
    }
    return rule;
}

std::optional<std::vector<std::string>> readService(const std::string& service) {
    for (const char* folder : serviceFolders) {
        std::vector<std::string> lines;
        const std::string path = service.starts_with('/') ? service : folder + service;
        const ReadOutcome outcome = readLines(path.c_str(), [&](const std::string& line) {
            lines.push_back(line);
            return true;
        });
        if (outcome.status == ReadStatus::complete) {
            return lines;
        }
    }
    return std::nullopt;
}

// The folder in which the library looks for modules without a path: one beside itself.
std::string findModuleFolder() {
    Dl_info library{};
    if (dladdr(reinterpret_cast<void*>(&pam_strerror), &library) == 0) {
        return {};
    }
    const std::string path = library.dli_fname;
    return path.substr(0, path.rfind('/') + 1) + "security/";
}

class ServiceCheck {
  public:
    ServiceCheck(Report& findings, const std::string& service)
        : report(findings), subject("PAM service " + service) {}

    // Only rules of the type, if it is not empty.
    void checkFile(const std::string& service, const std::string& type) {
        if (!visited.insert({service, type}).second) {
            return;
        }
        const auto lines = readService(service);
        if (!lines) {
            report.fail(subject, escaped(service) + " is not there, or cannot be read.");
            allFilesRead = false;
            return;
        }
        for (const PamRule& rule : parsePamRules(*lines)) {
            if (!type.empty() && !rule.type.empty() && rule.type != type) {
                continue;
            }
            if (rule.control == "include" || rule.control == "substack") {
                checkFile(rule.module, rule.type.empty() ? type : rule.type);
            } else {
                types.insert(rule.type);
                checkModule(rule);
            }
        }
    }

    void conclude() {
        for (const char* type : {"auth", "account"}) {
            if (!allFilesRead || types.contains(type)) {
                continue;
            }
            const std::string found = std::string("It has no rule of type ") + type;
            if (isInFallback(type)) {
                report.warn(subject, found + ": those of the service other count.");
            } else {
                report.fail(subject, found + ": nobody can log in.");
            }
        }
        report.conclude(subject, "all its modules are there");
    }

  private:
    // Where a service has no rule of a type, libpam takes those of the service "other".
    static bool isInFallback(const char* type) {
        Report unused;
        ServiceCheck others(unused, "other");
        others.checkFile("other", type);
        return others.types.contains(type);
    }
    void checkModule(const PamRule& rule) {
        const std::string path =
            rule.module.starts_with('/') ? rule.module : moduleFolder + rule.module;
        // The library replaces $ISA by its own name for the processor.
        if (rule.optional || path.find("$ISA") != std::string::npos ||
            access(path.c_str(), R_OK) == 0) {
            return;
        }
        report.fail(subject, "The module " + escaped(path) +
                                 " is not there: install it, or "
                                 "take its rule out.");
    }

    Report& report;
    std::string subject;
    std::string moduleFolder = findModuleFolder();
    std::set<std::pair<std::string, std::string>> visited;
    std::set<std::string> types;
    bool allFilesRead = true;
};

}  // namespace

std::vector<PamRule> parsePamRules(const std::vector<std::string>& lines) {
    std::vector<PamRule> rules;
    std::string joined;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        joined += lines[i];
        if (joined.ends_with('\\')) {
            joined.back() = ' ';
            if (i + 1 < lines.size()) {
                continue;
            }
        }
        if (auto rule = parseRule(joined)) {
            rules.push_back(std::move(*rule));
        }
        joined.clear();
    }
    return rules;
}

void checkPamService(Report& report, const std::string& service) {
    ServiceCheck check(report, service);
    check.checkFile(service, "");
    check.conclude();
}

}  // namespace session_service::console
