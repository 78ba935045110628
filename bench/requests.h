// Requests that are asked again and again under the same names, of the daemon or of the floor
// under it.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/floor.h"
#include "testbed/controller.h"

namespace testbed {

enum class Server { daemon, floor };
enum class Kind { login, logout, change };

// Lets everybody in at once, with every privilege; `more` is added to the arguments of the PAM
// module. To be called before anything else.
void letEverybodyIn(Controller& controller, const std::string& more = {});

class Exchanges {
  public:
    // Everything runs. The user of the logins.
    Exchanges(Controller& controller, const std::string& user);

    // Notes what the daemon sends for requests of these kinds, a login before its logout, and has
    // floors send the same.
    void recordFloors(const std::vector<Kind>& kinds);
    // How many commands a request sends, its own AUTH and its last PUBLISH included.
    std::size_t commandsOf(Kind kind) const { return recordings_.at(kind).size(); }

    // Asks and waits for the answer. A logout is that of the last login. Returns the seconds
    // from the announcement to the arrival of the answer.
    double ask(Kind kind, Server server);

  private:
    struct Exchange {
        Request request;
        std::unique_ptr<Floor> floor{};
    };

    void prepare(Kind kind);
    Recording recordingOf(Kind kind);
    Request& requestOf(Kind kind) { return exchanges_.at(kind).request; }

    Controller& controller_;
    StoreClient store_;
    FrontEnd frontEnd_;
    std::map<Kind, Exchange> exchanges_;
    std::map<Kind, Recording> recordings_;
    int timeout_ = 300;
};

}  // namespace testbed
