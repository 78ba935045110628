#include <algorithm>
#include <cmath>
#include <numeric>
#include <utility>

#include "sessionctl/commands.h"
#include "sessionctl/local_moment.h"
#include "sessionctl/output.h"
#include "sessionctl/session_view.h"
#include "sessionctl/store_access.h"
#include "sessionctl/terminal.h"
#include "sessions/create_session.h"
#include "sessions/records.h"

namespace session_service::console {
namespace {

using nlohmann::json;

json summaryOf(const SessionView& view) {
    return {{"id", view.id},
            {"user", view.hasResource ? json(view.user) : json()},
            {"client", view.hasResource ? json(view.client) : json()},
            {"loginTime", view.loginTime ? json(formatTimestamp(*view.loginTime)) : json()},
            {"idleSeconds", orNull(view.idle)},
            {"timeoutSeconds", orNull(view.timeout)},
            {"expiresInSeconds", orNull(view.expiresIn)},
            {"fault", view.fault.empty() ? json() : json(view.fault)}};
}

std::string idleText(const SessionView& view) {
    return view.idle ? formatDuration(*view.idle) : "";
}

std::string expiryText(const SessionView& view) {
    if (!view.expiresIn) {
        return "";
    }
    return *view.expiresIn > 0 ? formatDuration(*view.expiresIn) : "now";
}

std::string loginText(const SessionView& view) {
    return view.loginTime ? formatShortTime(*view.loginTime) : "";
}

// The part of its timeout that a session has left, from 0 to 1; empty when that is not known.
std::optional<double> fractionLeft(const SessionView& view) {
    if (!view.expiresIn || !view.timeout || *view.timeout <= 0) {
        return std::nullopt;
    }
    return std::clamp(static_cast<double>(*view.expiresIn) / static_cast<double>(*view.timeout),
                      0.0, 1.0);
}

constexpr std::size_t barColumns = 6;

// A bar that is shorter the less time is left; blank when that is not known.
std::string barOf(const SessionView& view) {
    const auto fraction = fractionLeft(view);
    if (!fraction) {
        return std::string(barColumns, ' ');
    }
    const auto filled = static_cast<std::size_t>(std::ceil(*fraction * barColumns));
    std::string bar;
    for (std::size_t i = 0; i < barColumns; ++i) {
        if (showsUnicode()) {
            bar += i < filled ? "\u2588" : "\u2591";
        } else {
            bar += i < filled ? '#' : '.';
        }
    }
    return bar;
}

Style styleOfTimeLeft(const SessionView& view) {
    constexpr double little = 0.2;
    constexpr double half = 0.5;
    const auto fraction = fractionLeft(view);
    if (!fraction) {
        return Style::plain;
    }
    if (*fraction <= little) {
        return Style::bad;
    }
    return *fraction <= half ? Style::notable : Style::good;
}

// A cell of the table: escaped, with its style.
struct Cell {
    std::string shown;
    Style style = Style::plain;
};
using Cells = std::vector<Cell>;

Cell cell(const std::string& text) {
    return {text.empty() ? "-" : escaped(text)};
}

Cell timeLeftCell(const SessionView& view) {
    return {barOf(view) + ' ' + (view.expiresIn ? expiryText(view) : "-"), styleOfTimeLeft(view)};
}

std::vector<Cells> tableOf(const std::vector<SessionView>& views) {
    const bool anyFault = std::any_of(views.begin(), views.end(),
                                      [](const SessionView& view) { return !view.fault.empty(); });
    std::vector<Cells> rows(1);
    for (const char* heading :
         {"IDENTIFIER", "USER", "CLIENT", "LOGGED IN", "IDLE FOR", "EXPIRES IN"}) {
        rows.front().push_back({heading, Style::heading});
    }
    if (anyFault) {
        rows.front().push_back({"FAULT", Style::heading});
    }
    for (const SessionView& view : views) {
        rows.push_back({cell(view.id), cell(view.user), cell(view.client), cell(loginText(view)),
                        cell(idleText(view)), timeLeftCell(view)});
        if (anyFault) {
            rows.back().push_back({escaped(view.fault), Style::bad});
        }
    }
    return rows;
}

constexpr std::size_t gap = 2;

std::vector<std::size_t> widthsOf(const std::vector<Cells>& rows) {
    std::vector<std::size_t> widths(rows.front().size());
    for (const Cells& cells : rows) {
        for (std::size_t i = 0; i < cells.size(); ++i) {
            widths[i] = std::max(widths[i], columnsOf(cells[i].shown));
        }
    }
    return widths;
}

std::string formatCells(const std::vector<Cells>& rows, const std::vector<std::size_t>& widths) {
    std::string text;
    for (const Cells& cells : rows) {
        std::size_t last = cells.size() - 1;
        while (last > 0 && cells[last].shown.empty()) {
            --last;
        }
        for (std::size_t i = 0; i <= last; ++i) {
            text += styled(cells[i].style, cells[i].shown);
            if (i < last) {
                text.append(widths[i] - columnsOf(cells[i].shown) + gap, ' ');
            }
        }
        text += '\n';
    }
    return text;
}

// A session in lines of so many columns, where the table does not fit: who and for how long on the
// first one.
std::string stacked(const SessionView& view, std::size_t width) {
    const Cell left = timeLeftCell(view);
    const std::size_t leftColumns = columnsOf(left.shown);
    const std::size_t room = width > leftColumns + gap ? width - leftColumns - gap : 1;
    const std::string who =
        cutToColumns(cell(view.id).shown + std::string(gap, ' ') + cell(view.user).shown, room);
    std::string details = view.client.empty() ? "" : escaped(view.client);
    for (const auto& [label, value] :
         {std::pair{"logged in ", loginText(view)}, std::pair{"idle for ", idleText(view)}}) {
        if (!value.empty()) {
            details += (details.empty() ? "" : ", ") + std::string(label) + value;
        }
    }
    std::string text =
        who + std::string(room - columnsOf(who) + gap, ' ') + styled(left.style, left.shown) + '\n';
    if (!details.empty()) {
        text += wrapped(details, width, gap);
    }
    if (!view.fault.empty()) {
        text += styled(Style::bad, wrapped(escaped(view.fault), width, gap));
    }
    return text;
}

std::string formatSessions(const std::vector<SessionView>& views) {
    const std::vector<Cells> rows = tableOf(views);
    const std::vector<std::size_t> widths = widthsOf(rows);
    const std::size_t needed =
        std::accumulate(widths.begin(), widths.end(), gap * (widths.size() - 1));
    const std::size_t width = terminalWidth();
    if (width == 0 || needed <= width) {
        return formatCells(rows, widths);
    }
    // What is narrower than this is not helped by more breaks.
    constexpr std::size_t minWidth = 20;
    std::string text;
    for (const SessionView& view : views) {
        text += stacked(view, std::max(width, minWidth));
    }
    return text;
}

// Public properties are stored as JSON, internal ones as bare text.
json resourceOf(const SessionView& view) {
    json values = json::object();
    for (const auto& [name, value] : view.resource) {
        values[name] = name.starts_with("&&") ? json(value) : jsonValue(value);
    }
    return values;
}

void appendFields(std::vector<Row>& rows, const Fields& fields) {
    for (const auto& [name, value] : fields) {
        rows.push_back({"  " + name, value});
    }
}

std::string describe(const SessionView& view, bool member) {
    std::vector<Row> rows{{"Session " + view.id},
                          {"  in the collection", member ? "yes" : "no"},
                          {"  logged in", view.loginTime ? formatTimestamp(*view.loginTime) : ""},
                          {"  idle for", idleText(view)},
                          {"  expires in", expiryText(view)},
                          {"  fault", view.fault}};
    rows.push_back({"Resource " + sessionUriOf(view.id)});
    appendFields(rows, view.resource);
    rows.push_back({"Token record"});
    appendFields(rows, view.tokenRecord);
    return formatTable(rows);
}

}  // namespace

int runList(const Options& options) {
    const OpenStore opened = openStore(options.timeout);
    std::vector<SessionView> views;
    for (const std::string& member : readMembers(opened.connection.get())) {
        views.push_back(readMember(opened.connection.get(), member));
    }
    if (options.json) {
        json sessions = json::array();
        std::transform(views.begin(), views.end(), std::back_inserter(sessions), summaryOf);
        return print(formatJson({{"limit", maxSessions}, {"sessions", sessions}}))
                   ? exit_status::success
                   : exit_status::failure;
    }
    const auto taken = std::count_if(
        views.begin(), views.end(), [](const SessionView& view) { return view.countsTowardLimit; });
    return print(formatSessions(views) + std::to_string(taken) + " of " +
                 std::to_string(maxSessions) + " places are taken.\n")
               ? exit_status::success
               : exit_status::failure;
}

int runShow(const Options& options, const std::string& id) {
    const OpenStore opened = openStore(options.timeout);
    const SessionView view = readSession(opened.connection.get(), id);
    const std::vector<std::string> members = readMembers(opened.connection.get());
    const bool member = std::find(members.begin(), members.end(), memberFor(id)) != members.end();
    if (!view.hasResource && !member) {
        throw CommandError(exit_status::failure, "There is no session " + escaped(id) + ".");
    }
    if (!options.json) {
        return print(describe(view, member)) ? exit_status::success : exit_status::failure;
    }
    json document = summaryOf(view);
    document["uri"] = sessionUriOf(id);
    document["inCollection"] = member;
    document["resource"] = resourceOf(view);
    document["tokenRecord"] = view.tokenRecord;
    return print(formatJson(document)) ? exit_status::success : exit_status::failure;
}

}  // namespace session_service::console
