#include "sessionctl/check_front_end.h"

#include <arpa/inet.h>
#include <grp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <vector>

#include "base/file_descriptor.h"
#include "base/number.h"
#include "base/text_file.h"
#include "sessionctl/output.h"
#include "store/commands.h"

namespace session_service::console {
namespace {

constexpr const char* frontEndUser = "session-service-frontend";
constexpr const char* serviceRoot = "/redfish/v1";
constexpr const char* frontEndSubject = "web front end";

struct FreeCertificate {
    void operator()(X509* certificate) const noexcept { X509_free(certificate); }
};
using CertificatePtr = std::unique_ptr<X509, FreeCertificate>;
struct FreeContext {
    void operator()(SSL_CTX* context) const noexcept { SSL_CTX_free(context); }
};
struct FreeSession {
    void operator()(SSL* session) const noexcept { SSL_free(session); }
};

struct Account {
    uid_t user;
    std::vector<gid_t> groups;
};

std::optional<Account> findAccount() {
    const passwd* entry = getpwnam(frontEndUser);
    if (!entry) {
        return std::nullopt;
    }
    Account account{entry->pw_uid, std::vector<gid_t>(64)};
    int count = static_cast<int>(account.groups.size());
    if (getgrouplist(frontEndUser, entry->pw_gid, account.groups.data(), &count) < 0) {
        count = static_cast<int>(account.groups.size());
    }
    account.groups.resize(static_cast<std::size_t>(count));
    return account;
}

bool contains(const std::vector<gid_t>& groups, gid_t group) {
    return std::find(groups.begin(), groups.end(), group) != groups.end();
}

// Where it listens for HTTPS, as an address of this machine.
struct Address {
    in_addr host{htonl(INADDR_LOOPBACK)};
    std::uint16_t port = 443;
    std::string text = "port 443";
};

// The first line "listen [ADDRESS:]PORT ssl" of the file; nothing when there is none for IPv4.
std::optional<Address> findAddress(const std::string& path) {
    std::optional<Address> found;
    readLines(path.c_str(), [&](const std::string& line) {
        std::vector<std::string> words;
        store::appendWords(words, line);
        if (words.size() < 3 || words[0] != "listen" || words[2] != "ssl;") {
            return true;
        }
        Address address;
        const std::size_t colon = words[1].rfind(':');
        const std::string host = colon == std::string::npos ? "" : words[1].substr(0, colon);
        const auto port = parseInt32(words[1].substr(colon + 1)).value;
        if (!port || *port <= 0 || *port > UINT16_MAX ||
            (!host.empty() && inet_pton(AF_INET, host.c_str(), &address.host) != 1)) {
            return true;
        }
        if (address.host.s_addr == INADDR_ANY) {
            address.host.s_addr = htonl(INADDR_LOOPBACK);
        }
        address.port = static_cast<std::uint16_t>(*port);
        address.text = host.empty() ? "port " + words[1] : words[1];
        found = address;
        return false;
    });
    return found;
}

CertificatePtr readCertificate(const std::string& path) {
    const FilePtr file(std::fopen(path.c_str(), "re"));
    return CertificatePtr(file ? PEM_read_X509(file.get(), nullptr, nullptr, nullptr) : nullptr);
}

void checkCertificate(Report& report, const std::string& path) {
    const CertificatePtr certificate = readCertificate(path);
    if (!certificate) {
        report.fail(path, "There is no certificate that can be read.");
        return;
    }
    constexpr time_t month = time_t{30} * 24 * 3600;
    time_t soon = std::time(nullptr) + month;
    if (X509_cmp_current_time(X509_get0_notAfter(certificate.get())) < 0) {
        report.fail(path, "It has expired.");
    } else if (X509_cmp_time(X509_get0_notAfter(certificate.get()), &soon) < 0) {
        report.warn(path, "It expires within 30 days.");
    }
    if (X509_cmp_current_time(X509_get0_notBefore(certificate.get())) > 0) {
        report.warn(path, "It is not valid yet: is the clock right?");
    }
    report.conclude(path, "valid");
}

void checkCertificateKey(Report& report, const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        report.fail(path, std::strerror(errno));
    } else if ((status.st_mode & S_IRWXO) != 0) {
        report.fail(path, "others may use it: chmod 640, and make another one.");
    } else if (!frontEndCanRead(path.c_str())) {
        report.fail(path, std::string("the web front end cannot read it: chgrp ") + frontEndUser +
                              ", chmod 640.");
    }
    report.conclude(path, "for the web front end only");
}

// The first line of the answer to a request for the service root, and the certificate that came
// with it; why there is none.
struct HttpsAnswer {
    std::string line;
    std::string fault;
    CertificatePtr certificate;
};

HttpsAnswer fetch(const Address& address, std::chrono::seconds timeout) {
    HttpsAnswer answer;
    const FileDescriptor connection(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const timeval limit{.tv_sec = timeout.count(), .tv_usec = 0};
    setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(connection.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_addr = address.host;
    target.sin_port = htons(address.port);
    if (connect(connection.get(), reinterpret_cast<const sockaddr*>(&target), sizeof target) != 0) {
        answer.fault = std::strerror(errno);
        return answer;
    }
    // Its certificate is compared with the file: nobody need have signed it.
    const std::unique_ptr<SSL_CTX, FreeContext> context(SSL_CTX_new(TLS_client_method()));
    const std::unique_ptr<SSL, FreeSession> session(context ? SSL_new(context.get()) : nullptr);
    if (!session || SSL_set_fd(session.get(), connection.get()) != 1 ||
        SSL_connect(session.get()) != 1) {
        answer.fault = "no TLS";
        return answer;
    }
    answer.certificate.reset(SSL_get1_peer_certificate(session.get()));
    const std::string request = std::string("GET ") + serviceRoot +
                                " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n";
    std::array<char, 256> start{};
    if (SSL_write(session.get(), request.data(), static_cast<int>(request.size())) <= 0 ||
        SSL_read(session.get(), start.data(), start.size() - 1) <= 0) {
        answer.fault = "no answer";
        return answer;
    }
    answer.line = start.data();
    answer.line.erase(std::min(answer.line.find('\r'), answer.line.size()));
    return answer;
}

}  // namespace

bool frontEndCanRead(const char* path) {
    const std::optional<Account> account = findAccount();
    struct stat status {};
    if (!account || stat(path, &status) != 0) {
        return true;
    }
    if (status.st_uid == account->user) {
        return (status.st_mode & S_IRUSR) != 0;
    }
    if (contains(account->groups, status.st_gid)) {
        return (status.st_mode & S_IRGRP) != 0;
    }
    return (status.st_mode & S_IROTH) != 0;
}

bool isGroupOfFrontEnd(unsigned group) {
    const std::optional<Account> account = findAccount();
    return account && contains(account->groups, group);
}

void checkFrontEnd(Report& report, const char* folder, std::chrono::seconds timeout) {
    const std::string prefix = std::string(folder) + '/';
    const auto address = findAddress(prefix + "listen.conf");
    if (!address) {
        return;
    }
    const std::string certificatePath = prefix + "certificate.pem";
    checkCertificate(report, certificatePath);
    checkCertificateKey(report, prefix + "certificate.key");

    const HttpsAnswer answer = fetch(*address, timeout);
    if (!answer.fault.empty()) {
        report.fail(frontEndSubject, "Nobody answers over HTTPS on " + address->text + " (" +
                                         answer.fault +
                                         "): is it running? Its error log tells more.");
    } else if (answer.line.find(" 200 ") == std::string::npos) {
        report.fail(frontEndSubject, std::string(serviceRoot) + " is answered with \"" +
                                         escaped(answer.line) + "\".");
    } else {
        const CertificatePtr certificate = readCertificate(certificatePath);
        if (certificate && answer.certificate &&
            X509_cmp(certificate.get(), answer.certificate.get()) != 0) {
            report.warn(frontEndSubject,
                        "It has another certificate than " + certificatePath + ": start it again.");
        }
    }
    report.conclude(frontEndSubject, "answers over HTTPS on " + address->text);
}

}  // namespace session_service::console
