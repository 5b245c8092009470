// schedctl: the operator's client of the scheduler.
#include "answer.h"
#include "fleet_watch.h"
#include "many_shot.h"
#include "one_shot.h"
#include "options.h"
#include "session.h"
#include "watch.h"

#include <clocale>
#include <cstdio>
#include <exception>

int main(int argc, char** argv) try {
    std::setlocale(LC_CTYPE, "");
    client::settings chosen;
    if (const std::optional<int> end = client::parse_options(argc, argv, chosen)) {
        return *end;
    }
    if (chosen.watch) {
        return chosen.hosts.empty() ? client::run_watch(chosen) : client::run_fleet_watch(chosen);
    }
    if (!chosen.hosts.empty()) {
        return client::run_many_shot(chosen);
    }
    return chosen.words.empty() ? client::run_session(chosen) : client::run_one_shot(chosen);
} catch (const std::exception& problem) {
    std::fprintf(stderr, "schedctl: %s\n", problem.what());
    return client::exit_usage;
}
