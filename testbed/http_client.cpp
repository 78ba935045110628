#include "testbed/http_client.h"

#include <curl/curl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <nlohmann/json.hpp>

#include "testbed/store_keys.h"

namespace testbed {

namespace {

struct FreeList {
    void operator()(curl_slist* list) const noexcept { curl_slist_free_all(list); }
};
using ListPtr = std::unique_ptr<curl_slist, FreeList>;

CurlPtr newHandle() {
    static const CURLcode initialized = curl_global_init(CURL_GLOBAL_DEFAULT);
    CurlPtr handle(initialized == CURLE_OK ? curl_easy_init() : nullptr);
    if (!handle) {
        throw Failure("No HTTP client.");
    }
    return handle;
}

long millisecondsUntil(Deadline end) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    return std::max<long>(static_cast<long>(left.count()), 1);
}

// The lowest and the highest one.
long versions(TlsVersion version) {
    switch (version) {
        case TlsVersion::tls11:
            return CURL_SSLVERSION_TLSv1_1 | long{CURL_SSLVERSION_MAX_TLSv1_1};
        case TlsVersion::tls12:
            return CURL_SSLVERSION_TLSv1_2 | long{CURL_SSLVERSION_MAX_TLSv1_2};
        case TlsVersion::tls13:
            return CURL_SSLVERSION_TLSv1_3 | long{CURL_SSLVERSION_MAX_TLSv1_3};
        default:
            return CURL_SSLVERSION_DEFAULT;
    }
}

void perform(CURL* handle, const std::string& what) {
    const CURLcode result = curl_easy_perform(handle);
    if (result != CURLE_OK) {
        throw Failure(what + ": " + curl_easy_strerror(result) + ".");
    }
}

void add(ListPtr& list, const std::string& line) {
    // The list owns its old head already when another line is appended.
    curl_slist* longer = curl_slist_append(list.get(), line.c_str());
    static_cast<void>(list.release());
    list.reset(longer);
}

std::string lowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char character) {
        return static_cast<char>(std::tolower(character));
    });
    return text;
}

bool namesType(const std::string& header) {
    return lowerCase(header).rfind("content-type:", 0) == 0;
}

std::size_t takeHeader(const char* text, std::size_t size, std::size_t count, void* target) {
    HttpResponse& response = *static_cast<HttpResponse*>(target);
    const std::string line(text, size * count);
    const std::size_t colon = line.find(':');
    if (line.rfind("HTTP/", 0) == 0) {
        // An interim answer may have come before.
        response.headers.clear();
    } else if (colon != std::string::npos) {
        const std::size_t begin = std::min(line.find_first_not_of(' ', colon + 1), line.size());
        const std::size_t end = std::max(line.find_last_not_of("\r\n ") + 1, begin);
        response.headers.emplace(lowerCase(line.substr(0, colon)), line.substr(begin, end - begin));
    }
    return size * count;
}

std::size_t takeBody(const char* text, std::size_t size, std::size_t count, void* target) {
    static_cast<HttpResponse*>(target)->body.append(text, size * count);
    return size * count;
}

}  // namespace

void CloseCurl::operator()(void* handle) const noexcept {
    curl_easy_cleanup(handle);
}

std::string HttpResponse::header(const std::string& name) const {
    const auto found = headers.find(name);
    return found == headers.end() ? "" : found->second;
}

nlohmann::json HttpResponse::json() const {
    nlohmann::json value = nlohmann::json::parse(body, nullptr, false);
    if (value.is_discarded()) {
        throw Failure("The answer is not JSON: " + body);
    }
    return value;
}

bool TlsConnection::send(const std::string& bytes) {
    const Deadline end = deadlineFromNow();
    for (std::size_t sent = 0; sent < bytes.size();) {
        std::size_t count = 0;
        const CURLcode result =
            curl_easy_send(curl.get(), bytes.data() + sent, bytes.size() - sent, &count);
        if (result == CURLE_AGAIN) {
            waitForSocket(POLLOUT, end);
        } else if (result != CURLE_OK) {
            return false;
        }
        sent += count;
    }
    return true;
}

void TlsConnection::holdBack() {
    curl_socket_t socket = CURL_SOCKET_BAD;
    curl_easy_getinfo(curl.get(), CURLINFO_ACTIVESOCKET, &socket);
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_CORK, &on, sizeof on);
}

std::string TlsConnection::receiveUntil(const std::string& mark) {
    const Deadline end = deadlineFromNow();
    std::size_t at = 0;
    while ((at = pending.find(mark)) == std::string::npos) {
        if (!receiveMore(end)) {
            return std::exchange(pending, {});
        }
    }
    std::string received = pending.substr(0, at + mark.size());
    pending.erase(0, received.size());
    return received;
}

