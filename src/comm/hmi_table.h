// The table of connected HMIs and the message ring each of them has.
#pragma once

#include "sched/sched_status.h"
#include "util/text.h"

#include <cstdint>
#include <netinet/in.h>
#include <string_view>

constexpr int hmi_max = 32;         // HMIs at once
constexpr int ring_slots = 128;     // slots of a ring; one stays free, so it holds 127 messages
constexpr int message_size = 1024;  // bytes of a message, its NUL included
constexpr std::size_t remote_size = 16;
constexpr std::size_t user_size = 16;
constexpr std::size_t ipset_size = 64;
constexpr std::size_t nonce_size = 128;

// Values of auth.
constexpr int auth_none = 0;      // no login required
constexpr int auth_required = 1;  // required and not yet done
constexpr int auth_done = 2;

struct message_slot {
    char buf[message_size];  // NUL-terminated, zero-filled behind the text
    std::uint32_t qtime;     // seconds since the epoch: when it was queued
};

constexpr int next_slot(int slot) {
    return (slot + 1) % ring_slots;
}

// One connection. The ring and flag are guarded by hmistruc_lock. The texts are written by the connection thread
// under that lock, so that it may read them without and dumps may read them with it. The other fields belong to the
// connection thread; those that dumps read as well are relaxed.
struct hmistruc {
    std::uint8_t flag;                   // 1 while in use
    int soc;                             // socket, -1 once a command has closed it
    sockaddr_in peer;                    // the peer as accepted
    char remote[remote_size];            // client address text; ipset replaces it
    relaxed<std::uint32_t> tid;          // connection thread, written by main once that thread runs
    message_slot* queue;                 // ring of ring_slots
    int in;                              // next slot to fill
    int out;                             // next slot to read
    int lost;                            // messages dropped since last asked
    relaxed<std::uint32_t> login;        // seconds since the epoch: accepted
    relaxed<std::uint32_t> last_status;  // seconds since the epoch: last status command, 0 before
    int locked;                          // 1 while this HMI holds hmi_mutex
    char user[user_size];                // name given by hello
    int auth;                            // login state
    char nonce[nonce_size];              // login challenge, empty when none
    char ipset[ipset_size];              // address given by ipset, empty when none
    relaxed<int> resource_fd;            // resource connection, -1 when none
};

// Creates the table and the dummy entry in st. Returns 0, or -1 when memory is short. Start-up only.
int hmistruc_init();

// Gives an entry that is all zeros its zero-filled ring. Returns 0 or -1.
int hmistruc_setup(hmistruc& entry);

// Takes a free entry and resets it; the first one in use inherits the dummy's messages. Null when all are in use.
// Takes hmistruc_lock. Main thread only.
hmistruc* hmistruc_get();

// Gives an entry back. Takes hmistruc_lock. Returns 0.
int hmistruc_put(hmistruc& entry);

// Gives back an entry whose connection could not be served. When no other is in use, its messages wait in the dummy's
// ring again, in their order, those included that came meanwhile. Takes hmistruc_lock. Main thread only.
void hmistruc_put_unserved(hmistruc& entry);

// Puts a text, cut at 1023 characters, into one ring; a full ring counts it as lost instead.
void hmistruc_enqueue(hmistruc& entry, std::string_view text) REQUIRES(st->hmistruc_lock);

// Puts a text into the ring of every HMI; with none connected, texts that begin with E or W go to the dummy.
// Takes hmistruc_lock. Event thread. Returns 0.
int hmistruc_all_enqueue(const char* text);

// Takes the oldest message. Returns 0, or -1 when there is none. Takes hmistruc_lock.
int hmistruc_dequeue(hmistruc& entry, char (&text)[message_size], std::uint32_t& qtime);

// Returns the count of lost messages and starts it at 0 again. Takes hmistruc_lock.
int hmistruc_lostcount(hmistruc& entry);

// The first entry in use with that thread id, or null. Takes hmistruc_lock. Nothing calls it at present.
hmistruc* hmistruc_get_hmi_by_tid(std::uint32_t tid);

// 1 when no entry but the one with this index is in use, else 0.
int active_hmi_is_only(int index) REQUIRES(st->hmistruc_lock);

// Moves the dummy's ring into an entry.
void copy_from_dummy_hmi(hmistruc& entry) REQUIRES(st->hmistruc_lock);

// Changes one of an entry's texts (remote, user, ipset). Connection thread, or main before that thread starts.
template <std::size_t N>
void hmistruc_set_text(char (&field)[N], std::string_view text) {
    const mutex_guard guard(st->hmistruc_lock);
    copy_text(field, text);
}

// What dumps show of an entry, copied in one go.
struct hmi_snapshot {
    int flag;
    char remote[remote_size];
    char user[user_size];
    char ipset[ipset_size];
    int in;
    int out;
    int lost;
};

// Copies what dumps show. Any thread; takes hmistruc_lock.
hmi_snapshot hmistruc_snapshot(const hmistruc& entry);

// Copies one ring slot, waiting or not. Any thread; takes hmistruc_lock.
void hmistruc_peek(const hmistruc& entry, int slot, char (&text)[message_size], std::uint32_t& qtime);
