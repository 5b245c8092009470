// Counts the minutes that the scheduler has been up. The count continues after a restart.
#pragma once

// Loads the count. On the first start writes the date of the start instead. Timer thread, once.
void server_uptime_init();

// Counts one minute and stores the count. Timer thread, each pass.
void server_uptime_logging();
