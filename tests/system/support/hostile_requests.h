// Random requests of a hostile front end.
//
// They are generated from a seed: the same seed and the same foreign names give the same
// requests. Most are valid but for a few mutations, so that they get far. Request and body keys
// are reused, so that hashes change while they are read.
#pragma once

#include <random>
#include <string>
#include <vector>

#include "testbed/store_client.h"

namespace testbed {

struct HostileRequest {
    // Commands for the store, in order, each with its key as the second word. Some of them
    // fail because the key holds a value of another type.
    std::vector<Words> preparation;
    std::string channel;
    std::string notice;
};

// The commands that repeat it by hand, one on each line; long texts are shortened.
std::string toText(const HostileRequest& request);

// What requests name besides their own keys.
struct ForeignNames {
    Words keys;
    // Resources of sessions that no deletion may name: it would rightly delete them.
    Words sessions;
    Words passwords;  // encrypted, the administrator's first
};

class HostileRequests {
  public:
    HostileRequests(unsigned seed, ForeignNames names);

    HostileRequest next();

    // The commands that insert the sessions for requests to delete and corrupt.
    static std::vector<Words> insertVictims();

  private:
    unsigned below(unsigned end) { return static_cast<unsigned>(random() % end); }
    bool oneIn(unsigned chances) { return below(chances) == 0; }
    const std::string& pick(const Words& words);

    std::string text();
    std::string largeText();
    std::string randomBytes();
    std::string anything();
    std::string ownKey(const char* purpose);
    std::string tokenField();
    std::string replyKey();
    std::string notice(const std::string& requestKey);

    Fields body();
    Fields record();
    void mutate(Fields& fields);
    bool namesProtectedSession(const std::string& target) const;

    void writeHash(std::vector<Words>& commands, const std::string& key, Fields fields);
    void writeOtherKind(std::vector<Words>& commands, const std::string& key);
    void writeList(std::vector<Words>& commands, const std::string& key);
    void corruptService(std::vector<Words>& commands);
    HostileRequest echo();

    std::mt19937 random;
    ForeignNames foreign;
    unsigned long replyCount = 0;
};

}  // namespace testbed
