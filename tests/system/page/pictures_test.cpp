// The pictures of the page in the documents. With PAGE_PICTURES in the environment they are written
// to that folder; otherwise they are only taken.
#include <cstdlib>
#include <fstream>

#include "page/page_test.h"

namespace testbed {
namespace {

constexpr std::size_t maxBytes = 100000;

class PagePictures : public PageTest {};

TEST_F(PagePictures, AreTakenInBothSchemes) {
    for (const auto& [user, address] : std::vector<std::pair<std::string, std::string>>{
             {"operator", "192.0.2.17"}, {"reader", "192.0.2.80"}, {"operator", "2001:db8::4a"}}) {
        frontEnd().insertSession(
            {.userName = user, .session = {{"ClientOriginIPAddress", jsonQuoted(address)}}});
    }
    Browser& page = browser();
    login(page);
    // What is different each time.
    page.run("document.querySelector('#host').textContent = 'controller-1.example'");
    std::string last;
    for (const std::string scheme : {"light", "dark"}) {
        page.useScheme(scheme);
        const std::string picture = page.picture(960);
        EXPECT_EQ(picture.substr(1, 3), "PNG");
        EXPECT_LT(picture.size(), maxBytes);
        EXPECT_NE(picture, last);
        last = picture;
        if (const char* folder = std::getenv("PAGE_PICTURES")) {
            std::ofstream file(std::string(folder) + "/page-" + scheme + ".png", std::ios::binary);
            EXPECT_TRUE(file << picture) << folder;
        }
    }
}

}  // namespace
}  // namespace testbed
