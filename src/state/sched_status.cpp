#include "state/sched_status.h"

sched_status* st = nullptr;
int no_alive = 0;
