// The count of minutes the scheduler has been up, across restarts.
#pragma once

// Loads the count; on a first start writes the date instead. Timer thread, once.
void server_uptime_init();

// Counts one minute and stores the count. Timer thread, each pass.
void server_uptime_logging();
