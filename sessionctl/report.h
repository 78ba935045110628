// What sessionctl check found.
#pragma once

#include <string>
#include <vector>

namespace session_service::console {

enum class Result { ok, warning, failed };

struct Finding {
    Result result;
    std::string subject;
    std::string text;  // what is the case, and what to do about it

    bool operator==(const Finding&) const = default;
};

class Report {
  public:
    void warn(const std::string& subject, const std::string& text) {
        entries.push_back({Result::warning, subject, text});
    }
    void fail(const std::string& subject, const std::string& text) {
        entries.push_back({Result::failed, subject, text});
    }
    // Reports that all is well, unless there is a finding about the subject already.
    void conclude(const std::string& subject, const std::string& text) {
        for (const Finding& finding : entries) {
            if (finding.subject == subject) {
                return;
            }
        }
        entries.push_back({Result::ok, subject, text});
    }

    [[nodiscard]] const std::vector<Finding>& findings() const noexcept { return entries; }

  private:
    std::vector<Finding> entries;
};

}  // namespace session_service::console
