#include "monitor/exposition.h"

#include "monitor/collect.h"
#include "protocol/condition_names.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <unistd.h>
#include <utility>
#include <vector>

namespace client {

namespace {

constexpr unsigned long seconds_per_minute = 60;

enum class kind { gauge, counter, info };

struct label {
    const char* name;
    std::string value;
};

// Formats a number with the fewest digits that give the same value.
std::string number_text(double value) {
    // A double has at most 24 characters. to_chars writes a decimal point in every locale.
    char text[32];
    const auto [end, error] = std::to_chars(std::begin(text), std::end(text), value);
    return {text, error == std::errc() ? end : text};
}

// Escapes a label's value. A line feed cannot occur in a module's name; a blank keeps the line whole in any case.
std::string escaped(const std::string& value) {
    std::string text;
    for (const char c : value) {
        if (c == '\\' || c == '"') {
            text += '\\';
        }
        text += c == '\n' ? ' ' : c;
    }
    return text;
}

// The text so far. Collectors require all samples of a family to follow its declaration.
class page {
public:
    explicit page(exposition format) : format_(format) {}

    // name: without the suffix of its kind. unit: the name's last word when it is a unit.
    void family(const std::string& name, kind of, const char* unit, const char* help) {
        suffix_ = of == kind::counter ? "_total" : of == kind::info ? "_info" : "";
        sample_ = name + suffix_;
        // OpenMetrics declares a family without the suffix of its samples, the Prometheus format with it.
        const std::string declared = format_ == exposition::openmetrics ? name : sample_;
        text_ += "# HELP " + declared + " " + help + "\n";
        // The formats name the family of a counter differently. Without a type, one text is valid in both.
        if (of == kind::counter && format_ != exposition::common) {
            text_ += "# TYPE " + declared + " counter\n";
        } else if (of == kind::info && format_ == exposition::openmetrics) {
            text_ += "# TYPE " + declared + " info\n";
        } else if (of != kind::counter) {
            text_ += "# TYPE " + declared + " gauge\n";
        }
        // OpenMetrics requires the declared name to end with the unit.
        if (unit != nullptr && (of == kind::gauge || format_ == exposition::openmetrics)) {
            text_ += "# UNIT " + declared + " " + unit + "\n";
        }
    }

    void sample(double value, const std::vector<label>& labels = {}) {
        text_ += sample_;
        const char* before = "{";
        for (const label& l : labels) {
            text_ += std::string(before) + l.name + "=\"" + escaped(l.value) + "\"";
            before = ",";
        }
        text_ += (labels.empty() ? " " : "} ") + number_text(value) + "\n";
    }

