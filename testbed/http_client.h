// An HTTPS client for tests: well-behaved requests, and a TLS connection for any bytes.
//
// Everything blocks until the server has answered, and throws Failure when there is no
// answer, the server's certificate is not the expected one, or the wait times out.
#pragma once

#include <map>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "testbed/wait.h"

namespace testbed {

enum class TlsVersion { any, tls11, tls12, tls13 };

struct HttpOptions {
    std::string url{};              // scheme, address and port: where all paths lead
    std::string certificatePath{};  // what verifies the server
    std::string sourceAddress{};    // empty: the kernel chooses
    TlsVersion tls = TlsVersion::any;
};

struct HttpRequest {
    std::string method = "GET";
    std::string path{};  // sent as it is, a query included
    // Whole lines, "Name: value"; "Name:" removes a header that is sent otherwise.
    std::vector<std::string> headers{};
    // JSON unless a header gives another type.
    std::optional<std::string> body{};
};

struct HttpResponse {
    long status = 0;
    std::multimap<std::string, std::string> headers;  // by their names in lower case
    std::string body;

    // A header's first value; empty when it is not there. The name in lower case.
    std::string header(const std::string& name) const;
    std::string location() const { return header("location"); }
    std::string token() const { return header("x-auth-token"); }
    // The body; throws Failure when it is not JSON.
    nlohmann::json json() const;
};

struct CloseCurl {
    void operator()(void* handle) const noexcept;
};
using CurlPtr = std::unique_ptr<void, CloseCurl>;

// A TLS connection that carries what the test writes.
class TlsConnection {
  public:
    // Returns whether the server took all of it; it may have closed before.
    bool send(const std::string& bytes);
    // What is sent from now on leaves together with the end of the connection: the server sees both
    // at once.
    void holdBack();
    // All bytes up to and including `mark`, or up to the end when the server closes before.
    std::string receiveUntil(const std::string& mark);
    // All that comes until the server closes, in order or by a reset.
    std::string receiveAll();

  private:
    friend class HttpClient;
    explicit TlsConnection(CurlPtr handle) : curl(std::move(handle)) {}

    // Adds what comes next to what is pending; false when the server has closed.
    bool receiveMore(Deadline end);
    void waitForSocket(short events, Deadline end);

    CurlPtr curl;
    std::string pending;  // has come but was not asked for yet
};

// Keeps its connection open between requests. To be used by one thread at a time.
class HttpClient {
  public:
    explicit HttpClient(HttpOptions options);

    HttpResponse request(const HttpRequest& request);
    HttpResponse get(const std::string& path) { return request({.path = path}); }
    HttpResponse remove(const std::string& path);
    HttpResponse post(const std::string& path, const std::string& json);
    HttpResponse patch(const std::string& path, const std::string& json);

    // Posts to the collection of sessions. The token of the response is sent with all requests
    // from then on.
    HttpResponse login(const std::string& user, const std::string& password);
    // The token of all requests from now on; empty: none.
    void useToken(std::string token) { sessionToken = std::move(token); }
    void useBasic(std::string user, std::string password);

    // A fresh connection, to be used beside this one.
    TlsConnection connect() const;

  private:
    // Sets what requests and plain connections have in common.
    void prepare(void* handle) const;

    HttpOptions settings;
    std::string sessionToken;
    std::string basicUser;
    std::string basicPassword;
    CurlPtr curl;
};

}  // namespace testbed
