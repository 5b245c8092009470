// Timer job files: any file gives a table within its limits, whose jobs can be listed.
#include "support.h"
#include "timer/job_listing.h"
#include "timer/job_table.h"

#include <cstring>
#include <sys/socket.h>

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::Suite suite;
    suite.write("timer_jobs", fuzz::text_of(data, size));
    timer_read_jobs();
    job_table table;
    copy_jobs(table);
    fuzz::require(table.jmax >= 0 && table.jmax <= job_max, "the table has no more than its maximum of jobs");
    for (int i = 0; i < table.jmax; i++) {
        const char* command = table.job[i].command;
        fuzz::require(command[0] != '\0' && std::strlen(command) < sizeof table.job[i].command,
                      "each job has a command");
    }
    int ends[2];
    fuzz::require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "sockets are created");
    show_timer_jobs(ends[0]);
    close(ends[0]);
    fuzz::require(fuzz::read_to_end(ends[1]).starts_with("Timer Jobs (jmax=" + std::to_string(table.jmax) + ")\r\n"),
                  "the listing has every job");
    close(ends[1]);
    return 0;
}
