// Watches the system log and runs the forwarding module when it has grown.
#pragma once

#include <sys/types.h>

// The log as the last poll saw it.
struct syslog_seen {
    off_t size = 0;
    ino_t inode = 0;
};

// Thread body: polls at every multiple of syslog_poll_interval seconds. Never returns.
void event_main_syslog();

// One poll of the log at path while forwarding is on. Watcher thread.
void syslog_poll(const char* path, syslog_seen& seen);
