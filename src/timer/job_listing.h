// The job table as the debug command shows it.
#pragma once

// Writes a title, a ruler and the slots of each job to a socket, with one write for each line. HMI threads.
void show_timer_jobs(int soc);
