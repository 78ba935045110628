#include "testbed/web_front_end.h"

#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <utility>

namespace testbed {

namespace {

namespace fs = std::filesystem;

constexpr const char* nginxProgram = "/usr/sbin/nginx";
constexpr const char* pidFile = "/run/session-service-frontend/nginx.pid";
constexpr const char* listenFile = "/usr/local/etc/nginx/listen.conf";
constexpr const char* plainListenFile = "/usr/local/etc/nginx/listen-http.conf";
constexpr const char* certificateFile = "/usr/local/etc/nginx/certificate.pem";
constexpr const char* certificateKeyFile = "/usr/local/etc/nginx/certificate.key";
constexpr const char* certificateRequestFile = "/tmp/certificate.conf";
constexpr int webUser = 33;  // www-data, in /etc/passwd

// 127.1.0.1 and above, another one for each process number up to the kernel's highest.
std::string addressOfThisProcess() {
    constexpr pid_t hosts = 254;  // without the network's and the broadcast address
    constexpr pid_t networks = 256;
    const pid_t number = getpid();
    return "127." + std::to_string(1 + number / hosts / networks) + "." +
           std::to_string(number / hosts % networks) + "." + std::to_string(1 + number % hosts);
}

}  // namespace

WebFrontEnd::WebFrontEnd(Controller& host)
    : controller(host), listenAddress(addressOfThisProcess()) {
    for (const char* folder :
         {"/var/log/session-service-frontend", "/run/session-service-frontend"}) {
        fs::create_directories(controller.path(folder));
    }
    install();
}

void WebFrontEnd::install() {
    controller.install(TESTBED_WEB_FILES "/nginx.conf", webConfigurationFile);
    controller.install(TESTBED_WEB_FILES "/limits.conf", webLimitsFile);
    controller.install(TESTBED_WEB_FILES "/settings.lua", webSettingsFile);
    controller.install(TESTBED_WEB_FILES "/metadata.xml", "/usr/local/share/nginx/metadata.xml");
    for (const std::string folder : {"/lua", "/page"}) {
        fs::copy(TESTBED_WEB_FILES + folder, controller.path("/usr/local/share/nginx" + folder),
                 fs::copy_options::recursive | fs::copy_options::overwrite_existing);
    }
    controller.writeFile(listenFile, "listen " + listenAddress + ":8443 ssl;\nserver_name _;\n");
    controller.writeFile(plainListenFile,
                         "listen " + listenAddress + ":8080;\nset $https_port :8443;\n");
    makeCertificate();
}

void WebFrontEnd::makeCertificate() {
    controller.writeFile(certificateRequestFile,
                         "[req]\nprompt = no\ndistinguished_name = name\nx509_extensions = usage\n"
                         "[name]\nCN = testbed\n"
                         "[usage]\nsubjectAltName = DNS:localhost, IP:" +
                             listenAddress + "\n");
    const auto openssl = controller.startProgram(
        {.command = {"/usr/bin/openssl", "req", "-x509", "-config", certificateRequestFile, "-days",
                     "365", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-noenc",
                     "-keyout", certificateKeyFile, "-out", certificateFile}});
    if (openssl->wait() != ExitStatus{}) {
        throw Failure("No certificate: " + controller.errorsOf("openssl"));
    }
}

void WebFrontEnd::start() {
    // Written when all sockets listen; a kill leaves it behind.
    controller.removeFile(pidFile);
    auto started = controller.startProgram({.command = {nginxProgram, "-c", webConfigurationFile},
                                            .user = webUser,
                                            .machineNetwork = true});
    waitUntil("the web front end accepts connections", [&] {
        if (const auto ended = started->exitStatus()) {
            throw Failure("The web front end ended with " + toText(*ended) + ": " +
                          controller.errorsOf("nginx") + errorLog());
        }
        // Until it turns to its workers the server forgets a signal that asks it to end.
        return !controller.readFile(pidFile).empty() && !childrenOf(started->pid()).empty();
    });
    nginx = std::move(started);
}

ExitStatus WebFrontEnd::stop() {
    if (!process().exitStatus()) {
        process().signal(SIGTERM);
    }
    const ExitStatus status = process().wait();
    nginx.reset();
    return status;
}

void WebFrontEnd::restart() {
    stop();
    start();
}

Process& WebFrontEnd::process() {
    if (!nginx) {
        throw Failure("The web front end has not been started.");
    }
    return *nginx;
}

std::string WebFrontEnd::certificatePath() const {
    return controller.path(certificateFile);
}

}  // namespace testbed
