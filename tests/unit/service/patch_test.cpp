#include "service/patch.h"

#include <gtest/gtest.h>

#include "support/captured_output.h"
#include "support/scripted_store.h"

namespace session_service {
namespace {

using resp::bulk;
using resp::bulkArray;

// A body as the store gives it, checked against what the target holds.
struct Validation {
    BodyStatus status = BodyStatus::valid;
    bool changed = false;
    FieldMap properties;
    std::string log;
    Commands commands;
};

Validation validate(const std::vector<std::string>& replies) {
    const ScriptedStore peer(replies);
    Validation validation;
    validation.log = standardErrorOf([&] {
        validation.status = validateBody(peer.connection(), "/target", "body%s", validation.changed,
                                         validation.properties);
    });
    validation.commands = peer.commands();
    return validation;
}

const Command readBody = {"HGETALL", "body%s"};
const Command readTarget = {"HGET", "/target", "SessionTimeout"};

TEST(PatchBody, ChangesATimeoutThatDiffers) {
    const Validation validation = validate({bulkArray({"SessionTimeout", "600"}), bulk("300")});
    EXPECT_EQ(validation.status, BodyStatus::valid);
    EXPECT_TRUE(validation.changed);
    EXPECT_EQ(validation.properties, (FieldMap{{"SessionTimeout", "600"}}));
    EXPECT_EQ(validation.commands, (Commands{readBody, readTarget}));
}

TEST(PatchBody, ComparesTheTimeoutAsText) {
    EXPECT_FALSE(validate({bulkArray({"SessionTimeout", "300"}), bulk("300")}).changed);
    EXPECT_TRUE(validate({bulkArray({"SessionTimeout", "0300"}), bulk("300")}).changed);
    EXPECT_TRUE(validate({bulkArray({"SessionTimeout", "30"}), bulk("300")}).changed);
    EXPECT_TRUE(validate({bulkArray({"SessionTimeout", "300"}), resp::nil()}).changed);
}

TEST(PatchBody, KeepsATimeoutThatDoesNotDiffer) {
    EXPECT_EQ(validate({bulkArray({"SessionTimeout", "300"}), bulk("300")}).properties,
              (FieldMap{{"SessionTimeout", "300"}}));
}

TEST(PatchBody, IgnoresEveryOtherProperty) {
    for (const std::string& body :
         {bulkArray({"ServiceEnabled", "false"}), bulkArray({"SessionTimeout", ""}),
          bulkArray({"&&ObjectRef Link /a", ""})}) {
        const Validation validation = validate({body});
        EXPECT_EQ(validation.status, BodyStatus::valid);
        EXPECT_FALSE(validation.changed);
        EXPECT_TRUE(validation.properties.empty());
        EXPECT_EQ(validation.commands, (Commands{readBody}));
    }
}

TEST(PatchBody, MayBeEmpty) {
    for (const std::string& body : {resp::array({}), resp::error("WRONGTYPE")}) {
        const Validation validation = validate({body});
        EXPECT_EQ(validation.status, BodyStatus::empty);
        EXPECT_EQ(validation.log, "[Debug]: Empty request data.\n");
    }
}

TEST(PatchBody, MayBeUnreadable) {
    const Validation validation = validate({});
    EXPECT_EQ(validation.status, BodyStatus::unreadable);
    EXPECT_EQ(validation.log, "[Error]: Fail to get hash body%s values.\n");
}

}  // namespace
}  // namespace session_service
