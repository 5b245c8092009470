// The table of connected HMIs, each with its message ring.
#pragma once

#include "state/sched_status.h"
#include "util/text.h"

#include <cstdint>
#include <netinet/in.h>
#include <string_view>

constexpr int hmi_max = 32;         // HMIs at once
constexpr int ring_slots = 128;     // slots of a ring; one always stays free, so it holds 127 messages
constexpr int message_size = 1024;  // bytes of a message, its NUL included
constexpr std::size_t remote_size = 16;
constexpr std::size_t user_size = 16;
constexpr std::size_t ipset_size = 64;
constexpr std::size_t nonce_size = 128;

// Values of auth.
constexpr int auth_none = 0;      // no login required
constexpr int auth_required = 1;  // required and not yet done
constexpr int auth_done = 2;

class line_reader;

struct message_slot {
    char buf[message_size];  // text, then NUL bytes to the end
    std::uint32_t qtime;     // seconds since the epoch: when it was queued
};

constexpr int next_slot(int slot) { return (slot + 1) % ring_slots; }

// One connection. Only the connection thread writes remote, user and ipset. It writes them under hmistruc_lock and
// reads them without it; dumps read them under it. The other fields without GUARDED_BY belong to the connection thread.
// Those that dumps also read are relaxed.
struct hmistruc {
    std::uint8_t flag GUARDED_BY(st->hmistruc_lock);      // 1 while in use
    std::uint8_t receives GUARDED_BY(st->hmistruc_lock);  // 1 while it gets messages; 0 after its last look
    message_slot* queue GUARDED_BY(st->hmistruc_lock);    // ring of ring_slots
    int in GUARDED_BY(st->hmistruc_lock);                 // next slot to fill
    int out GUARDED_BY(st->hmistruc_lock);                // next slot to read
    int lost GUARDED_BY(st->hmistruc_lock);               // messages dropped since the last hmistruc_lostcount
    int soc;                                              // socket, -1 once a command has closed it
    sockaddr_in peer;                                     // address that accept returned
    char remote[remote_size];                             // client address text; ipset replaces it
    relaxed<std::uint32_t> tid;                           // connection thread, written by main once that thread runs
    relaxed<std::uint32_t> login;                         // when it was accepted, seconds since the epoch
    relaxed<std::uint32_t> last_status;  // last status command, seconds since the epoch; 0 before the first
    int locked;                          // 1 while this HMI holds hmi_mutex
    char user[user_size];                // name given by hello
    int auth;                            // login state
    char nonce[nonce_size];              // login challenge, empty when none
    char ipset[ipset_size];              // address given by ipset, empty when none
    relaxed<int> resource_fd;            // resource connection, -1 when none
    line_reader* lines;                  // what the client has sent; null while no thread serves it
};

// Creates the table and the dummy entry in st. Returns 0, or -1 when memory is short. Takes hmistruc_lock. Start-up
// only.
int hmistruc_init();

// Allocates the zero-filled ring of an entry that is all zeros. Returns 0, or -1 when memory is short.
int hmistruc_setup(hmistruc& entry) REQUIRES(st->hmistruc_lock);

// Takes a free entry and resets it. When no other entry receives, it gets the dummy's messages. Null when all entries
// are in use. Takes hmistruc_lock. Main thread only.
hmistruc* hmistruc_get();

// Frees an entry. Takes hmistruc_lock. Returns 0.
int hmistruc_put(hmistruc& entry);

// Frees an entry whose connection could not be served. When no other entry receives, all its messages move back to the
// dummy's ring, in their order. Takes hmistruc_lock. Main thread only.
void hmistruc_put_unserved(hmistruc& entry);

// Puts a text, cut at 1023 characters, into one ring. When the ring is full, the text is dropped and counted as lost.
void hmistruc_enqueue(hmistruc& entry, std::string_view text) REQUIRES(st->hmistruc_lock);

// Puts a text into the ring of every entry that receives. When none does, texts that begin with E or W go to the dummy.
// Takes hmistruc_lock. Event thread. Returns 0.
int hmistruc_all_enqueue(const char* text);

enum class next_look { follows, never };

// Takes the oldest message. Returns 0, or -1 when there is none. With next_look::never, a look that finds none is the
// entry's last one, so the entry receives no more: later messages go to the others, or wait for the next connection.
// Takes hmistruc_lock.
int hmistruc_dequeue(hmistruc& entry, char (&text)[message_size], std::uint32_t& qtime,
                     next_look next = next_look::follows);

// Returns the count of lost messages and resets it to 0. Takes hmistruc_lock.
int hmistruc_lostcount(hmistruc& entry);

// Returns the first entry in use with that thread id, or null. Takes hmistruc_lock. Nothing calls it at present.
hmistruc* hmistruc_get_hmi_by_tid(std::uint32_t tid);

// Returns 1 when no entry receives, not counting the one with this index; else 0.
int active_hmi_is_only(int index) REQUIRES(st->hmistruc_lock);

// Moves the dummy's ring into an entry.
void copy_from_dummy_hmi(hmistruc& entry) REQUIRES(st->hmistruc_lock);

// Changes one of an entry's texts (remote, user, ipset). Connection thread, or main before that thread starts.
template <std::size_t N>
void hmistruc_set_text(char (&field)[N], std::string_view text) {
    const mutex_guard guard(st->hmistruc_lock);
    copy_text(field, text);
}

// The fields of an entry that dumps show, copied under one lock.
struct hmi_snapshot {
    int flag;
    char remote[remote_size];
    char user[user_size];
    char ipset[ipset_size];
    int in;
    int out;
    int lost;
};

// Copies the fields that dumps show. Any thread; takes hmistruc_lock.
hmi_snapshot hmistruc_snapshot(const hmistruc& entry);

// Copies one ring slot, whether its message was already read or not. Any thread; takes hmistruc_lock.
void hmistruc_peek(const hmistruc& entry, int slot, char (&text)[message_size], std::uint32_t& qtime);
