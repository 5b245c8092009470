// schedcheck: reads the scheduler's configuration with the scheduler's own parsers and says what is wrong in it.
#include "findings.h"
#include "ini_check.h"
#include "job_check.h"
#include "module_check.h"
#include "password_check.h"
#include "state/sched_status.h"
#include "util/text.h"

#include <CLI/CLI.hpp>
#include <exception>
#include <filesystem>
#include <system_error>

namespace {

constexpr int runs_max = 1000;

struct settings {
    std::string config;
    int runs = 0;  // number of next run times to print for each job
};

// The file in the directory, or the one that the variable names.
std::string chosen_path(const std::string& directory, const char* name, const char* variable) {
    const std::string path = environment(variable);
    return path.empty() ? directory + "/" + name : path;
}

int check_all(const settings& chosen) {
    check::findings found;
    std::error_code problem;
    if (!std::filesystem::is_directory(chosen.config, problem)) {
        found.unreadable(chosen.config, problem ? problem.message() : "not a directory");
        return found.finish();
    }
    st = new sched_status{};  // lives as long as the process, as in the daemon
    copy_text(st->modules_path, chosen_path(chosen.config, "vgd_modules", "VGD_modules_path"));
    copy_text(st->timer_jobs_path, chosen_path(chosen.config, "timer_jobs", "VGD_timer_jobs_path"));
    check::check_ini_files(chosen.config, found);
    const std::string bin = environment("VGD_bin");
    if (bin.empty()) {
        std::fputs("schedcheck: VGD_bin is not set; the programs are not checked\n", stderr);
    }
    const bool has_modules = check::check_modules(bin, found);
    check::check_jobs(has_modules, chosen.runs, found);
    if (environment("VGD_data")[0] == '\0') {
        std::fputs("schedcheck: VGD_data is not set; the password file is not checked\n", stderr);
    } else {
        check::check_password(found);
    }
    return found.finish();
}

}  // namespace

int main(int argc, char** argv) try {
    settings chosen;
    CLI::App app("Reads the scheduler's configuration with its own parsers and prints what is wrong, line by line.",
                 "schedcheck");
    app.add_option("--config", chosen.config, "Directory of the configuration")
        ->envname("VGD_config")
        ->required()
        ->type_name("DIR");
    app.add_option("--next", chosen.runs, "Print the next N times at which each timer job runs")
        ->check(CLI::Range(1, runs_max))
        ->type_name("N");
    app.set_version_flag("-V,--version", "schedcheck " SCHED_VERSION, "Show the version and end");
    app.failure_message([](const CLI::App* tool, const CLI::Error& problem) {
        return "schedcheck: " + CLI::FailureMessage::simple(tool, problem);
    });
    app.footer("Exit codes: 0 nothing found, 1 findings, 2 a file cannot be read or wrong usage.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& problem) {
        return app.exit(problem) == 0 ? 0 : check::exit_unreadable;
    }
    return check_all(chosen);
} catch (const std::exception& problem) {
    std::fprintf(stderr, "schedcheck: %s\n", problem.what());
    return check::exit_unreadable;
}
