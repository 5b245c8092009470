#include "sched/config.h"
#include "sched/main_loop.h"
#include "sched/startup.h"
#include "sched/supervisor.h"
#include "state/sched_status.h"
#include "trace/trace.h"
#include "util/descriptors.h"

#include <cstring>

int main(int argc, char* argv[]) {
    take_over_descriptors();
    if (argc > 1 && std::strcmp(argv[1], "-v") == 0) {
        print_version();
    }
    init_sched();
    trprintf("*** VGD scheduler *** version.%s\n", version_text);
    read_config();
    const int niceness = parse_options(argc, argv);
    init_sched2();
    apply_niceness(niceness);
    load_modules();
    if (no_alive != 0) {
        sched_main();
    }
    alive_check();
}
