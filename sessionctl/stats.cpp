#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>

#include "base/text_file.h"
#include "sessionctl/commands.h"
#include "sessionctl/counts.h"
#include "sessionctl/local_moment.h"
#include "sessionctl/metrics.h"
#include "sessionctl/output.h"
#include "sessionctl/process_statistics.h"
#include "sessionctl/replaced_file.h"
#include "sessionctl/session_view.h"
#include "sessionctl/statistics.h"
#include "sessionctl/store_access.h"
#include "sessionctl/terminal.h"
#include "sessions/collection.h"
#include "sessions/create_session.h"
#include "sessions/records.h"
#include "store/resource_names.h"

namespace session_service::console {
namespace {

using nlohmann::json;
using Kind = store::Answer::Kind;

// Where the statistics come from.
constexpr const char* auditSource = "audit log";
constexpr const char* refusedSource = "front end's log of refused logins";
constexpr const char* accessSource = "front end's access log";
constexpr const char* endSource = "audit log and access log";
constexpr const char* storeSource = "store";
constexpr const char* kernelSource = "kernel";

// Each pass reads the token reference of every session. So do sessionctl list and show, but nothing
// that goes on for long; and this question is no read.
void readSessions(redisContext* connection, Statistics& statistics) {
    for (const std::string& member : readMembers(connection)) {
        if (!member.starts_with(memberPrefix)) {
            continue;
        }
        const std::string uri = member.substr(memberPrefix.size());
        if (!isRedfishSession(connection, uri)) {
            continue;
        }
        ++statistics.sessions;
        const store::Answer idle =
            ask(connection, {"OBJECT", "IDLETIME", tokenReferenceKeyOf(uri)});
        if (idle.kind == Kind::integer) {
            statistics.lastPassAge = std::max(statistics.lastPassAge.value_or(0), idle.integer);
        }
    }
}

// The counts of earlier calls, if there are any.
Counter readState(const std::string& path) {
    std::string text;
    const ReadOutcome outcome = readLines(path.c_str(), [&](const std::string& line) {
        text += line + '\n';
        return true;
    });
    if (outcome.status == ReadStatus::notOpened && outcome.error == ENOENT) {
        return {};
    }
    try {
        return Counter::fromState(json::parse(text));
    } catch (const json::exception&) {
        std::fprintf(stderr, "sessionctl: %s cannot be used; the counts begin anew.\n",
                     escaped(path).c_str());
        return {};
    }
}

json timeOrNull(const std::optional<std::time_t>& time) {
    return time ? json(formatTimestamp(*time)) : json();
}

json toJson(const Statistics& statistics) {
    const Counts& counts = statistics.counts;
    json daemon;
    if (statistics.daemon) {
        daemon = {{"pid", statistics.daemon->pid},
                  {"startTime", formatTimestamp(statistics.daemon->startTime)},
                  {"processorSeconds", statistics.daemon->processorSeconds},
                  {"residentBytes", statistics.daemon->residentBytes}};
    }
    return {
        {"time", formatTimestamp(std::time(nullptr))},
        {"sessions",
         {{"now", statistics.sessions},
          {"max", orNull(counts.maxSessions)},
          {"limit", maxSessions}}},
        {"logins", {{"admitted", orNull(counts.admitted)}, {"refused", orNull(counts.refused)}}},
        {"logouts", orNull(counts.logouts)},
        {"expiries", orNull(counts.expiries)},
        {"changes", orNull(counts.changes)},
        {"lastPassAgeSeconds", orNull(statistics.lastPassAge)},
        {"daemon", daemon},
        {"since",
         {{"auditLog", timeOrNull(counts.auditSince)},
          {"refusedLogins", timeOrNull(counts.refusedSince)},
          {"accessLog", timeOrNull(counts.accessSince)}}},
        {"sources",
         {{"sessions.now", storeSource},
          {"sessions.max", auditSource},
          {"logins.admitted", auditSource},
          {"logins.refused", refusedSource},
          {"logouts", endSource},
          {"expiries", endSource},
          {"changes", accessSource},
          {"lastPassAgeSeconds", storeSource},
          {"daemon", kernelSource}}}};
}

template <typename Number>
std::string textOf(const std::optional<Number>& number) {
    return number ? std::to_string(*number) : "unknown";
}

std::string sourceText(const char* source, const std::optional<std::time_t>& since) {
    return source + (since ? ", since " + formatShortTime(*since) : "");
}

std::string formatSize(long long bytes) {
    constexpr double mebibyte = 1024.0 * 1024.0;
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f MiB", static_cast<double>(bytes) / mebibyte);
    return text.data();
}

std::string formatSeconds(double seconds) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.2f s", seconds);
    return text.data();
}

std::vector<Row> tableOf(const Statistics& statistics) {
    const Counts& counts = statistics.counts;
    std::vector<Row> rows{
        {"STATISTIC", "VALUE", "SOURCE"},
        {"sessions", std::to_string(statistics.sessions) + " of " + std::to_string(maxSessions),
         storeSource},
        {"most sessions", textOf(counts.maxSessions), sourceText(auditSource, counts.auditSince)},
        {"logins admitted", textOf(counts.admitted), sourceText(auditSource, counts.auditSince)}};
    if (counts.refused) {
        long long sum = 0;
        for (const auto& [reason, count] : *counts.refused) {
            sum += count;
        }
        rows.push_back({"logins refused", std::to_string(sum),
                        sourceText(refusedSource, counts.refusedSince)});
        for (const auto& [reason, count] : *counts.refused) {
            rows.push_back({"  " + reason, std::to_string(count)});
        }
    } else {
        rows.push_back({"logins refused", "unknown", refusedSource});
    }
    rows.push_back({"logouts", textOf(counts.logouts), sourceText(endSource, counts.auditSince)});
    rows.push_back({"expiries", textOf(counts.expiries), sourceText(endSource, counts.auditSince)});
    rows.push_back(
        {"changes", textOf(counts.changes), sourceText(accessSource, counts.accessSince)});
    rows.push_back(
        {"last pass",
         statistics.lastPassAge ? formatDuration(*statistics.lastPassAge) + " ago" : "unknown",
         storeSource});
    if (statistics.daemon) {
        const ProcessStatistics& daemon = *statistics.daemon;
        rows.push_back({"daemon", "process " + std::to_string(daemon.pid),
                        sourceText(kernelSource, daemon.startTime)});
        rows.push_back({"  memory", formatSize(daemon.residentBytes), kernelSource});
        rows.push_back({"  processor time", formatSeconds(daemon.processorSeconds), kernelSource});
    } else {
        rows.push_back({"daemon", "not found", kernelSource});
    }
    return rows;
}

std::string sinceText(const Counts& counts) {
    std::string text;
    for (const auto& [source, since] : {std::pair{"audit log", counts.auditSince},
                                        std::pair{"refused logins", counts.refusedSince},
                                        std::pair{"access log", counts.accessSince}}) {
        if (since) {
            text += (text.empty() ? "Counted since " : ", ") + formatShortTime(*since) + " (" +
                    source + ')';
        }
    }
    return text.empty() ? text : text + '.';
}

std::size_t columnsOfLongestLine(const std::string& text) {
    std::size_t columns = 0;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = text.find('\n', begin);
        columns = std::max(columns, columnsOf(std::string_view(text).substr(begin, end - begin)));
        begin = end + 1;
    }
    return columns;
}

