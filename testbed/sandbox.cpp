#include "testbed/sandbox.h"

#include <filesystem>
#include <utility>

namespace testbed {

namespace {

namespace fs = std::filesystem;

using Arguments = std::vector<std::string>;

void append(Arguments& arguments, const Arguments& more) {
    arguments.insert(arguments.end(), more.begin(), more.end());
}

Arguments bubblewrap(int user) {
    return {"bwrap",
            "--unshare-user",
            "--uid",
            std::to_string(user),
            "--gid",
            std::to_string(user),
            "--die-with-parent",
            "--info-fd",
            std::to_string(infoDescriptor)};
}

std::string bindOption(Bind::Kind kind) {
    switch (kind) {
        case Bind::Kind::writable:
            return "--bind";
        case Bind::Kind::device:
            return "--dev-bind";
        default:
            return "--ro-bind";
    }
}

}  // namespace

Sandbox::Sandbox(std::string rootFolder) : root(std::move(rootFolder)) {
    for (const char* folder : {"dev", "proc", "usr/local", "etc/alternatives", "run", "tmp"}) {
        fs::create_directories(fs::path(root) / folder);
    }
    for (const char* link : {"bin", "sbin", "lib", "lib64"}) {
        if (fs::exists(fs::path("/usr") / link)) {
            fs::create_symlink(fs::path("usr") / link, fs::path(root) / link);
        }
    }
}

void Sandbox::shareNetwork() {
    Arguments arguments = bubblewrap(0);
    append(arguments,
           {"--unshare-net", "--unshare-pid", "--ro-bind", "/", "/", "sleep", "infinity"});
    networkHolder = std::make_unique<Process>(arguments, "sleep", Streams{});
    networkHolder->pid();
}

std::unique_ptr<Process> Sandbox::start(const Launch& launch) const {
    Arguments arguments;
    const bool joinsNetwork = networkHolder && !launch.machineNetwork;
    if (joinsNetwork) {
        arguments = {"nsenter", "--target", std::to_string(networkHolder->sandboxPid()),
                     "--user",  "--net",    "--preserve-credentials"};
    }
    append(arguments, bubblewrap(launch.user));
    if (!joinsNetwork && !launch.machineNetwork) {
        arguments.emplace_back("--unshare-net");
    }
    append(arguments, {"--unshare-pid", "--unshare-ipc", "--unshare-uts", "--hostname", "testbed"});
    append(arguments, {"--cap-drop", "ALL"});
    if (TESTBED_SANITIZED) {
        // The daemon makes itself undumpable; its leak detector has to look at it all the same.
        append(arguments, {"--cap-add", "CAP_SYS_PTRACE"});
    }
    append(arguments, {"--bind", root, "/", "--ro-bind", "/usr", "/usr"});
    append(arguments, {"--bind", root + "/usr/local", "/usr/local"});
    // Debian's awk is a link through this folder.
    append(arguments, {"--ro-bind", "/etc/alternatives", "/etc/alternatives"});
    append(arguments, {"--proc", "/proc", "--dev", "/dev"});
    for (const auto& visible : {binds, launch.binds}) {
        for (const Bind& bind : visible) {
            append(arguments, {bindOption(bind.kind), bind.outside, bind.inside});
        }
    }
    append(arguments, launch.sandboxOptions);

    append(arguments, {"--chdir", "/", "--clearenv"});
    std::map<std::string, std::string> environment = launch.environment;
    environment.insert(
        {{"PATH", "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin"}, {"TZ", "UTC0"}});
    for (const auto& [name, value] : environment) {
        append(arguments, {"--setenv", name, value});
    }

    arguments.emplace_back("--");
    if (!launch.limits.empty()) {
        arguments.emplace_back("prlimit");
        append(arguments, launch.limits);
        arguments.emplace_back("--");
    }
    append(arguments, launch.runner);
    append(arguments, launch.command);
    const std::string name =
        launch.name.empty() ? fs::path(launch.command.front()).filename().string() : launch.name;
    return std::make_unique<Process>(arguments, name, launch.streams);
}

}  // namespace testbed
