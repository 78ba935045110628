#include "testbed/fake_front_end.h"

#include <sys/sysinfo.h>

#include <atomic>
#include <cstdio>
#include <utility>

#include "platform/data_decryption.h"

namespace testbed {

namespace {

// Requests and inserted sessions of one process never share a name.
unsigned long nextNumber() {
    static std::atomic<unsigned long> number{0};
    return ++number;
}

std::string orFresh(const std::string& chosen, const std::string& fresh) {
    return chosen.empty() ? fresh : chosen;
}

// Applies what the caller wants differently.
Fields changed(Fields fields, const Fields& replacements, const Words& leaveOut) {
    for (const auto& [field, value] : replacements) {
        fields[field] = value;
    }
    for (const std::string& field : leaveOut) {
        fields.erase(field);
    }
    return fields;
}

std::string paddedHex(unsigned long number, int digits) {
    std::string text(static_cast<std::size_t>(digits) + 1, '\0');
    std::snprintf(text.data(), text.size(), "%0*lx", digits, number);
    text.pop_back();
    return text;
}

Reply sendAndWait(Request& request, const std::string& channel) {
    if (request.send() == 0) {
        throw Failure("Nobody listens on " + channel + ".");
    }
    return request.reply();
}

}  // namespace

std::string Reply::operator[](const std::string& field) const {
    const auto found = fields.find(field);
    return found == fields.end() ? std::string() : found->second;
}

Request::Request(StoreClient connection, StoreClient subscribed, std::function<bool()> isServed)
    : store(std::move(connection)),
      subscription(std::move(subscribed)),
      serviceRuns(std::move(isServed)) {}

long long Request::send() {
    return send(names.requestKey + " " + names.replyKey);
}

long long Request::send(const std::string& notice) {
    return store.publish(names.channel, notice);
}

std::string Request::published() {
    constexpr std::chrono::milliseconds pollInterval{100};
    const Deadline end = deadlineFromNow();
    for (;;) {
        // Asked first: what a service published before its end is still read.
        const bool served = serviceRuns();
        const Deadline now = std::chrono::steady_clock::now();
        if (const std::optional<Value> message = subscription.next(now + pollInterval)) {
            return message->elements.at(2).text;
        }
        if (!served || now > end) {
            throw Failure((served ? "Timed out waiting for" : "The service ended before it gave") +
                          std::string(" a reply on ") + names.returnChannel + ".");
        }
    }
}

std::optional<std::string> Request::publishedAlready() {
    return subscription.pendingMessage();
}

Reply Request::reply() {
    Reply reply;
    reply.published = published();
    reply.fields = store.hgetall(names.replyKey);
    for (const std::string& key : store.lrange(reply["&&ExtendedInfo"])) {
        Message message{store.hget(key, "&&MessageId"), {}};
        const std::string arguments = store.hget(key, "&&MessageArgs");
        if (!arguments.empty()) {
            message.arguments = store.lrange(arguments);
        }
        reply.messages.push_back(std::move(message));
    }
    return reply;
}

FakeFrontEnd::FakeFrontEnd(std::string socket, std::string password, std::string keyFile,
                           std::function<bool()> isServed)
    : socketPath(std::move(socket)),
      storePassword(std::move(password)),
      keyPath(std::move(keyFile)),
      serviceRuns(std::move(isServed)),
      store(connect()) {}

StoreClient FakeFrontEnd::connect() const {
    return {socketPath, storePassword};
}

Reply FakeFrontEnd::login(const std::string& user, const std::string& password,
                          const RequestOptions& options) {
    Request request = prepareLogin(user, password, options);
    return sendAndWait(request, createChannel);
}

Reply FakeFrontEnd::remove(const std::string& sessionUri, const RequestOptions& options) {
    Request request = prepareRemove(sessionUri, options);
    return sendAndWait(request, deleteChannel);
}

Reply FakeFrontEnd::patch(const Fields& properties, const RequestOptions& options) {
    Request request = preparePatch(properties, options);
    return sendAndWait(request, patchChannel);
}

Request FakeFrontEnd::prepareLogin(const std::string& user, const std::string& password,
                                   const RequestOptions& options) {
    return prepare(createChannel,
                   {{"&&RequestMethod", "POST"},
                    {"&&TargetURI", sessionsUri},
                    {"&&OperationPrivileges", "1"},
                    {"&&RemoteIP", "192.0.2.10"},
                    {"&&Origin", "Redfish"}},
                   {{"UserName", jsonQuoted(user)}, {"Password", encryptPassword(password)}},
                   options);
}

Request FakeFrontEnd::prepareRemove(const std::string& sessionUri, const RequestOptions& options) {
    return prepare(deleteChannel, {{"&&RequestMethod", "DELETE"}, {"&&TargetURI", sessionUri}}, {},
                   options);
}

Request FakeFrontEnd::preparePatch(const Fields& properties, const RequestOptions& options) {
    Request request =
        prepare(patchChannel, {{"&&RequestMethod", "PATCH"}, {"&&TargetURI", serviceUri}},
                properties, options);
    if (options.checklist) {
        Fields checklist;
        for (const auto& [property, value] : properties) {
            checklist["/" + property] = value;
        }
        store.hset(request.requestKey() + "/Checklist", checklist);
    }
    return request;
}

Request FakeFrontEnd::prepare(const std::string& channel, Fields record, Fields body,
                              const RequestOptions& options) {
    Request request(connect(), connect(), serviceRuns);
    const std::string fresh = "&&/request/" + std::to_string(nextNumber());
    request.names.channel = channel;
    request.names.requestKey = orFresh(options.requestKey, fresh);
    request.names.replyKey = orFresh(options.replyKey, fresh + "/reply");
    request.names.returnChannel = orFresh(options.returnChannel, fresh + "/return");
    request.names.bodyKey = fresh + "/body";

    record["&&ReturnChannel"] = request.names.returnChannel;
    record["&&RequestData"] = request.names.bodyKey;
    store.hset(request.names.bodyKey,
               changed(std::move(body), options.body, options.leaveOutOfBody));
    store.hset(request.names.requestKey,
               changed(std::move(record), options.fields, options.leaveOut));
    request.subscription.subscribe(request.names.returnChannel);
    return request;
}

std::string FakeFrontEnd::encryptPassword(const std::string& password) const {
    return jsonQuoted(encryptToHexString(password, keyPath));
}

InsertedSession FakeFrontEnd::insertSession(const SessionOptions& options) {
    const unsigned long number = nextNumber();
    InsertedSession inserted;
    inserted.identifier = orFresh(options.identifier, paddedHex(number, 8));
    inserted.uri = std::string(sessionsUri) + "/" + inserted.identifier;
    inserted.token = orFresh(options.token, paddedHex(number, 64));

    const Fields session{
        {"@odata.context", jsonQuoted("/redfish/v1/$metadata#Session.Session")},
        {"@odata.type", jsonQuoted("#Session.v1_3_0.Session")},
        {"Id", jsonQuoted(inserted.identifier)},
        {"Name", jsonQuoted("User Session")},
        {"UserName", jsonQuoted(options.userName)},
        {"Password", "null"},
        {"@odata.id", jsonQuoted(inserted.uri)},
        {"@odata.etag", jsonQuoted("1700000000123")},
        {"&&OwnerName", options.userName},
        {"&&AllowMethod", "GET,HEAD,DELETE"},
        {"&&CRUDprefix", "&&" + std::string(sessionsUri)},
        {"SessionType", options.sessionType},
    };
    const Fields token{
        {"UserName", options.userName},
        {"Privilege", options.privilege},
        {"SessionID", inserted.uri},
        {"LastAccessed", orFresh(options.lastAccessed, std::to_string(uptime()))},
        {"Timeout", options.timeout},
    };
    store.hset(inserted.uri, changed(session, options.session, options.leaveOutOfSession));
    if (options.tokenReference) {
        store.hset(tokenReferenceKey(inserted.uri), {{"XAUTH", jsonQuoted(inserted.token)}});
    }
    store.hset(tokenKey(inserted.token), changed(token, {}, options.leaveOutOfToken));
    if (options.member) {
        // Last of all: only now the session can be seen to expire.
        store.run({"HINCRBY", sessionsUri, "Members@odata.count", "1"});
        store.run({"LPUSH", membersKey, "&&ObjectRef " + inserted.uri});
    }
    return inserted;
}

std::string jsonQuoted(const std::string& text) {
    std::string quoted = "\"";
    for (const char character : text) {
        if (character == '"' || character == '\\') {
            quoted += '\\';
        }
        quoted += character;
    }
    return quoted + '"';
}

long uptime() {
    struct sysinfo information {};
    sysinfo(&information);
    return information.uptime;
}

}  // namespace testbed
