#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>

#include "protocol/replies.h"
#include "protocol/request_channels.h"
#include "sessionctl/commands.h"
#include "sessionctl/daemon_request.h"
#include "sessionctl/output.h"
#include "sessionctl/session_view.h"
#include "sessionctl/store_access.h"
#include "sessions/records.h"

namespace session_service::console {
namespace {

using nlohmann::json;

std::vector<SessionView> readMemberViews(redisContext* connection) {
    std::vector<SessionView> views;
    for (const std::string& member : readMembers(connection)) {
        views.push_back(readMember(connection, member));
    }
    return views;
}

// The sessions of the collection that a request to delete can name.
std::vector<std::string> findSessions(redisContext* connection,
                                      const std::optional<std::string>& user) {
    std::vector<std::string> ids;
    for (const SessionView& view : readMemberViews(connection)) {
        if (view.fault != namesNoSession && (!user || (view.hasResource && view.user == *user))) {
            ids.push_back(view.id);
        }
    }
    return ids;
}

std::string sessionCount(std::size_t count) {
    return std::to_string(count) + (count == 1 ? " session" : " sessions");
}

// Asks at the terminal; nothing but "y" or "yes" is consent.
bool isConfirmed(std::size_t count) {
    std::fprintf(stderr, "Log out %s? [y/N] ", sessionCount(count).c_str());
    std::array<char, 16> answer{};
    if (!std::fgets(answer.data(), answer.size(), stdin)) {
        std::fputc('\n', stderr);
        return false;
    }
    const std::string_view text(answer.data());
    return text == "y\n" || text == "Y\n" || text == "yes\n" || text == "Yes\n";
}

struct Deletion {
    std::string id;
    std::string user;
    DaemonReply reply;

    [[nodiscard]] bool done() const { return reply.status == reply_status::okEmpty; }
};

Deletion deleteSession(const Options& options, redisContext* connection, const std::string& id) {
    const SessionView view = readSession(connection, id);
    if (!view.hasResource) {
        // A member of the list can be removed from it, even if nothing else is left.
        const std::vector<std::string> members = readMembers(connection);
        if (std::find(members.begin(), members.end(), memberFor(id)) == members.end()) {
            throw CommandError(exit_status::failure, "There is no session " + escaped(id) + ".");
        }
    }
    return {id, view.user,
            requestFromDaemon(options, connection,
                              {.noun = "deletion",
                               .pluralNoun = "deletions",
                               .method = "DELETE",
                               .channel = deleteChannel,
                               .target = sessionUriOf(id)})};
}

json toJson(const Deletion& deletion) {
    return {{"id", deletion.id},
            {"user", deletion.user},
            {"deleted", deletion.done()},
            {"status", deletion.reply.status},
            {"messages", deletion.reply.messages}};
}

// One of several deletions; what goes wrong with it does not keep the others from being tried.
class DeletionOfSeveral {
  public:
    explicit DeletionOfSeveral(const Options& given) : options(given) {}

    void tryOne(redisContext* connection, const std::string& id) {
        try {
            const Deletion deletion = deleteSession(options, connection, id);
            document.push_back(toJson(deletion));
            if (!deletion.done()) {
                complain("Session " + escaped(id) +
                         ": The daemon answers: " + describe(deletion.reply) + ".");
            } else if (!options.json && !print(sentenceOf(deletion))) {
                allWell = false;
            }
        } catch (const CommandError& error) {
            if (error.status == exit_status::storeUnavailable) {
                throw;
            }
            document.push_back({{"id", id}, {"deleted", false}, {"error", error.what()}});
            complain(error.what());
        }
    }

    // Returns the exit status.
    int conclude() {
        if (options.json) {
            allWell = print(formatJson({{"sessions", document}})) && allWell;
        }
        return allWell ? exit_status::success : exit_status::failure;
    }

    static std::string sentenceOf(const Deletion& deletion) {
        return "Session " + escaped(deletion.id) +
               (deletion.user.empty() ? "" : " of " + escaped(deletion.user)) + " is deleted.\n";
    }

  private:
    void complain(const std::string& sentence) {
        allWell = false;
        if (!options.json) {
            std::fprintf(stderr, "sessionctl: %s\n", sentence.c_str());
        }
    }

    const Options& options;
    json document = json::array();
    bool allWell = true;
};

int deleteOne(const Options& options, redisContext* connection, const std::string& id) {
    const Deletion deletion = deleteSession(options, connection, id);
    bool printed = true;
    if (options.json) {
        printed = print(formatJson(toJson(deletion)));
    } else if (deletion.done()) {
        printed = print(DeletionOfSeveral::sentenceOf(deletion));
    } else {
        throw CommandError(exit_status::failure,
                           "The daemon answers: " + describe(deletion.reply) + ".");
    }
    return deletion.done() && printed ? exit_status::success : exit_status::failure;
}

}  // namespace

int runDelete(const Options& options, const Deletions& deletions) {
    const OpenStore opened = openStore(options.timeout);
    redisContext* connection = opened.connection.get();
    if (deletions.ids.size() == 1) {
        return deleteOne(options, connection, deletions.ids.front());
    }
    std::vector<std::string> ids = deletions.ids;
    if (ids.empty()) {
        ids = findSessions(connection, deletions.user);
    }
    if (ids.empty() && deletions.user) {
        throw CommandError(exit_status::failure, escaped(*deletions.user) + " has no session.");
    }
    const bool mustAsk = deletions.all && !deletions.confirmed && !ids.empty() &&
                         isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1;
    if (mustAsk && !isConfirmed(ids.size())) {
        throw CommandError(exit_status::failure, "No session was deleted.");
    }
    if (ids.empty() && !options.json) {
        return print("There is no session.\n") ? exit_status::success : exit_status::failure;
    }
    DeletionOfSeveral several(options);
    for (const std::string& id : ids) {
        several.tryOne(connection, id);
    }
    return several.conclude();
}

}  // namespace session_service::console
