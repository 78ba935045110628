#include "auth/privileges.h"

#include <algorithm>
#include <optional>

#include "base/number.h"

namespace session_service {
std::vector<std::int32_t> parsePrivilegeList(const std::string& text) {
    constexpr NumberFaults faults{"Privilege value type error", "Privilege value out of range"};
    std::vector<std::int32_t> masks;
    std::size_t start = 0;
    for (;;) {
        const std::size_t comma = text.find(',', start);
        const std::int32_t previous = masks.empty() ? 0 : masks.back();
        masks.push_back(parseNumber(text.substr(start, comma - start), faults, FaultLevel::error)
                            .value_or(previous));
        if (comma == std::string::npos) {
            return masks;
        }
        start = comma + 1;
    }
}

std::int32_t parseUserPrivilege(const std::string& text) {
    constexpr NumberFaults faults{"Privilege value type error:", "Privilege value out of range:"};
    return parseNumber(text, faults, FaultLevel::error).value_or(0);
}

bool hasRequiredPrivilege(std::int32_t userPrivilege, const std::vector<std::int32_t>& required) {
    return required.empty() ||
           std::any_of(required.begin(), required.end(),
                       [=](std::int32_t mask) { return (mask & ~userPrivilege) == 0; });
}

std::string findAccountByOwner(redisContext* store, const std::string& userName) {
    const std::string pattern = "/redfish/v1/AccountService/Accounts/*";
    std::int32_t cursor = 0;
    do {
        const std::optional<store::ScanPage> page = store::scan(store, cursor, pattern);
        if (!page) {
            return {};
        }
        for (const std::string& account : page->keys) {
            // An account without an owner is nobody's, the user without a name included.
            if (store::hgetText(store, account, "&&OwnerName") == userName) {
                return account;
            }
        }
        cursor = page->nextCursor;
    } while (cursor != 0);
    return {};
}

}  // namespace session_service
