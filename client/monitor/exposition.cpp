#include "monitor/exposition.h"

#include "watch/snapshot.h"

#include <algorithm>
#include <iomanip>
#include <sstream>
#include <utility>

namespace {

enum kind { gauge, counter };

// Pairs of a value of the label and the number.
using sample_list = std::vector<std::pair<std::string, double>>;

// The text so far. Collectors require all samples of a family to follow its declaration.
class page {
public:
    explicit page(destination to) : to_(to) { text_.precision(15); }  // a time in seconds keeps its fraction

    // A family with a sample for each value of the label.
    void add(kind of, const std::string& name, const char* help, const char* label, const sample_list& samples) {
        text_ << "# HELP " << name << ' ' << help << '\n';
        // OpenMetrics forbids the name with which the format of Prometheus declares a counter. Without a declaration
        // of its type, the text is valid in both.
        if (of == gauge || to_ != destination::output) {
            text_ << "# TYPE " << name << (of == gauge ? " gauge\n" : " counter\n");
        }
        for (const auto& [value, number] : samples) {
            text_ << name;
            if (label != nullptr) {
                text_ << '{' << label << '=' << std::quoted(value) << '}';
            }
            text_ << ' ' << number << '\n';
        }
    }

    // A family with one sample. A negative number means not known and gives no family: 0 would be a wrong value.
    template <typename number>
    void add(kind of, const std::string& name, const char* help, number value) {
        if (value >= number(0)) {
            add(of, name, help, nullptr, {{"", static_cast<double>(value)}});
        }
    }

    // OpenMetrics requires the last line; in the format of Prometheus it is a comment.
    std::string finish() {
        add(gauge, "sched_build_info", "Version of the client that collects.", "version", {{SCHED_VERSION, 1}});
        return text_.str() + "# EOF\n";
    }

private:
    destination to_;
    std::ostringstream text_;
};

// Returns when the condition was set; -1 while it is not.
double since(const snapshot& known, const char* name) {
    const condition* const found = known.find(name);
    return found != nullptr ? static_cast<double>(seconds_of(found->since).value_or(0)) : -1;
}

// Old values of a scheduler that is down would look current, so they are left out.
void expose_answer(const snapshot& known, page& out) {
    out.add(gauge, "sched_answer_seconds", "How long the scheduler took for the status.", known.answer_seconds);
    // Conditions that are not set have a sample too: alert rules need a value at all times. But a time of 0 would look
    // like a very old fault, so a condition that is not set has none.
    sample_list conditions;
    sample_list times;
    for (const char* name : condition_names) {
        const double time = since(known, name);
        conditions.emplace_back(name, time >= 0);
        if (time >= 0) {
            times.emplace_back(name, time);
        }
    }
    out.add(gauge, "sched_condition", "Whether the condition is set.", "name", conditions);
    out.add(gauge, "sched_condition_since_timestamp_seconds", "When the condition was set last; only while it is set.",
            "name", times);
    out.add(gauge, "sched_configuration_timestamp_seconds", "When the hardware configuration was read last.",
            since(known, "confdate"));
    out.add(gauge, "sched_connected_operators", "Connections of operators and relays, without the one that collects.",
            known.operators);
    if (!known.modules.empty()) {
        sample_list modules;
        for (const module_row& m : known.modules) {
            modules.emplace_back(m.name, m.on ? 1 : 0);
        }
        out.add(gauge, "sched_module_enabled", "Whether the module is switched on.", "module", modules);
    }
    out.add(gauge, "sched_timer_jobs", "Jobs in the timer table.", known.timer_jobs);
}

void expose_snapshot(const snapshot& known, page& out) {
    const message_totals& totals = known.totals;
    out.add(gauge, "sched_up", "Whether the scheduler answers.", known.up);
    out.add(counter, "sched_messages_total", "Messages received, by severity.", "severity",
            {{"error", totals.error}, {"warning", totals.warning}, {"info", totals.info}});
    out.add(counter, "sched_messages_lost_total", "Messages dropped because nobody fetched them in time.", totals.lost);
    out.add(counter, "sched_uptime_seconds_total",
            "How long the scheduler has run over all its starts, in full minutes.", known.uptime_minutes * 60);
    if (known.answered > 0) {
        // The clock may have been set back since.
        out.add(gauge, "sched_status_age_seconds", "Age of the newest status.",
                std::max(0.0, wall_clock() - known.answered));
    }
    if (known.up) {
        expose_answer(known, out);
    }
}

}  // namespace

std::string expose(const snapshot& known, destination to) {
    page out(to);
    if (to == destination::file) {
        out.add(gauge, "sched_collect_error", "Whether a fault of the client prevents it from asking the scheduler.",
                known.is_own_fault());
    }
    if (!known.is_own_fault()) {
        expose_snapshot(known, out);
    }
    return out.finish();
}

std::string expose_exporter(unsigned long errors) {
    page out(destination::http);
    out.add(counter, "sched_exporter_errors_total",
            "Requests that failed because of a fault of the exporter, its store or its password.", errors);
    return out.finish();
}
