#include "testbed/web_front_end.h"

#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <utility>

namespace testbed {

namespace {

namespace fs = std::filesystem;

constexpr char nginx[] = "/usr/sbin/nginx";
constexpr char pidFile[] = "/run/nginx/nginx.pid";
constexpr char listenFile[] = "/usr/local/etc/nginx/listen.conf";
constexpr char plainListenFile[] = "/usr/local/etc/nginx/listen-http.conf";
constexpr char certificateFile[] = "/usr/local/etc/nginx/certificate.pem";
constexpr char certificateKeyFile[] = "/usr/local/etc/nginx/certificate.key";
constexpr char certificateRequestFile[] = "/tmp/certificate.conf";
constexpr int webUser = 33;  // www-data, in /etc/passwd

// 127.1.0.1 and above, another one for each process number up to the kernel's highest.
std::string ownAddress() {
    constexpr pid_t hosts = 254;  // without the network's and the broadcast address
    constexpr pid_t networks = 256;
    const pid_t number = getpid();
    return "127." + std::to_string(1 + number / hosts / networks) + "." +
           std::to_string(number / hosts % networks) + "." + std::to_string(1 + number % hosts);
}

}  // namespace

WebFrontEnd::WebFrontEnd(Controller& controller) : controller_(controller), address_(ownAddress()) {
    for (const char* folder : {"/var/lib/nginx", "/var/log/nginx", "/run/nginx"}) {
        fs::create_directories(controller_.path(folder));
    }
    install();
}

void WebFrontEnd::install() {
    controller_.install(TESTBED_WEB_FILES "/nginx.conf", webConfigurationFile);
    controller_.install(TESTBED_WEB_FILES "/limits.conf", webLimitsFile);
    controller_.install(TESTBED_WEB_FILES "/settings.lua", webSettingsFile);
    controller_.install(TESTBED_WEB_FILES "/metadata.xml", "/usr/local/share/nginx/metadata.xml");
    fs::copy(TESTBED_WEB_FILES "/lua", controller_.path("/usr/local/share/nginx/lua"),
             fs::copy_options::recursive | fs::copy_options::overwrite_existing);
    controller_.writeFile(listenFile, "listen " + address_ + ":8443 ssl;\nserver_name _;\n");
    controller_.writeFile(plainListenFile,
                          "listen " + address_ + ":8080;\nset $https_port :8443;\n");
    makeCertificate();
}

void WebFrontEnd::makeCertificate() {
    controller_.writeFile(certificateRequestFile,
                          "[req]\nprompt = no\ndistinguished_name = name\nx509_extensions = usage\n"
                          "[name]\nCN = testbed\n"
                          "[usage]\nsubjectAltName = DNS:localhost, IP:" +
                              address_ + "\n");
    const auto openssl = controller_.startProgram(
        {.command = {"/usr/bin/openssl", "req", "-x509", "-config", certificateRequestFile,
                     "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-noenc",
                     "-keyout", certificateKeyFile, "-out", certificateFile}});
    if (openssl->wait() != Ending{}) {
        throw Failure("No certificate: " + controller_.errorsOf("openssl"));
    }
}

void WebFrontEnd::start() {
    // Written when all sockets listen; a kill leaves it behind.
    controller_.removeFile(pidFile);
    auto started = controller_.startProgram(
        {.command = {nginx, "-c", webConfigurationFile}, .user = webUser, .machineNetwork = true});
    waitUntil("the web front end accepts connections", [&] {
        if (const auto ended = started->ending()) {
            throw Failure("The web front end ended with " + toText(*ended) + ": " +
                          controller_.errorsOf("nginx") + errorLog());
        }
        // Until it turns to its workers the server forgets a signal that asks it to end.
        return !controller_.readFile(pidFile).empty() && !childrenOf(started->pid()).empty();
    });
    nginx_ = std::move(started);
}

Ending WebFrontEnd::stop() {
    if (!process().ending()) {
        process().signal(SIGTERM);
    }
    const Ending ending = process().wait();
    nginx_.reset();
    return ending;
}

void WebFrontEnd::restart() {
    stop();
    start();
}

Process& WebFrontEnd::process() {
    if (!nginx_) {
        throw Failure("The web front end has not been started.");
    }
    return *nginx_;
}

std::string WebFrontEnd::certificatePath() const {
    return controller_.path(certificateFile);
}

}  // namespace testbed
