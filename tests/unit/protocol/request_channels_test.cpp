#include "protocol/request_channels.h"

#include <gtest/gtest.h>

namespace session_service {
namespace {

TEST(Notice, SplitsAtItsFirstBlank) {
    const std::map<std::string, std::pair<std::string, std::string>> notices = {
        {"request reply", {"request", "reply"}},
        {"request two words", {"request", "two words"}},
        {"request  reply", {"request", " reply"}},
        {"request ", {"request", ""}},
        {" reply", {"", "reply"}},
        {" ", {"", ""}},
        {"whole", {"whole", "whole"}},
        {"tab\treply", {"tab\treply", "tab\treply"}},
        {"", {"", ""}},
    };
    for (const auto& [payload, keys] : notices) {
        const Notice notice = splitNotice(payload);
        EXPECT_EQ(notice.requestKey, keys.first) << '"' << payload << '"';
        EXPECT_EQ(notice.replyKey, keys.second) << '"' << payload << '"';
    }
}

}  // namespace
}  // namespace session_service
