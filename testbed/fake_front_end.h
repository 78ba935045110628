// A fake of the web front end, at the level of the store: it stores requests, publishes
// their notices, waits for the replies and reads them. It also inserts sessions straight into
// the store, without a login.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "testbed/store_client.h"
#include "testbed/store_keys.h"

namespace testbed {

// A Redfish message of a reply, as stored: the arguments keep their quotes.
struct Message {
    std::string id;
    Words arguments;

    bool operator==(const Message&) const = default;
};

// A reply of the service.
struct Reply {
    std::string published;          // the text on the return channel
    Fields fields;                  // the reply hash
    std::vector<Message> messages;  // in the order of the list: newest first

    // A field's text; empty when the field is missing.
    std::string operator[](const std::string& field) const;
    std::string status() const { return (*this)["&&ReturnStatus"]; }
    std::string location() const { return (*this)["&&Location"]; }
    std::string token() const { return (*this)["&&X-Auth-Token"]; }
};

// Changes to what the front end writes otherwise. An empty key or channel: a fresh one.
struct RequestOptions {
    std::string requestKey{};
    std::string replyKey{};
    std::string returnChannel{};
    Fields fields{};   // of the request record: replaced or added
    Words leaveOut{};  // fields of the request record that are not written
    Fields body{};     // of the request body: replaced or added, raw
    Words leaveOutOfBody{};
    bool checklist = true;  // PATCH: keep the list of properties that await a handler
};

// A request that is stored, with its return channel subscribed. send() publishes its notice;
// nothing else reaches the store before the reply has arrived.
class Request {
  public:
    // Publishes the notice; returns the number of receivers.
    long long send();
    // The same with another text as the notice.
    long long send(const std::string& notice);
    // Blocks until the reply has been published, and reads it. Throws Failure when none comes,
    // at once when the service has ended.
    Reply reply();
    // The same without reading the reply: just what was published.
    std::string published();
    // What was published so far; none when nothing was. Does not block.
    std::optional<std::string> publishedAlready();

    const std::string& requestKey() const { return names.requestKey; }
    const std::string& replyKey() const { return names.replyKey; }
    const std::string& returnChannel() const { return names.returnChannel; }
    const std::string& bodyKey() const { return names.bodyKey; }

  private:
    friend class FakeFrontEnd;
    Request(StoreClient connection, StoreClient subscribed, std::function<bool()> isServed);

    // What the request goes by in the store.
    struct Names {
        std::string channel;
        std::string requestKey;
        std::string replyKey;
        std::string returnChannel;
        std::string bodyKey;
    };

    StoreClient store;
    StoreClient subscription;
    std::function<bool()> serviceRuns;
    Names names;
};

// The four entries of a session in the store, as the service itself would write them.
struct SessionOptions {
    std::string identifier{};  // empty: a fresh one
    std::string token{};       // empty: a fresh one
    std::string userName = "admin";
    std::string privilege = "511";
    std::string timeout = "300";
    std::string lastAccessed{};  // empty: now
    std::string sessionType = "\"Redfish\"";
    bool member = true;  // an entry in the collection
    Fields session{};    // of the session resource: replaced or added
    Words leaveOutOfSession{};
    Words leaveOutOfToken{};
    bool tokenReference = true;
};

struct InsertedSession {
    std::string identifier;
    std::string uri;
    std::string token;
};

// To be used by one thread at a time; each thread takes its own from the controller.
class FakeFrontEnd {
  public:
    // `isServed` tells whether the service runs, so that no reply of one that has ended is
    // waited for.
    FakeFrontEnd(std::string socket, std::string password, std::string keyFile,
                 std::function<bool()> isServed);

    // Whole requests, from storing them to reading the reply. Throw Failure when nobody
    // listens on the channel or no reply comes.
    Reply login(const std::string& user, const std::string& password,
                const RequestOptions& options = {});
    Reply remove(const std::string& sessionUri, const RequestOptions& options = {});
    // The values are JSON text and are stored as they are.
    Reply patch(const Fields& properties, const RequestOptions& options = {});

    // The same, up to publishing the notice.
    Request prepareLogin(const std::string& user, const std::string& password,
                         const RequestOptions& options = {});
    Request prepareRemove(const std::string& sessionUri, const RequestOptions& options = {});
    Request preparePatch(const Fields& properties, const RequestOptions& options = {});

    // The password as it is sent: encrypted, in hexadecimal digits, JSON-quoted.
    std::string encryptPassword(const std::string& password) const;

    InsertedSession insertSession(const SessionOptions& options = {});

  private:
    Request prepare(const std::string& channel, Fields record, Fields body,
                    const RequestOptions& options);
    StoreClient connect() const;

    std::string socketPath;
    std::string storePassword;
    std::string keyPath;
    std::function<bool()> serviceRuns;
    StoreClient store;
};

// The text as a JSON string literal, quotes and backslashes escaped.
std::string jsonQuoted(const std::string& text);
// Seconds since the machine started: the clock of LastAccessed.
long uptime();

}  // namespace testbed
