#include <algorithm>

#include "sessionctl/commands.h"
#include "sessionctl/output.h"
#include "sessionctl/session_view.h"
#include "sessionctl/store_access.h"
#include "sessions/create_session.h"
#include "sessions/records.h"

namespace session_service::console {
namespace {

using nlohmann::json;

template <typename Number>
json orNull(const std::optional<Number>& number) {
    return number ? json(*number) : json();
}

json summaryOf(const SessionView& view) {
    return {{"id", view.id},
            {"user", view.hasResource ? json(view.user) : json()},
            {"client", view.hasResource ? json(view.client) : json()},
            {"idleSeconds", orNull(view.idle)},
            {"expiresInSeconds", orNull(view.expiresIn)},
            {"fault", view.fault.empty() ? json() : json(view.fault)}};
}

std::string idleText(const SessionView& view) {
    return view.idle ? formatDuration(*view.idle) : "";
}

std::string expiryText(const SessionView& view) {
    if (!view.expiresIn) {
        return "";
    }
    return *view.expiresIn > 0 ? formatDuration(*view.expiresIn) : "now";
}

// Public properties are stored as JSON, internal ones as bare text.
json resourceOf(const SessionView& view) {
    json values = json::object();
    for (const auto& [name, value] : view.resource) {
        values[name] = name.starts_with("&&") ? json(value) : jsonValue(value);
    }
    return values;
}

void appendFields(std::vector<Row>& rows, const Fields& fields) {
    for (const auto& [name, value] : fields) {
        rows.push_back({"  " + name, value});
    }
}

std::string describe(const SessionView& view, bool member) {
    std::vector<Row> rows{{"Session " + view.id},
                          {"  in the collection", member ? "yes" : "no"},
                          {"  idle for", idleText(view)},
                          {"  expires in", expiryText(view)},
                          {"  fault", view.fault}};
    rows.push_back({"Resource " + sessionUriOf(view.id)});
    appendFields(rows, view.resource);
    rows.push_back({"Token record"});
    appendFields(rows, view.tokenRecord);
    return formatTable(rows);
}

}  // namespace

int runList(const Options& options) {
    const OpenStore opened = openStore(options.timeout);
    std::vector<SessionView> views;
    for (const std::string& member : readMembers(opened.connection.get())) {
        views.push_back(readMember(opened.connection.get(), member));
    }
    if (options.json) {
        json sessions = json::array();
        std::transform(views.begin(), views.end(), std::back_inserter(sessions), summaryOf);
        return print(formatJson({{"limit", maxSessions}, {"sessions", sessions}}))
                   ? exit_status::success
                   : exit_status::failure;
    }
    std::vector<Row> rows{{"IDENTIFIER", "USER", "CLIENT", "IDLE FOR", "EXPIRES IN", "FAULT"}};
    for (const SessionView& view : views) {
        rows.push_back(
            {view.id, view.user, view.client, idleText(view), expiryText(view), view.fault});
    }
    const auto taken = std::count_if(
        views.begin(), views.end(), [](const SessionView& view) { return view.countsTowardLimit; });
    return print(formatTable(rows) + std::to_string(taken) + " of " + std::to_string(maxSessions) +
                 " places are taken.\n")
               ? exit_status::success
               : exit_status::failure;
}

int runShow(const Options& options, const std::string& id) {
    const OpenStore opened = openStore(options.timeout);
    const SessionView view = readSession(opened.connection.get(), id);
    const std::vector<std::string> members = readMembers(opened.connection.get());
    const bool member = std::find(members.begin(), members.end(), memberFor(id)) != members.end();
    if (!view.hasResource && !member) {
        throw CommandError(exit_status::failure, "There is no session " + escaped(id) + ".");
    }
    if (!options.json) {
        return print(describe(view, member)) ? exit_status::success : exit_status::failure;
    }
    json document = summaryOf(view);
    document["uri"] = sessionUriOf(id);
    document["inCollection"] = member;
    document["resource"] = resourceOf(view);
    document["tokenRecord"] = view.tokenRecord;
    return print(formatJson(document)) ? exit_status::success : exit_status::failure;
}

}  // namespace session_service::console
