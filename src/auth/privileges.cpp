#include "auth/privileges.h"

#include <algorithm>
#include <optional>

#include "base/number.h"
#include "frame/logger.h"

namespace session_service {
namespace {

// The log has always had a colon after the sentence for the user's own value, and none for a
// list's.
void logPrivilegeError(NumberError error, const char* noDigits, const char* outOfRange) {
    logger->error("%s", describeNumberError(error, noDigits, outOfRange).c_str());
}

}  // namespace

std::vector<std::int32_t> parsePrivilegeList(const std::string& text) {
    std::vector<std::int32_t> masks;
    std::size_t start = 0;
    for (;;) {
        const std::size_t comma = text.find(',', start);
        const ParsedInt32 mask = parseInt32(text.substr(start, comma - start));
        if (!mask.value) {
            logPrivilegeError(mask.error, "Privilege value type error",
                              "Privilege value out of range");
        }
        const std::int32_t previous = masks.empty() ? 0 : masks.back();
        masks.push_back(mask.value.value_or(previous));
        if (comma == std::string::npos) {
            return masks;
        }
        start = comma + 1;
    }
}

std::int32_t parseUserPrivilege(const std::string& text) {
    const ParsedInt32 privilege = parseInt32(text);
    if (!privilege.value) {
        logPrivilegeError(privilege.error,
                          "Privilege value type error:", "Privilege value out of range:");
    }
    return privilege.value.value_or(0);
}

bool hasRequiredPrivilege(std::int32_t userPrivilege, const std::vector<std::int32_t>& required) {
    return required.empty() ||
           std::any_of(required.begin(), required.end(),
                       [=](std::int32_t mask) { return (mask & ~userPrivilege) == 0; });
}

std::string findAccountByOwner(redisContext* connection, const std::string& userName) {
    const std::string pattern = "/redfish/v1/AccountService/Accounts/*";
    std::int32_t cursor = 0;
    do {
        const std::optional<store::ScanPage> page = store::scan(connection, cursor, pattern);
        if (!page) {
            return {};
        }
        for (const std::string& account : page->keys) {
            // An account without an owner is nobody's, the user without a name included.
            const store::FieldReply owner = store::hgetReply(connection, account, "&&OwnerName");
            if (owner.kind == store::FieldReply::Kind::text && owner.text == userName) {
                return account;
            }
        }
        cursor = page->nextCursor;
    } while (cursor != 0);
    return {};
}

}  // namespace session_service