    // OpenMetrics requires the last line; in the Prometheus format it is a comment.
    std::string finish() { return format_ == exposition::prometheus ? text_ : text_ + "# EOF\n"; }

private:
    exposition format_;
    std::string suffix_;
    std::string sample_;
    std::string text_;
};

// Returns null for a condition that is not set.
const condition* find(const snapshot& known, const std::string& name) {
    for (const condition& c : known.conditions) {
        if (c.name == name) {
            return &c;
        }
    }
    return nullptr;
}

double seconds_since_epoch(const condition& c) {
    return static_cast<double>(seconds_of(c.since).value_or(0));
}

void expose_conditions(const snapshot& known, page& out) {
    // Conditions that are not set have a sample too: alert rules need a value at all times.
    out.family("sched_condition", kind::gauge, nullptr, "Whether the condition is set.");
    for (const char* name : condition_names) {
        out.sample(find(known, name) != nullptr ? 1 : 0, {{"name", name}});
    }
    // A time of 0 would look like a very old fault, so a condition that is not set has none.
    out.family("sched_condition_since_timestamp_seconds", kind::gauge, "seconds",
               "When the condition was set last; only while it is set.");
    for (const char* name : condition_names) {
        if (const condition* c = find(known, name)) {
            out.sample(seconds_since_epoch(*c), {{"name", name}});
        }
    }
    if (const condition* date = find(known, "confdate")) {
        out.family("sched_configuration_timestamp_seconds", kind::gauge, "seconds",
                   "When the hardware configuration was read last.");
        out.sample(seconds_since_epoch(*date));
    }
}

void expose_messages(const message_totals& totals, page& out) {
    out.family("sched_messages", kind::counter, nullptr, "Messages received, by severity.");
    const std::pair<const char*, unsigned long> rows[] = {
        {"error", totals.error}, {"warning", totals.warning}, {"info", totals.info}};
    for (const auto& [severity, count] : rows) {
        out.sample(static_cast<double>(count), {{"severity", severity}});
    }
    out.family("sched_messages_lost", kind::counter, nullptr,
               "Messages dropped because nobody fetched them in time.");
    out.sample(static_cast<double>(totals.lost));
}

void expose_details(const snapshot& known, page& out) {
    // A number that could not be fetched is left out: 0 would be a wrong value.
    if (known.operators) {
        out.family("sched_connected_operators", kind::gauge, nullptr,
                   "Connections of operators and relays, without the one that collects.");
        out.sample(static_cast<double>(*known.operators));
    }
    if (!known.modules.empty()) {
        out.family("sched_module_enabled", kind::gauge, nullptr, "Whether the module is switched on.");
        for (const module_row& m : known.modules) {
            out.sample(m.on ? 1 : 0, {{"module", m.name}});
        }
    }
    if (known.timer_jobs) {
        out.family("sched_timer_jobs", kind::gauge, nullptr, "Jobs in the timer table.");
        out.sample(static_cast<double>(*known.timer_jobs));
    }
}

void expose_build(page& out) {
    out.family("sched_build", kind::info, nullptr, "Version of the client that collects.");
    out.sample(1, {{"version", SCHED_VERSION}});
}

void expose_snapshot(const snapshot& known, page& out) {
    out.family("sched_up", kind::gauge, nullptr, "Whether the scheduler answers.");
    out.sample(known.up ? 1 : 0);
    expose_messages(known.totals, out);
    if (known.uptime_minutes) {
        out.family("sched_uptime_seconds", kind::counter, "seconds",
                   "How long the scheduler has run over all its starts, in full minutes.");
        out.sample(static_cast<double>(*known.uptime_minutes * seconds_per_minute));
    }
    if (known.answered > 0) {
        out.family("sched_status_age_seconds", kind::gauge, "seconds", "Age of the newest status.");
        // The clock may have been set back since.
        out.sample(std::max(0.0, wall_clock() - known.answered));
    }
    // Old values of a scheduler that is down would look current, so they are left out.
    if (known.up) {
        out.family("sched_answer_seconds", kind::gauge, "seconds",
                   "How long the scheduler took for the status.");
        out.sample(known.answer_seconds);
        expose_conditions(known, out);
        expose_details(known, out);
    }
}

// Resident memory in bytes; 0 when the kernel does not tell.
double resident_bytes() {
    std::ifstream file("/proc/self/statm");
    double pages = 0;
    file >> pages >> pages;  // the first number is the address space
    return pages * static_cast<double>(sysconf(_SC_PAGESIZE));
}

}  // namespace

std::string expose(const snapshot& known, exposition format, bool to_file) {
    page out(format);
    if (to_file) {
        out.family("sched_collect_error", kind::gauge, nullptr,
                   "Whether a fault of the client prevents that the scheduler is asked.");
        out.sample(is_own_fault(known) ? 1 : 0);
    }
    if (!is_own_fault(known)) {
        expose_snapshot(known, out);
    }
    expose_build(out);
    return out.finish();
}

std::string expose_exporter(const exporter_state& state, exposition format) {
    page out(format);
    out.family("sched_exporter_errors", kind::counter, nullptr,
               "Requests that failed by a fault of the exporter, its store or its password.");
    out.sample(static_cast<double>(state.errors));
    out.family("sched_exporter_targets", kind::gauge, nullptr, "Schedulers asked for since the start.");
    out.sample(static_cast<double>(state.targets));
    out.family("sched_exporter_silent_targets", kind::gauge, nullptr,
               "Schedulers that are being asked and have not answered yet.");
    out.sample(static_cast<double>(state.silent));
    out.family("process_resident_memory_bytes", kind::gauge, "bytes", "Resident memory.");
    out.sample(resident_bytes());
    expose_build(out);
    return out.finish();
}

const char* media_type_of(exposition format) {
    return format == exposition::openmetrics ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
                                             : "text/plain; version=0.0.4; charset=utf-8";
}

}  // namespace client
