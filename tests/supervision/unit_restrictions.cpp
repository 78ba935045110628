#include "unit_restrictions.h"

#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "testbed/process.h"
#include "testbed/wait.h"

namespace testbed {

namespace {

namespace fs = std::filesystem;

using Names = std::vector<std::string>;
using Calls = std::set<std::string>;

const std::map<std::string, int> families{
    {"AF_UNIX", AF_UNIX},
    {"AF_INET", AF_INET},
    {"AF_INET6", AF_INET6},
    {"AF_NETLINK", AF_NETLINK},
};

Names splitWords(const std::string& text) {
    std::istringstream stream(text);
    Names words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    return words;
}

// The sets of calls by their names; a set may hold the names of others.
std::map<std::string, Names> readCallSets() {
    std::map<std::string, Names> sets;
    std::istringstream lines(shellOutput("systemd-analyze --no-pager syscall-filter"));
    std::string set;
    for (std::string line; std::getline(lines, line);) {
        const Names words = splitWords(line);
        if (words.empty() || words[0] == "#") {
            continue;
        }
        if (line[0] == ' ') {
            sets[set].push_back(words[0]);
        } else {
            set = words[0];
        }
    }
    return sets;
}

class CallFilter {
  public:
    CallFilter() { apply("@default"); }

    // Takes a value of SystemCallFilter= into account.
    void apply(const std::string& value) {
        const bool removes = value.starts_with('~');
        for (const std::string& name : splitWords(value.substr(removes ? 1 : 0))) {
            for (const std::string& call : callsOf(name)) {
                if (removes) {
                    allowedCalls.erase(call);
                } else {
                    allowedCalls.insert(call);
                }
            }
        }
    }
    const Calls& allowed() const { return allowedCalls; }

  private:
    // The call of this name, or all calls of a set and of the sets in it.
    Calls callsOf(const std::string& name) const {
        if (!name.starts_with('@')) {
            return {name};
        }
        const auto found = sets.find(name);
        if (found == sets.end()) {
            throw Failure("No set of system calls: " + name);
        }
        Calls calls;
        for (const std::string& member : found->second) {
            calls.merge(callsOf(member));
        }
        return calls;
    }

    std::map<std::string, Names> sets = readCallSets();
    Calls allowedCalls;
};

class RestrictionReader {
  public:
    explicit RestrictionReader(std::string rootFolder) : root(std::move(rootFolder)) {}

    void take(const std::string& option, const std::string& value) {
        constexpr std::string_view limit = "Limit";
        if (option == "CapabilityBoundingSet") {
            for (const std::string& capability : splitWords(value)) {
                append({"--cap-add", capability});
            }
        } else if (option == "ProtectSystem") {
            expect(value == "strict", option, value);
            readOnly = {"--remount-ro", "/", "--remount-ro", "/usr/local"};
        } else if (option == "LogsDirectory") {
            makeWritable("/var/log/" + value);
        } else if (option == "ReadWritePaths") {
            makeWritable(value.starts_with('-') ? value.substr(1) : value);
        } else if (option == "ProtectHome") {
            hide(value, "/home");
            hide(value, "/root");
        } else if (option == "PrivateTmp") {
            hide(value, "/tmp");
        } else if (option == "UMask") {
            restrictions.rules += "umask " + value + "\n";
        } else if (option == "SystemCallFilter") {
            calls.apply(value);
        } else if (option == "RestrictAddressFamilies") {
            for (const std::string& family : splitWords(value)) {
                expect(families.contains(family), option, value);
                restrictions.rules += "family " + std::to_string(families.at(family)) + "\n";
            }
        } else if (option == "MemoryDenyWriteExecute") {
            expect(value == "yes", option, value);
            restrictions.rules += "no-write-execute\n";
        } else if (option == "RestrictNamespaces") {
            expect(value == "yes", option, value);
            restrictions.rules += "no-namespaces\n";
        } else if (option.starts_with(limit)) {
            std::string name = option.substr(limit.size());
            std::transform(name.begin(), name.end(), name.begin(),
                           [](unsigned char letter) { return std::tolower(letter); });
            restrictions.limits.push_back("--" + name + "=" + value);
        }
    }

    UnitRestrictions finish() {
        restrictions.sandboxOptions.insert(restrictions.sandboxOptions.begin(), readOnly.begin(),
                                           readOnly.end());
        for (const std::string& call : calls.allowed()) {
            restrictions.rules += "allow " + call + "\n";
        }
        return restrictions;
    }

  private:
    static void expect(bool understood, const std::string& option, const std::string& value) {
        if (!understood) {
            throw Failure("Not understood: " + option + "=" + value);
        }
    }
    void append(const Names& options) {
        restrictions.sandboxOptions.insert(restrictions.sandboxOptions.end(), options.begin(),
                                           options.end());
    }
    void makeWritable(const std::string& folder) {
        fs::create_directories(root + folder);
        append({"--bind", root + folder, folder});
    }
    void hide(const std::string& value, const std::string& folder) {
        expect(value == "yes", folder, value);
        fs::create_directories(root + folder);
        append({"--tmpfs", folder});
    }

    std::string root;
    Names readOnly;
    CallFilter calls;
    UnitRestrictions restrictions;
};

}  // namespace

UnitRestrictions readUnitRestrictions(const std::string& unitFile, const std::string& root) {
    RestrictionReader reader(root);
    std::ifstream unit(unitFile);
    if (!unit) {
        throw Failure("No unit " + unitFile);
    }
    for (std::string line; std::getline(unit, line);) {
        const std::size_t separator = line.find('=');
        if (!line.starts_with('#') && separator != std::string::npos) {
            reader.take(line.substr(0, separator), line.substr(separator + 1));
        }
    }
    return reader.finish();
}

}  // namespace testbed
