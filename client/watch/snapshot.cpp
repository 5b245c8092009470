#include "watch/snapshot.h"

#include "agent/channel.h"
#include "mail/replace_file.h"
#include "mail/state_file.h"
#include "run/json.h"
#include "term/exit_code.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(condition, name, since)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(message, date, text)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(module_row, name, on)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(snapshot, up, failure, problem, answered, answer_seconds, conditions, messages,
                                   totals, operators, timer_jobs, uptime_minutes, modules)

namespace {

// Where the Debian package's services keep their state.
constexpr const char* service_directory = "/run/sched-watch/";
constexpr const char* service_data = "/var/lib/sched";
constexpr std::uint16_t service_port = 9980;

// Seconds since the start of the machine, also of those that it slept: steps of the wall clock do not move it.
double boot_clock() {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Differs after each start of the machine, when the clock above begins anew.
std::string boot_id() { return read_file("/proc/sys/kernel/random/boot_id").value_or(""); }

// Reads a state file; nothing when it is missing, damaged or too old.
std::optional<snapshot> fresh_state(const std::string& path) try {
    const nlohmann::json value = nlohmann::json::parse(read_file(path).value_or(""));
    const double age = boot_clock() - value.at("written").get<double>();
    if (value.at("boot") != boot_id() || age < 0 || age > 2 * value.at("interval").get<double>()) {
        return std::nullopt;
    }
    return value.get<snapshot>();
} catch (const nlohmann::json::exception&) {
    return std::nullopt;
}

// In $RUNTIME_DIRECTORY if a service manager has set it, else in the user's state directory. Empty when there is
// neither.
std::string own_path(const host_name& host) {
    const char* runtime = std::getenv("RUNTIME_DIRECTORY");
    const std::string directory = runtime != nullptr ? runtime : state_directory();
    return directory.empty() ? "" : directory + "/" + key_of(host) + ".json";
}

}  // namespace

const condition* snapshot::find(std::string_view name) const {
    const auto found =
        std::find_if(conditions.begin(), conditions.end(), [name](const condition& c) { return c.name == name; });
    return found != conditions.end() ? &*found : nullptr;
}

bool snapshot::is_own_fault() const { return !up && failure != exit_connection && failure != exit_silence; }

// Not the steady clock: other processes compare these times with their own.
double wall_clock() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

void write_state_file(const host_name& host, const snapshot& known, double interval) {
    const std::string path = own_path(host);
    if (path.empty()) {
        return;
    }
    nlohmann::json value(known);
    value["boot"] = boot_id();
    value["written"] = boot_clock();
    value["interval"] = interval;
    replace_file(path, json_text(value), 0644);
}

// A failure is ignored: readers soon find that the file is too old.
void remove_state_file(const host_name& host) { unlink(own_path(host).c_str()); }

std::optional<snapshot> followed_state(const host_name& host) {
    const std::string name = std::string("/").append(key_of(host)).append(".json");
    std::optional<snapshot> known = fresh_state(state_directory() + name);
    return known ? known : fresh_state(service_directory + name);
}

long uptime_of(const host_name& host) {
    // The uptime file is on the scheduler's host, and of several schedulers there only the service's is known.
    const char* data = std::getenv("VGD_data");
    const bool is_here = host.name.starts_with("127.") || host.name == "localhost";
    if (!is_here || (data == nullptr && host.port != service_port)) {
        return -1;
    }
    // A file that is missing or damaged is no error; the uptime is then not known.
    long minutes = 0;
    std::ifstream file(std::string(data != nullptr ? data : service_data) + "/up_time");
    return (file >> minutes) ? minutes : -1;
}
