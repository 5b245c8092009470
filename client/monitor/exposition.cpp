#include "monitor/exposition.h"

#include "watch/snapshot.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <unistd.h>
#include <utility>

namespace client {

namespace {

constexpr long seconds_per_minute = 60;

enum class kind { gauge, counter, info };
using enum kind;

// Pairs of a value of the label and the number.
using sample_list = std::vector<std::pair<std::string, double>>;

// Formats a number with the fewest digits that give the same value.
std::string number_text(double value) {
    // A double has at most 24 characters. to_chars writes a decimal point in every locale.
    char text[32];
    const auto [end, error] = std::to_chars(std::begin(text), std::end(text), value);
    return {text, error == std::errc() ? end : text};
}

// The text so far. Collectors require all samples of a family to follow its declaration.
class page {
public:
    explicit page(exposition format) : format_(format) {}

    // A family with a sample for each value of the label. name: without the suffix of its kind.
    void add(kind of, const std::string& name, const char* help, const char* label,
             const sample_list& samples) {
        const std::string full = name + (of == counter ? "_total" : of == info ? "_info" : "");
        // OpenMetrics declares a family without the suffix of its samples, the Prometheus format with it.
        const std::string& declared = format_ == exposition::openmetrics ? name : full;
        text_ << "# HELP " << declared << ' ' << help << '\n';
        // The formats name the family of a counter differently. Without a type, one text is valid in both.
        if (of != counter || format_ != exposition::common) {
            const bool is_info = of == info && format_ == exposition::openmetrics;
            text_ << "# TYPE " << declared
                  << (of == counter ? " counter\n"
                      : is_info     ? " info\n"
                                    : " gauge\n");
        }
        // OpenMetrics requires the declared name to end with the unit.
        for (const std::string unit : {"seconds", "bytes"}) {
            if (declared.ends_with("_" + unit)) {
                text_ << "# UNIT " << declared << ' ' << unit << '\n';
            }
        }
        for (const auto& [value, number] : samples) {
            text_ << full;
            if (label != nullptr) {
                text_ << '{' << label << '=' << std::quoted(value) << '}';
            }
            text_ << ' ' << number_text(number) << '\n';
        }
    }

    // A family with one sample. A negative number means not known and gives no family: 0 would be a wrong value.
    template <typename type>
    void add(kind of, const std::string& name, const char* help, type number) {
        if (number >= type(0)) {
            add(of, name, help, nullptr, {{"", static_cast<double>(number)}});
        }
    }

    // OpenMetrics requires the last line; in the Prometheus format it is a comment.
    std::string finish() {
        add(info, "sched_build", "Version of the client that collects.", "version", {{SCHED_VERSION, 1}});
        return text_.str() + (format_ == exposition::prometheus ? "" : "# EOF\n");
    }

private:
    exposition format_;
    std::ostringstream text_;
};

// Returns when the condition was set; -1 while it is not.
double since(const snapshot& known, const char* name) {
    const condition* const found = known.find(name);
    return found != nullptr ? static_cast<double>(seconds_of(found->since).value_or(0)) : -1;
}

// Old values of a scheduler that is down would look current, so they are left out.
void expose_answer(const snapshot& known, page& out) {
    out.add(gauge, "sched_answer_seconds", "How long the scheduler took for the status.",
            known.answer_seconds);
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
    out.add(gauge, "sched_condition_since_timestamp_seconds",
            "When the condition was set last; only while it is set.", "name", times);
    out.add(gauge, "sched_configuration_timestamp_seconds", "When the hardware configuration was read last.",
            since(known, "confdate"));
    out.add(gauge, "sched_connected_operators",
            "Connections of operators and relays, without the one that collects.", known.operators);
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
    out.add(counter, "sched_messages", "Messages received, by severity.", "severity",
            {{"error", totals.error}, {"warning", totals.warning}, {"info", totals.info}});
    out.add(counter, "sched_messages_lost", "Messages dropped because nobody fetched them in time.",
            totals.lost);
    out.add(counter, "sched_uptime_seconds",
            "How long the scheduler has run over all its starts, in full minutes.",
            known.uptime_minutes * seconds_per_minute);
    if (known.answered > 0) {
        // The clock may have been set back since.
        out.add(gauge, "sched_status_age_seconds", "Age of the newest status.",
                std::max(0.0, wall_clock() - known.answered));
    }
    if (known.up) {
        expose_answer(known, out);
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
        out.add(gauge, "sched_collect_error",
                "Whether a fault of the client prevents it from asking the scheduler.", known.is_own_fault());
    }
    if (!known.is_own_fault()) {
        expose_snapshot(known, out);
    }
    return out.finish();
}

std::string expose_exporter(unsigned long errors, std::size_t targets, std::size_t silent,
                            exposition format) {
    page out(format);
    out.add(counter, "sched_exporter_errors",
            "Requests that failed because of a fault of the exporter, its store or its password.", errors);
    out.add(gauge, "sched_exporter_targets", "Schedulers that were asked since the start.", targets);
    out.add(gauge, "sched_exporter_silent_targets",
            "Schedulers that are being asked and have not answered yet.", silent);
    out.add(gauge, "process_resident_memory_bytes", "Resident memory.", resident_bytes());
    return out.finish();
}

const char* media_type_of(exposition format) {
    return format == exposition::openmetrics ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
                                             : "text/plain; version=0.0.4; charset=utf-8";
}

}  // namespace client
