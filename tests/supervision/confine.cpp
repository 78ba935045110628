// Runs a program under a system call filter (seccomp), inside the private root:
//
//   confine RULES PROGRAM [ARGUMENT...]
//
// RULES is a file with a rule on each line:
//
//   allow NAME          this call is allowed; what no line allows fails with EPERM
//   family NUMBER       sockets of this family are allowed
//   no-write-execute    no memory that can be written and run
//   no-namespaces       no namespaces of its own
//   umask MODE          what new files are masked with
#include <seccomp.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

struct Rules {
    std::set<std::string> allowed;
    std::set<int> families;
    bool writeExecute = true;
    bool namespaces = true;
};

struct ReleaseFilter {
    using pointer = scmp_filter_ctx;
    void operator()(scmp_filter_ctx filter) const noexcept { seccomp_release(filter); }
};
using FilterPtr = std::unique_ptr<void, ReleaseFilter>;

constexpr scmp_datum_t namespaceFlags = CLONE_NEWNS | CLONE_NEWCGROUP | CLONE_NEWUTS |
                                        CLONE_NEWIPC | CLONE_NEWUSER | CLONE_NEWPID | CLONE_NEWNET;

Rules readRules(const char* path) {
    Rules rules;
    std::ifstream file(path);
    std::string rule;
    std::string value;
    while (file >> rule) {
        if (rule == "no-write-execute") {
            rules.writeExecute = false;
        } else if (rule == "no-namespaces") {
            rules.namespaces = false;
        } else if (!(file >> value)) {
            throw std::runtime_error("A rule without a value: " + rule);
        } else if (rule == "allow") {
            rules.allowed.insert(value);
        } else if (rule == "family") {
            rules.families.insert(std::stoi(value));
        } else if (rule == "umask") {
            umask(static_cast<mode_t>(std::stoul(value, nullptr, 8)));
        } else {
            throw std::runtime_error("No rule: " + rule);
        }
    }
    if (rules.allowed.empty()) {
        throw std::runtime_error("No rules allow anything.");
    }
    return rules;
}

void add(const FilterPtr& filter, std::uint32_t action, const std::string& name,
         const std::vector<scmp_arg_cmp>& conditions = {}) {
    const int number = seccomp_syscall_resolve_name(name.c_str());
    // Names of other architectures have no number here.
    if (number >= 0 &&
        seccomp_rule_add_array(filter.get(), action, number,
                               static_cast<unsigned>(conditions.size()), conditions.data()) != 0) {
        throw std::runtime_error("No rule for " + name);
    }
}

// Allows the call when none of these bits is set in the argument.
void allowWithout(const FilterPtr& filter, const std::string& name, unsigned argument,
                  scmp_datum_t bits) {
    add(filter, SCMP_ACT_ALLOW, name, {SCMP_CMP(argument, SCMP_CMP_MASKED_EQ, bits, 0)});
}

void restrictMemory(const FilterPtr& filter, Rules& rules) {
    constexpr scmp_datum_t both = PROT_WRITE | PROT_EXEC;
    constexpr unsigned protection = 2;
    rules.allowed.erase("mmap");
    for (const scmp_datum_t allowed : {0, PROT_WRITE, PROT_EXEC}) {
        add(filter, SCMP_ACT_ALLOW, "mmap",
            {SCMP_CMP(protection, SCMP_CMP_MASKED_EQ, both, allowed)});
    }
    for (const char* call : {"mprotect", "pkey_mprotect"}) {
        rules.allowed.erase(call);
        allowWithout(filter, call, protection, PROT_EXEC);
    }
    rules.allowed.erase("shmat");
    allowWithout(filter, "shmat", protection, SHM_EXEC);
}

void restrictFamilies(const FilterPtr& filter, Rules& rules) {
    rules.allowed.erase("socket");
    for (int family = 0; family < AF_MAX; ++family) {
        const bool allowed = rules.families.contains(family);
        add(filter, allowed ? SCMP_ACT_ALLOW : SCMP_ACT_ERRNO(EAFNOSUPPORT), "socket",
            {SCMP_CMP(0, SCMP_CMP_EQ, static_cast<scmp_datum_t>(family))});
    }
}

void restrictNamespaces(const FilterPtr& filter, Rules& rules) {
    for (const char* call : {"clone", "clone3", "setns", "unshare"}) {
        rules.allowed.erase(call);
    }
    allowWithout(filter, "clone", 0, namespaceFlags);
    // Its flags are out of a filter's reach; the C library goes back to clone.
    add(filter, SCMP_ACT_ERRNO(ENOSYS), "clone3");
}

void apply(Rules rules) {
    const FilterPtr filter(seccomp_init(SCMP_ACT_ERRNO(EPERM)));
    if (!filter) {
        throw std::runtime_error("No filter.");
    }
    if (!rules.writeExecute) {
        restrictMemory(filter, rules);
    }
    if (!rules.families.empty()) {
        restrictFamilies(filter, rules);
    }
    if (!rules.namespaces) {
        restrictNamespaces(filter, rules);
    }
    for (const std::string& name : rules.allowed) {
        add(filter, SCMP_ACT_ALLOW, name);
    }
    if (const int error = seccomp_load(filter.get()); error != 0) {
        throw std::runtime_error(std::string("The filter is refused: ") + std::strerror(-error));
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        return EXIT_FAILURE;
    }
    try {
        apply(readRules(argv[1]));
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "confine: %s\n", failure.what());
        return EXIT_FAILURE;
    }
    execv(argv[2], argv + 2);
    std::perror(argv[2]);
    return EXIT_FAILURE;
}
