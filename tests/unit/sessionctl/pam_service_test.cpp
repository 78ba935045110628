#include "sessionctl/pam_service.h"

#include <gtest/gtest.h>

namespace session_service::console {
namespace {

using Rules = std::vector<PamRule>;

TEST(PamRules, AreTypeControlAndModule) {
    EXPECT_EQ(parsePamRules({"auth required pam_unix.so nullok", "\tACCOUNT\tSufficient  /a/b.so"}),
              (Rules{{"auth", "required", "pam_unix.so"}, {"account", "sufficient", "/a/b.so"}}));
}

TEST(PamRules, MayHaveAControlWithBlanks) {
    EXPECT_EQ(parsePamRules({"auth [success=1 default=ignore] pam_unix.so"}),
              (Rules{{"auth", "[success=1 default=ignore]", "pam_unix.so"}}));
}

TEST(PamRules, MayGoOnInTheNextLine) {
    EXPECT_EQ(parsePamRules({"auth \\", "required \\", "pam_unix.so", "account required x.so\\"}),
              (Rules{{"auth", "required", "pam_unix.so"}, {"account", "required", "x.so"}}));
}

TEST(PamRules, MayBeForModulesThatNobodyMisses) {
    EXPECT_EQ(parsePamRules({"-auth optional x.so"}), (Rules{{"auth", "optional", "x.so", true}}));
}

TEST(PamRules, MayIncludeAFile) {
    EXPECT_EQ(parsePamRules({"@include common", "auth include other"}),
              (Rules{{"", "include", "common"}, {"auth", "include", "other"}}));
}

TEST(PamRules, AreNotInCommentsAndFragments) {
    EXPECT_EQ(parsePamRules({"", "  ", "# auth required x.so", "auth required", "auth # a b",
                             "auth", "[", "auth [x"}),
              Rules{});
}

}  // namespace
}  // namespace session_service::console