// Without the last column where that does not fit; the times are then below.
std::string toText(const Statistics& statistics) {
    std::vector<Row> rows = tableOf(statistics);
    std::string text = formatTable(rows);
    const std::size_t width = terminalWidth();
    if (width != 0 && columnsOfLongestLine(text) > width) {
        for (Row& row : rows) {
            row.resize(2);
        }
        text = formatTable(rows);
        if (const std::string since = sinceText(statistics.counts); !since.empty()) {
            text += wrapped(since, width, 0);
        }
    }
    const std::size_t heading = text.find('\n');
    return styled(Style::heading, text.substr(0, heading)) + text.substr(heading);
}

}  // namespace

int runStats(const Options& options, const StatsOptions& stats) {
    Statistics statistics;
    if (stats.daemon) {
        statistics.daemon = readProcessStatistics(*stats.daemon);
    }
    const OpenStore opened = openStore(options.timeout);
    redisContext* connection = opened.connection.get();
    readSessions(connection, statistics);
    const store::Answer timeout = ask(connection, {"HGET", serviceUri, sessionTimeoutField});
    Counter counter = stats.state.empty() ? Counter() : readState(stats.state);
    counter.update(connection, statistics.sessions, parseSeconds(timeout.text));
    statistics.counts = counter.counts();
    if (!stats.state.empty()) {
        constexpr mode_t ownerOnly = 0600;
        replaceFile(stats.state, formatJson(counter.toState()), ownerOnly);
    }
    std::string text;
    if (stats.prometheus) {
        text = formatMetrics(statistics);
    } else {
        text = options.json ? formatJson(toJson(statistics)) : toText(statistics);
    }
    if (!stats.output.empty()) {
        constexpr mode_t readable = 0644;
        replaceFile(stats.output, text, readable);
        return exit_status::success;
    }
    return print(text) ? exit_status::success : exit_status::failure;
}

}  // namespace session_service::console
