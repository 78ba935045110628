#include "sessionctl/metrics.h"

#include <array>
#include <cstdio>

#include "sessions/create_session.h"

namespace session_service::console {
namespace {

class Metrics {
  public:
    // Begins a metric; what follows are its values.
    void begin(const char* metric, const char* type, const char* help) {
        name = std::string("session_service_") + metric;
        text += "# HELP " + name + ' ' + help + "\n# TYPE " + name + ' ' + type + '\n';
    }
    void add(const std::string& value, const std::string& labels = "") {
        text += name + labels + ' ' + value + '\n';
    }
    template <typename Number>
    void addMetric(const char* metric, const char* type, const char* help,
                   const std::optional<Number>& value) {
        if (value) {
            begin(metric, type, help);
            add(std::to_string(*value));
        }
    }

    [[nodiscard]] const std::string& formatted() const noexcept { return text; }

  private:
    std::string text;
    std::string name;
};

std::string formatReal(double value) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.2f", value);
    return text.data();
}

void addRefused(Metrics& metrics, const Counts& counts) {
    if (!counts.refused) {
        return;
    }
    metrics.begin("logins_refused_total", "counter",
                  "Refused logins, from the front end's log of refused logins.");
    for (const std::string& reason : refusalReasons()) {
        const auto found = counts.refused->find(reason);
        const long long count = found == counts.refused->end() ? 0 : found->second;
        metrics.add(std::to_string(count), "{reason=\"" + reason + "\"}");
    }
}

void addSince(Metrics& metrics, const Counts& counts) {
    if (!counts.auditSince && !counts.refusedSince && !counts.accessSince) {
        return;
    }
    metrics.begin("counted_since_timestamp_seconds", "gauge",
                  "The time of the first entry that was counted, by source.");
    for (const auto& [source, since] : {std::pair{"audit_log", counts.auditSince},
                                        std::pair{"refused_logins", counts.refusedSince},
                                        std::pair{"access_log", counts.accessSince}}) {
        if (since) {
            metrics.add(std::to_string(*since), std::string("{source=\"") + source + "\"}");
        }
    }
}

void addDaemon(Metrics& metrics, const std::optional<ProcessStatistics>& daemon) {
    metrics.begin("daemon_up", "gauge", "Whether the daemon runs.");
    metrics.add(daemon ? "1" : "0");
    if (!daemon) {
        return;
    }
    metrics.begin("daemon_start_time_seconds", "gauge", "When the daemon was started.");
    metrics.add(std::to_string(daemon->startTime));
    metrics.begin("daemon_resident_memory_bytes", "gauge", "Resident memory of the daemon.");
    metrics.add(std::to_string(daemon->residentBytes));
    metrics.begin("daemon_cpu_seconds_total", "counter",
                  "Processor time of the daemon, in the program and in the kernel.");
    metrics.add(formatReal(daemon->processorSeconds));
}

}  // namespace

std::string formatMetrics(const Statistics& statistics) {
    const Counts& counts = statistics.counts;
    Metrics metrics;
    metrics.begin("sessions", "gauge", "Sessions that exist now.");
    metrics.add(std::to_string(statistics.sessions));
    metrics.begin("sessions_limit", "gauge", "How many sessions there can be.");
    metrics.add(std::to_string(maxSessions));
    metrics.addMetric("sessions_max", "gauge", "Most sessions at a time, from the audit log.",
                      counts.maxSessions);
    metrics.addMetric("logins_admitted_total", "counter",
                      "Logins that made a session, from the audit log.", counts.admitted);
    addRefused(metrics, counts);
    metrics.addMetric("logouts_total", "counter",
                      "Sessions that were logged out, from the audit log and the access log.",
                      counts.logouts);
    metrics.addMetric("expiries_total", "counter",
                      "Sessions that expired, from the audit log and the access log.",
                      counts.expiries);
    metrics.addMetric("changes_total", "counter",
                      "Changes of the service's settings, from the front end's access log.",
                      counts.changes);
    addSince(metrics, counts);
    metrics.addMetric("last_pass_age_seconds", "gauge",
                      "Seconds since the daemon looked for expired sessions; only while there is a "
                      "session.",
                      statistics.lastPassAge);
    addDaemon(metrics, statistics.daemon);
    return metrics.formatted();
}

}  // namespace session_service::console
