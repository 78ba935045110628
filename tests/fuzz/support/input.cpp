#include "support/input.h"

#include <algorithm>

#include "support/scripted_store.h"

namespace session_service {

std::string takeLine(std::string_view& input) {
    const std::size_t end = std::min(input.find('\n'), input.size());
    const std::string line(input.substr(0, end));
    input.remove_prefix(std::min(end + 1, input.size()));
    return line;
}

std::vector<std::string> linesOf(std::string_view input) {
    std::vector<std::string> lines;
    while (!input.empty()) {
        lines.push_back(takeLine(input));
    }
    return lines;
}

std::vector<std::string> rawReplies(std::string_view input) {
    std::vector<std::string> replies(1);
    for (const std::string& line : linesOf(input)) {
        if (line.empty()) {
            replies.emplace_back();
        } else {
            replies.back() += line + '\n';
        }
    }
    return replies;
}

std::vector<std::string> listReplies(std::string_view input) {
    std::vector<std::string> replies;
    std::vector<std::string> list;
    for (const std::string& line : linesOf(input)) {
        if (line.empty()) {
            replies.push_back(resp::bulkArray(list));
            list.clear();
        } else {
            list.push_back(line);
        }
    }
    replies.push_back(resp::bulkArray(list));
    return replies;
}

}  // namespace session_service
