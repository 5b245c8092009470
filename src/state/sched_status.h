// The record of settings and status. There is one; st points to it.
#pragma once

#include "state/status_mark.h"
#include "util/mutex.h"
#include "util/relaxed.h"
#include "util/text.h"

#include <cstdint>

constexpr int default_port = 9980;            // when the services database has no entry
constexpr int default_interval = 60;          // seconds: pendtime and syslog_poll_interval
constexpr int default_syslog_port = 514;      // UDP
constexpr int default_resource_port = 18000;  // TCP
constexpr int allowed_max = 10;               // entries of allowed_ip_address

// One network that may connect. An addr of 0 marks an empty entry.
struct allowed_address {
    std::uint32_t addr;  // IPv4 address, network byte order
    std::uint32_t mask;  // net mask, host byte order
};

struct hmistruc;

// The main thread writes settings and paths during start-up, before any other thread exists; afterwards they are only
// read. The comment of a field names any other writer.
struct sched_status {
    // ---- settings
    std::int32_t port;                  // TCP port of the listener; default 9980 or the services entry
    std::uint8_t debug;                 // 1: trace to standard output instead of the files
    std::uint8_t watch_malloc;          // 1: start module programs with LD_PRELOAD and MALLOC_DEBUG set
    std::int32_t pendtime;              // seconds, default 60; traced by the event thread
    std::int32_t syslog_poll_interval;  // seconds, default 60, always above 0

    // ---- paths
    char sched_pid_path[path_size];          // PID file of the scheduler
    char alivechk_pid_path[path_size];       // PID file of the supervisor
    char sched_log_path[path_size];          // trace file
    char event_log_path[path_size];          // event log
    char pipe_path[path_size];               // event pipe
    char modules_path[path_size];            // module list
    char timer_jobs_path[path_size];         // timer job file
    char pvo_ini_path[path_size];            // file of the forwarding switch, watched by the timer loop
    char qmx_syslog_offset_path[path_size];  // position of the forwarding module in the system log
    char up_time_path[path_size];            // uptime count
    char up_time_start_path[path_size];      // date of the first start

    // ---- state of the process
    relaxed<std::int32_t> pipe_ready;  // 1 once the event thread has tried to open the pipe; main polls it
    relaxed<std::uint32_t> uptime;     // minutes counted; written and read by the timer thread

    // ---- status marks; state/status_mark.h names writers and readers
    status_mark confdate;  // configuration date; reported whether set or not
    status_mark error;     // hardware error
    status_mark prevent;   // prognosis
    status_mark diag;      // diagnosis
    status_mark conf;      // configuration
    status_mark patrol;    // a timer job "patrol" is available
    status_mark korvo;     // korvo condition
    status_mark snap;      // snapshot
    status_mark padiag;    // a timer job "padiag" is available

    // ---- HMI table; the pointers are set by start-up
    hmistruc* hmi;              // table of hmi_max entries
    hmistruc* dummy_hmi;        // keeps messages while no HMI is connected
    posix_mutex hmistruc_lock;  // guards the HMI table and every message ring

    // ---- access and login
    char bound_ip_address[32];                        // local address to bind; empty means all
    allowed_address allowed_ip_address[allowed_max];  // networks that may connect; all may when the first addr is 0
    char auth_hash[128];                              // 64 characters, or empty when no login is required
    char auth_salt[128];                              // 8 characters, or empty

    // ---- forwarding
    char udp_dest_addr[128];     // receiver of forwarded data, default "127.0.0.1"
    std::int32_t udp_dest_port;  // its UDP port for log datagrams, default 514
    std::int32_t qmxut_port;     // its TCP port for resource data, default 18000
};

// Null until start-up allocates the record; lives until the process ends.
extern sched_status* st;

// 1 with -D or -d A: the scheduler runs without a supervisor, in the process that was started. Written by start-up
// only.
extern int no_alive;
