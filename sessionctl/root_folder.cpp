#include "sessionctl/root_folder.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/file_descriptor.h"
#include "sessionctl/output.h"

namespace session_service::console {
namespace {

[[noreturn]] void failFor(const std::string& what) {
    const std::string reason = std::strerror(errno);
    throw CommandError(exit_status::failure, what + ": " + reason + ".");
}

std::string absolutePath(const std::string& folder) {
    struct Free {
        void operator()(char* text) const noexcept { std::free(text); }
    };
    const std::unique_ptr<char, Free> path(realpath(folder.c_str(), nullptr));
    if (!path) {
        failFor("The root " + escaped(folder) + " cannot be used");
    }
    return path.get();
}

bool isFolder(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

void writeFile(const char* path, const std::string& text) {
    const FileDescriptor file(open(path, O_WRONLY | O_CLOEXEC));
    if (!file || write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        failFor(std::string("The user namespace cannot be set up: ") + path);
    }
}

// A view of the files for this process alone. Whoever is not root becomes root in it.
void leaveNamespaces() {
    const std::string user = std::to_string(geteuid());
    const std::string group = std::to_string(getegid());
    if (geteuid() != 0 || unshare(CLONE_NEWNS) != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
            failFor("--root needs user namespaces, which this machine does not allow");
        }
        writeFile("/proc/self/setgroups", "deny");
        writeFile("/proc/self/uid_map", "0 " + user + " 1");
        writeFile("/proc/self/gid_map", "0 " + group + " 1");
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        failFor("--root cannot keep its view of the files to itself");
    }
}

void bindFolder(const std::string& from, const std::string& to) {
    if (mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
        failFor(escaped(from) + " cannot be put into the root");
    }
}

}  // namespace

void enterRoot(const std::string& folder) {
    const std::string root = absolutePath(folder);
    if (!isFolder(root + "/etc")) {
        throw CommandError(exit_status::failure,
                           escaped(folder) + " is not the root of a controller: it has no /etc.");
    }
    leaveNamespaces();
    // A controller of the demo has its own /usr/local, and the machine's programs.
    const bool hasPrograms = isFolder(root + "/usr/bin");
    const FileDescriptor local(open((root + "/usr/local").c_str(), O_PATH | O_CLOEXEC));
    if (!hasPrograms) {
        bindFolder("/usr", root + "/usr");
        if (local) {
            bindFolder("/proc/self/fd/" + std::to_string(local.get()), root + "/usr/local");
        }
        if (isFolder("/etc/alternatives") && isFolder(root + "/etc/alternatives")) {
            bindFolder("/etc/alternatives", root + "/etc/alternatives");
        }
    }
    for (const char* system : {"/proc", "/dev"}) {
        if (isFolder(root + system)) {
            bindFolder(system, root + system);
        }
    }
    if (chroot(root.c_str()) != 0 || chdir("/") != 0) {
        failFor("The root " + escaped(folder) + " cannot be entered");
    }
}

}  // namespace session_service::console
