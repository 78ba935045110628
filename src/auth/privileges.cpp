#include "auth/privileges.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <stdexcept>

#include "frame/logger.h"

namespace session_service {
namespace {

// The log texts of a conversion that failed.
struct ConversionTexts {
    const char* typeError;
    const char* rangeError;
};

std::optional<std::int32_t> parsePrivilege(const std::string& text, const ConversionTexts& texts) {
    try {
        return std::stoi(text);
    } catch (const std::invalid_argument& failure) {
        logger->error("%s %s", texts.typeError, failure.what());
    } catch (const std::out_of_range& failure) {
        logger->error("%s %s", texts.rangeError, failure.what());
    } catch (const std::exception&) {
        logger->error("Privilege value error.");
    }
    return std::nullopt;
}

}  // namespace

std::vector<std::int32_t> parsePrivilegeList(const std::string& text) {
    constexpr ConversionTexts texts{"Privilege value type error", "Privilege value out of range"};
    std::vector<std::int32_t> masks;
    std::size_t start = 0;
    for (;;) {
        const std::size_t comma = text.find(',', start);
        const std::int32_t previous = masks.empty() ? 0 : masks.back();
        masks.push_back(
            parsePrivilege(text.substr(start, comma - start), texts).value_or(previous));
        if (comma == std::string::npos) {
            return masks;
        }
        start = comma + 1;
    }
}

std::int32_t parseUserPrivilege(const std::string& text) {
    constexpr ConversionTexts texts{"Privilege value type error:", "Privilege value out of range:"};
    return parsePrivilege(text, texts).value_or(0);
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
            if (store::hget(store, account, "&&OwnerName") == userName) {
                return account;
            }
        }
        cursor = page->nextCursor;
    } while (cursor != 0);
    return {};
}

}  // namespace session_service
