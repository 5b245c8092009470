#include "run/json.h"

#include "protocol/listings.h"
#include "protocol/status.h"

#include <map>
#include <nlohmann/json.hpp>

// Members keep the order in which they are added.
using json = nlohmann::ordered_json;

// Conversions of the rows of the answers.
static void to_json(json& to, const condition& c) { to = {{"name", c.name}, {"since", c.since}}; }

static void to_json(json& to, const message& m) { to = {{"date", m.date}, {"text", m.text}}; }

static void to_json(json& to, const module_row& m) { to = {{"name", m.name}, {"on", m.on}}; }

namespace {

std::string status_json(std::string_view answer) {
    const status_report report = parse_status(answer);
    return json_text({{"conditions", report.conditions}, {"messages", report.messages}, {"lost", report.lost}});
}

// The answer of `modcntl` is empty when the module was switched, and has a text when that was refused.
std::string switch_json(const std::vector<std::string>& words, std::string_view answer) {
    return answer.empty() ? json_text({{"module", words[1]}, {"on", words.back() == "on"}})
                          : json_text({{"error", answer.substr(0, answer.find('\n'))}});
}

template <auto parse>
json_writer rows_as(const char* name) {
    return [name](std::string_view answer) { return json_text({{name, parse(answer)}}); };
}

}  // namespace

std::string json_text(const nlohmann::ordered_json& value) {
    return value.dump(-1, ' ', true, json::error_handler_t::replace) + "\n";
}

json_writer json_writer_of(const std::vector<std::string>& words) {
    // With a name, `modcntl` switches a module; its answer then is no listing.
    if (words[0] == "modcntl" && words.size() > 1) {
        return [words](std::string_view answer) { return switch_json(words, answer); };
    }
    // A tab joins two words of a key, because no word contains one. The scheduler ignores further words.
    const std::map<std::string, json_writer> forms = {
        {"status", status_json},
        {"modcntl", rows_as<parse_modules>("modules")},
        {"debug\ttimer", rows_as<parse_timer_jobs>("jobs")},
        {"show\tip", rows_as<parse_connections>("connections")},
        {"show\tallowed_ip", rows_as<parse_networks>("allowed")},
    };
    auto form = forms.find(words[0]);
    if (form == forms.end() && words.size() > 1) {
        form = forms.find(words[0] + "\t" + words[1]);
    }
    return form != forms.end() ? form->second : nullptr;
}

// "error" comes before the members of the answer, which may be long or incomplete.
std::string host_json(const std::string& host, const std::string& line, const std::string& error) {
    json value{{"host", host}};
    if (!error.empty()) {
        value["error"] = error;
    }
    if (!line.empty()) {
        value.update(json::parse(line));
    }
    return json_text(value);
}
