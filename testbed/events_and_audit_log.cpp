#include "testbed/events_and_audit_log.h"

#include "testbed/store_keys.h"

namespace testbed {

std::vector<Words> lifeCycleEvents(StoreClient& store) {
    std::vector<Words> events;
    for (const Value& entry : store.run({"XRANGE", eventStream, "-", "+"}).elements) {
        // The items stand after their names.
        Words event;
        for (std::size_t i = 1; i < entry.elements.at(1).elements.size(); i += 2) {
            event.push_back(entry.elements[1].elements[i].text);
        }
        events.push_back(event);
    }
    return events;
}

std::vector<Words> auditEntries(StoreClient& store) {
    const std::string prefix = "&&ObjectRef ";
    std::vector<Words> entries;
    for (const std::string& member : store.lrange(auditMembersKey)) {
        const std::string entry = member.substr(prefix.size());
        entries.insert(entries.begin(),
                       {store.hget(entry, "MessageId"), store.hget(entry, "MessageArgs"),
                        store.hget(entry, "Links")});
    }
    return entries;
}

}  // namespace testbed