std::string TlsConnection::receiveAll() {
    const Deadline end = deadlineFromNow();
    while (receiveMore(end)) {
    }
    return std::exchange(pending, {});
}

bool TlsConnection::receiveMore(Deadline end) {
    for (;;) {
        std::array<char, 16384> chunk{};
        std::size_t count = 0;
        const CURLcode result = curl_easy_recv(curl.get(), chunk.data(), chunk.size(), &count);
        if (result != CURLE_AGAIN) {
            pending.append(chunk.data(), count);
            return result == CURLE_OK && count > 0;
        }
        waitForSocket(POLLIN, end);
    }
}

void TlsConnection::waitForSocket(short events, Deadline end) {
    curl_socket_t socket = CURL_SOCKET_BAD;
    curl_easy_getinfo(curl.get(), CURLINFO_ACTIVESOCKET, &socket);
    pollfd waiting{socket, events, 0};
    if (poll(&waiting, 1, static_cast<int>(millisecondsUntil(end))) == 0) {
        throw Failure("Timed out on a connection to the web front end.");
    }
}

HttpClient::HttpClient(HttpOptions options) : settings(std::move(options)), curl(newHandle()) {}

HttpResponse HttpClient::request(const HttpRequest& request) {
    CURL* handle = curl.get();
    curl_easy_reset(handle);  // keeps the connection
    prepare(handle);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, millisecondsUntil(deadlineFromNow()));
    curl_easy_setopt(handle, CURLOPT_REQUEST_TARGET, request.path.c_str());
    if (request.method == "HEAD") {
        curl_easy_setopt(handle, CURLOPT_NOBODY, 1L);
    }

    ListPtr headers;
    for (const std::string& header : request.headers) {
        add(headers, header);
    }
    if (!sessionToken.empty()) {
        add(headers, "X-Auth-Token: " + sessionToken);
    }
    if (!basicUser.empty()) {
        curl_easy_setopt(handle, CURLOPT_HTTPAUTH, CURLAUTH_BASIC);
        curl_easy_setopt(handle, CURLOPT_USERNAME, basicUser.c_str());
        curl_easy_setopt(handle, CURLOPT_PASSWORD, basicPassword.c_str());
    }
    if (request.body) {
        if (std::none_of(request.headers.begin(), request.headers.end(), namesType)) {
            add(headers, "Content-Type: application/json");
        }
        curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(request.body->size()));
        curl_easy_setopt(handle, CURLOPT_POSTFIELDS, request.body->data());
    }
    curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());

    HttpResponse response;
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &takeHeader);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, &response);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &takeBody);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &response);
    perform(handle, request.method + " " + request.path);
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &response.status);
    return response;
}

HttpResponse HttpClient::remove(const std::string& path) {
    return request({.method = "DELETE", .path = path});
}

HttpResponse HttpClient::post(const std::string& path, const std::string& json) {
    return request({.method = "POST", .path = path, .body = json});
}

HttpResponse HttpClient::patch(const std::string& path, const std::string& json) {
    return request({.method = "PATCH", .path = path, .body = json});
}

HttpResponse HttpClient::login(const std::string& user, const std::string& password) {
    const nlohmann::json credentials{{"UserName", user}, {"Password", password}};
    HttpResponse response = post(sessionsUri, credentials.dump());
    if (!response.token().empty()) {
        useToken(response.token());
    }
    return response;
}

void HttpClient::useBasic(std::string user, std::string password) {
    basicUser = std::move(user);
    basicPassword = std::move(password);
}

TlsConnection HttpClient::connect() const {
    CurlPtr handle = newHandle();
    prepare(handle.get());
    curl_easy_setopt(handle.get(), CURLOPT_CONNECT_ONLY, 1L);
    perform(handle.get(), "Connecting to " + settings.url);
    return TlsConnection(std::move(handle));
}

void HttpClient::prepare(CURL* handle) const {
    curl_easy_setopt(handle, CURLOPT_URL, settings.url.c_str());
    curl_easy_setopt(handle, CURLOPT_CAINFO, settings.certificatePath.c_str());
    // The machine's own settings must not lead elsewhere.
    curl_easy_setopt(handle, CURLOPT_PROXY, "");
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, millisecondsUntil(deadlineFromNow()));
    if (!settings.sourceAddress.empty()) {
        curl_easy_setopt(handle, CURLOPT_INTERFACE, settings.sourceAddress.c_str());
    }
    curl_easy_setopt(handle, CURLOPT_SSLVERSION, versions(settings.tls));
    if (settings.tls == TlsVersion::tls11) {
        // OpenSSL's default level would not even offer it.
        curl_easy_setopt(handle, CURLOPT_SSL_CIPHER_LIST, "DEFAULT@SECLEVEL=0");
    }
}

}  // namespace testbed
