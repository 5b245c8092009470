#include "snapshot.h"

#include "connection.h"
#include "replace_file.h"
#include "state_path.h"

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>

namespace client {

namespace {

using json = nlohmann::ordered_json;

// Where the Debian package's services keep their state.
constexpr const char* service_directory = "/run/sched-watch/";
constexpr const char* service_data = "/var/lib/sched";
constexpr std::uint16_t service_port = 9980;

// Optional numbers that are not known are left out.
json to_json(const snapshot& known) {
    const message_totals& t = known.totals;
    json value{{"up", known.up},
               {"failure", known.failure},
               {"problem", known.problem},
               {"answered", known.answered},
               {"answer_seconds", known.answer_seconds},
               {"conditions", json::object()},
               {"messages", json::array()},
               {"unkept", known.unkept},
               {"totals", {{"error", t.error}, {"warning", t.warning}, {"info", t.info}, {"lost", t.lost}}},
               {"modules", json::object()}};
    for (const condition& c : known.conditions) {
        value["conditions"][c.name] = c.since;
    }
    for (const message& m : known.messages) {
        value["messages"].push_back({{"date", m.date}, {"text", m.text}});
    }
    for (const module_row& m : known.modules) {
        value["modules"][m.name] = m.on;
    }
    const std::pair<const char*, const std::optional<unsigned long>&> numbers[] = {
        {"operators", known.operators},
        {"timer_jobs", known.timer_jobs},
        {"uptime_minutes", known.uptime_minutes}};
    for (const auto& [name, number] : numbers) {
        if (number) {
            value[name] = *number;
        }
    }
    return value;
}

std::optional<unsigned long> number_in(const json& value, const char* name) {
    return value.contains(name) ? std::optional(value[name].get<unsigned long>()) : std::nullopt;
}

// Throws when a member is missing or has the wrong type.
snapshot from_json(const json& value) {
    snapshot known;
    known.up = value.at("up").get<bool>();
    known.failure = value.at("failure").get<int>();
    known.problem = value.at("problem").get<std::string>();
    known.answered = value.at("answered").get<double>();
    known.answer_seconds = value.at("answer_seconds").get<double>();
    for (const auto& [name, since] : value.at("conditions").items()) {
        known.conditions.push_back({name, since.get<std::string>()});
    }
    for (const json& m : value.at("messages")) {
        known.messages.push_back({m.at("date").get<std::string>(), m.at("text").get<std::string>()});
    }
    known.unkept = value.at("unkept").get<std::string>();
    const json& totals = value.at("totals");
    known.totals = {totals.at("error").get<unsigned long>(), totals.at("warning").get<unsigned long>(),
                    totals.at("info").get<unsigned long>(), totals.at("lost").get<unsigned long>()};
    for (const auto& [name, on] : value.at("modules").items()) {
        known.modules.push_back({name, on.get<bool>()});
    }
    known.operators = number_in(value, "operators");
    known.timer_jobs = number_in(value, "timer_jobs");
    known.uptime_minutes = number_in(value, "uptime_minutes");
    return known;
}

// ASCII output and replaced bytes, because dump throws for text that is not UTF-8.
std::string text_of(const json& value) {
    return value.dump(-1, ' ', true, json::error_handler_t::replace) + "\n";
}

// Reads a state file; nothing when it is missing, damaged or too old.
std::optional<snapshot> fresh_state(const std::string& path) {
    const std::string text = read_file(path).value_or("");
    // Without exceptions: a damaged file counts as none.
    const json value = json::parse(text, nullptr, false);
    if (!value.is_object() || !value.contains("good_until") || !value["good_until"].is_number() ||
        value["good_until"].get<double>() < wall_clock()) {
        return std::nullopt;
    }
    return read_snapshot(text);
}

}  // namespace

// Not the steady clock: other processes compare these times with their own.
double wall_clock() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

std::string snapshot_text(const snapshot& known) {
    return text_of(to_json(known));
}

std::optional<snapshot> read_snapshot(std::string_view text) try {
    return from_json(json::parse(text));
} catch (const json::exception&) {
    return std::nullopt;
}

std::string state_file_to_write(const endpoint& where) {
    const char* runtime = std::getenv("RUNTIME_DIRECTORY");
    const std::string directory = runtime != nullptr ? runtime : state_directory();
    return directory.empty() ? "" : directory + "/" + file_name_of(where) + ".json";
}

// Not durable: after a crash of the machine the follower writes a new one.
bool write_state_file(const std::string& path, const snapshot& known, double good_until,
                      std::string& problem) {
    json value = to_json(known);
    value["good_until"] = good_until;
    return replace_file(path, text_of(value), 0644, false, problem);
}

std::optional<snapshot> followed_state(const endpoint& where) {
    const std::string name = std::string("/").append(file_name_of(where)).append(".json");
    std::optional<snapshot> known = fresh_state(state_directory() + name);
    return known ? known : fresh_state(service_directory + name);
}

std::optional<unsigned long> uptime_of(const endpoint& where) {
    // The uptime file is on the scheduler's host, and of several schedulers there only the service's is known.
    if (!where.host.starts_with("127.") && where.host != "localhost") {
        return std::nullopt;
    }
    const char* data = std::getenv("VGD_data");
    if (data == nullptr && where.port != service_port) {
        return std::nullopt;
    }
    // A file that is missing or damaged is no error; the uptime is then not known.
    unsigned long minutes = 0;
    std::ifstream file(std::string(data != nullptr ? data : service_data) + "/up_time");
    return file >> minutes ? std::optional(minutes) : std::nullopt;
}

}  // namespace client
