#include "auth/privileges.h"

#include <gtest/gtest.h>

#include "support/captured_output.h"
#include "support/scripted_store.h"

namespace session_service {
namespace {

using Masks = std::vector<std::int32_t>;

struct ListCase {
    std::string text;
    Masks masks;
    std::string log;
};

const std::string notANumber = "[Error]: Privilege value type error stoi\n";
const std::string tooLarge = "[Error]: Privilege value out of range stoi\n";

TEST(PrivilegeList, HasAMaskForEveryPieceBetweenCommas) {
    const std::vector<ListCase> cases = {
        {"511", {511}, ""},
        {"1,2,3", {1, 2, 3}, ""},
        {" 7, +8,-9", {7, 8, -9}, ""},
        {"12abc,5 6", {12, 5}, ""},
        {"0x10,010", {0, 10}, ""},
        {"2147483647,-2147483648", {2147483647, -2147483647 - 1}, ""},
        {"7,x,9", {7, 7, 9}, notANumber},
        {"x,5", {0, 5}, notANumber},
        {"5,x,y,6,z", {5, 5, 5, 6, 6}, notANumber + notANumber + notANumber},
        {"1,", {1, 1}, notANumber},
        {",1", {0, 1}, notANumber},
        {"", {0}, notANumber},
        {",", {0, 0}, notANumber + notANumber},
        {"-", {0}, notANumber},
        {"2147483648", {0}, tooLarge},
        {"3,99999999999999999999,4", {3, 3, 4}, tooLarge},
        {"-2147483649,%s", {0, 0}, tooLarge + notANumber},
    };
    for (const ListCase& listCase : cases) {
        Masks masks;
        EXPECT_EQ(standardErrorOf([&] { masks = parsePrivilegeList(listCase.text); }), listCase.log)
            << listCase.text;
        EXPECT_EQ(masks, listCase.masks) << listCase.text;
    }
}

TEST(UserPrivilege, IsANumberAtTheStartOfTheText) {
    for (const auto& [text, value] : std::map<std::string, std::int32_t>{
             {"511", 511}, {" 9", 9}, {"-1", -1}, {"121 and more", 121}, {"0", 0}}) {
        EXPECT_EQ(parseUserPrivilege(text), value) << text;
    }
}

TEST(UserPrivilege, IsZeroAndLoggedWhenItIsNone) {
    for (const auto& [text, log] : std::map<std::string, std::string>{
             {"", "[Error]: Privilege value type error: stoi\n"},
             {"abc", "[Error]: Privilege value type error: stoi\n"},
             {"2147483648", "[Error]: Privilege value out of range: stoi\n"}}) {
        std::int32_t value = 99;
        EXPECT_EQ(standardErrorOf([&, &given = text] { value = parseUserPrivilege(given); }), log);
        EXPECT_EQ(value, 0) << text;
    }
}

TEST(RequiredPrivilege, IsHadByEveryoneWhenNoneIsAskedFor) {
    EXPECT_TRUE(hasRequiredPrivilege(0, {}));
}

TEST(RequiredPrivilege, IsOneMaskThatLiesWithinTheUsers) {
    constexpr std::int32_t operatorValue = 121;
    EXPECT_TRUE(hasRequiredPrivilege(operatorValue, {1}));
    EXPECT_TRUE(hasRequiredPrivilege(operatorValue, {9}));
    EXPECT_TRUE(hasRequiredPrivilege(operatorValue, {121}));
    EXPECT_FALSE(hasRequiredPrivilege(operatorValue, {2}));
    EXPECT_FALSE(hasRequiredPrivilege(operatorValue, {3})) << "one of two bits is not enough";
    EXPECT_TRUE(hasRequiredPrivilege(operatorValue, {2, 4, 8})) << "one mask of several is";
    EXPECT_FALSE(hasRequiredPrivilege(operatorValue, {2, 4, 511}));
    EXPECT_TRUE(hasRequiredPrivilege(0, {0}));
    EXPECT_FALSE(hasRequiredPrivilege(0, {1}));
    EXPECT_TRUE(hasRequiredPrivilege(-1, {511}));
    EXPECT_FALSE(hasRequiredPrivilege(511, {-1}));
}

std::string page(const std::string& cursor, const std::vector<std::string>& keys) {
    return resp::array({resp::bulk(cursor), resp::bulkArray(keys)});
}

Command scanFrom(const std::string& cursor) {
    return {"SCAN", cursor, "MATCH", "/redfish/v1/AccountService/Accounts/*", "COUNT", "1000"};
}

TEST(AccountOfAUser, IsTheFirstWhoseOwnerIsThatUser) {
    const ScriptedStore peer({page("0", {"a/1", "a/2", "a/3"}), resp::bulk("admin2"),
                              resp::bulk("admin"), resp::bulk("admin")});
    EXPECT_EQ(findAccountByOwner(peer.connection(), "admin"), "a/2");
    EXPECT_EQ(
        peer.commands(),
        (Commands{scanFrom("0"), {"HGET", "a/1", "&&OwnerName"}, {"HGET", "a/2", "&&OwnerName"}}));
}

TEST(AccountOfAUser, IsLookedForOnEveryPage) {
    const ScriptedStore peer({page("17", {"a/1"}), resp::bulk("other"), page("42", {}),
                              page("0", {"a/2"}), resp::bulk("admin")});
    EXPECT_EQ(findAccountByOwner(peer.connection(), "admin"), "a/2");
    EXPECT_EQ(peer.commands(), (Commands{scanFrom("0"),
                                         {"HGET", "a/1", "&&OwnerName"},
                                         scanFrom("17"),
                                         scanFrom("42"),
                                         {"HGET", "a/2", "&&OwnerName"}}));
}

TEST(AccountOfAUser, NeedsTheWholeName) {
    const ScriptedStore peer({page("0", {"a/1", "a/2", "a/3", "a/4", "a/5"}), resp::bulk("admin"),
                              resp::bulk("ad"), resp::bulk("ADM"), resp::nil(),
                              resp::error("WRONGTYPE")});
    EXPECT_EQ(findAccountByOwner(peer.connection(), "adm"), "");
    EXPECT_EQ(peer.commands().size(), 6U);
}

TEST(AccountOfAUser, WithoutANameIsTheOneWhoseOwnerIsEmptyNotOneWithoutAnOwner) {
    const ScriptedStore peer({page("0", {"a/1", "a/2", "a/3"}), resp::nil(),
                              resp::error("WRONGTYPE x"), resp::bulk("")});
    EXPECT_EQ(findAccountByOwner(peer.connection(), ""), "a/3");
}

TEST(AccountOfAUser, IsNoneWithoutAccounts) {
    const ScriptedStore peer({page("0", {})});
    EXPECT_EQ(findAccountByOwner(peer.connection(), "admin"), "");
    EXPECT_EQ(peer.commands(), (Commands{scanFrom("0")}));
}

TEST(AccountOfAUser, IsNoneWhenTheScanFails) {
    for (const std::string& reply : {resp::error("ERR refused"), resp::nil(), resp::array({})}) {
        const ScriptedStore peer({reply});
        EXPECT_EQ(
            standardErrorOf([&] { EXPECT_EQ(findAccountByOwner(peer.connection(), "a"), ""); }),
            "");
        EXPECT_EQ(peer.commands().size(), 1U);
    }
    const ScriptedStore lost;
    EXPECT_EQ(findAccountByOwner(lost.connection(), "admin"), "");
}

}  // namespace
}  // namespace session_service
