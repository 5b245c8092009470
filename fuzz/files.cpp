// The files that are read at the start, each with the same bytes: what is stored stays within its limits.
#include "comm/login.h"
#include "command/module_table.h"
#include "sched/config.h"
#include "support.h"
#include "timer/job_listing.h"
#include "timer/job_table.h"

#include <cstring>
#include <sys/socket.h>

namespace {

void check_jobs() {
    job_table table;
    copy_jobs(table);
    for (int i = 0; i < table.jmax; i++)
        fuzz::require(
            table.job[i].command[0] != '\0' && std::memchr(table.job[i].command, '\0', job_command_size) != nullptr,
            "each job has a command");
    int ends[2];
    fuzz::require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "sockets are created");
    show_timer_jobs(ends[0]);
    close(ends[0]);
    fuzz::require(fuzz::read_to_end(ends[1]).starts_with("Timer Jobs (jmax=" + std::to_string(table.jmax) + ")\r\n"),
                  "the listing has every job");
    close(ends[1]);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::Suite suite;
    for (const char* file : {"sched.conf", "common.ini", "vgd_modules", "timer_jobs", "password"})
        suite.write(file, fuzz::text_of(data, size));
    read_config();
    fuzz::require(st->port > 0 && st->pendtime > 0 && st->syslog_poll_interval > 0, "numbers stay positive");
    fuzz::require(std::strlen(st->bound_ip_address) <= 30, "the bound address keeps 30 characters");
    fuzz::require(read_modules() == 0, "an existing file is read");
    for (int i = 0; i < mod_max; i++)
        for (const char* text : {mod[i].name, mod[i].entrypath, mod[i].display})
            fuzz::require(text[0] != '\0' && std::strpbrk(text, " \t\n") == nullptr, "each text is one word");
    timer_read_jobs();
    check_jobs();
    read_password_file();
    const std::size_t hash = std::strlen(st->auth_hash);
    const std::size_t salt = std::strlen(st->auth_salt);
    fuzz::require((hash == 64 && salt == 8) || (hash == 0 && salt == 0), "both have their length, or both are empty");
    return 0;
}
