#include "comm/hmi_table.h"

#include "trace/trace.h"
#include "util/clock.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

void reset_entry(hmistruc& entry) REQUIRES(st->hmistruc_lock) {
    entry.flag = 1;
    entry.receives = 1;
    entry.remote[0] = '\0';  // or listings would show the former client until the new address is stored
    entry.tid = 0;
    entry.in = 0;
    entry.out = 0;
    entry.lost = 0;
    entry.login = 0;
    entry.last_status = 0;
    entry.locked = 0;
    std::memset(entry.user, 0, sizeof entry.user);
    entry.auth = auth_none;
    std::memset(entry.nonce, 0, sizeof entry.nonce);
    std::memset(entry.ipset, 0, sizeof entry.ipset);
    entry.resource_fd = -1;
    entry.lines = nullptr;
}

void free_entry(hmistruc& entry) REQUIRES(st->hmistruc_lock) {
    entry.flag = 0;
    entry.receives = 0;
}

void move_ring(hmistruc& from, hmistruc& to) REQUIRES(st->hmistruc_lock) {
    std::memcpy(to.queue, from.queue, ring_slots * sizeof(message_slot));
    to.out = from.out;
    to.in = from.in;
    to.lost = from.lost;
    from.in = 0;
    from.out = 0;
    from.lost = 0;
}

}  // namespace

int hmistruc_setup(hmistruc& entry) {
    // One zero-filled block from the system: pages of unused slots cost no memory.
    entry.queue = static_cast<message_slot*>(std::calloc(ring_slots, sizeof(message_slot)));
    return entry.queue == nullptr ? -1 : 0;
}

int hmistruc_init() {
    st->hmi = new (std::nothrow) hmistruc[hmi_max]{};
    st->dummy_hmi = new (std::nothrow) hmistruc{};
    const mutex_guard guard(st->hmistruc_lock);
    bool complete = st->hmi != nullptr && st->dummy_hmi != nullptr && hmistruc_setup(*st->dummy_hmi) == 0;
    for (int i = 0; complete && i < hmi_max; ++i) {
        complete = hmistruc_setup(st->hmi[i]) == 0;
    }
    if (!complete) {
        std::fprintf(stderr, "Error:hmistruc:cannot allocate memory(errno=%d)\n", errno);
        return -1;
    }
    return 0;
}

hmistruc* hmistruc_get() {
    const mutex_guard guard(st->hmistruc_lock);
    for (int i = 0; i < hmi_max; ++i) {
        hmistruc& entry = st->hmi[i];
        if (entry.flag != 0) {
            continue;
        }
        reset_entry(entry);
        if (active_hmi_is_only(i) != 0) {
            copy_from_dummy_hmi(entry);
        }
        return &entry;
    }
    return nullptr;
}

int hmistruc_put(hmistruc& entry) {
    const mutex_guard guard(st->hmistruc_lock);
    free_entry(entry);
    return 0;
}

void hmistruc_put_unserved(hmistruc& entry) {
    const mutex_guard guard(st->hmistruc_lock);
    free_entry(entry);
    if (active_hmi_is_only(-1) != 0) {
        move_ring(entry, *st->dummy_hmi);  // the dummy is empty: it gets no messages while an entry receives
    }
}

int active_hmi_is_only(int index) {
    for (int i = 0; i < hmi_max; ++i) {
        if (i != index && st->hmi[i].receives != 0) {
            return 0;
        }
    }
    return 1;
}

void copy_from_dummy_hmi(hmistruc& entry) {
    move_ring(*st->dummy_hmi, entry);
    trprintf("event:extract from dummy out=%d in=%d lost=%d\n", entry.out, entry.in, entry.lost);
}

void hmistruc_enqueue(hmistruc& entry, std::string_view text) {
    const int next = next_slot(entry.in);
    if (next == entry.out) {
        ++entry.lost;
        return;
    }
    message_slot& slot = entry.queue[entry.in];
    const std::size_t length = copy_text(slot.buf, text);
    std::memset(slot.buf + length, 0, sizeof slot.buf - length);
    slot.qtime = static_cast<std::uint32_t>(now_seconds());
    entry.in = next;
}

int hmistruc_all_enqueue(const char* text) {
    const std::string_view message(text);
    const mutex_guard guard(st->hmistruc_lock);
    bool anyone = false;
    for (int i = 0; i < hmi_max; ++i) {
        if (st->hmi[i].receives != 0) {
            hmistruc_enqueue(st->hmi[i], message);
            anyone = true;
        }
    }
    if (!anyone && (text[0] == 'E' || text[0] == 'W')) {
        hmistruc_enqueue(*st->dummy_hmi, message);
    }
    return 0;
}

int hmistruc_dequeue(hmistruc& entry, char (&text)[message_size], std::uint32_t& qtime, next_look next) {
    const mutex_guard guard(st->hmistruc_lock);
    if (entry.in == entry.out) {
        if (next == next_look::never) {
            entry.receives = 0;
        }
        return -1;
    }
    const message_slot& slot = entry.queue[entry.out];
    std::memcpy(text, slot.buf, sizeof text);
    qtime = slot.qtime;
    entry.out = next_slot(entry.out);
    return 0;
}

int hmistruc_lostcount(hmistruc& entry) {
    const mutex_guard guard(st->hmistruc_lock);
    const int lost = entry.lost;
    entry.lost = 0;
    return lost;
}

hmistruc* hmistruc_get_hmi_by_tid(std::uint32_t tid) {
    const mutex_guard guard(st->hmistruc_lock);
    for (int i = 0; i < hmi_max; ++i) {
        if (st->hmi[i].flag != 0 && st->hmi[i].tid == tid) {
            return &st->hmi[i];
        }
    }
    return nullptr;
}

hmi_snapshot hmistruc_snapshot(const hmistruc& entry) {
    const mutex_guard guard(st->hmistruc_lock);
    hmi_snapshot copy{};
    copy.flag = entry.flag;
    copy_text(copy.remote, entry.remote);
    copy_text(copy.user, entry.user);
    copy_text(copy.ipset, entry.ipset);
    copy.in = entry.in;
    copy.out = entry.out;
    copy.lost = entry.lost;
    return copy;
}

void hmistruc_peek(const hmistruc& entry, int slot, char (&text)[message_size], std::uint32_t& qtime) {
    const mutex_guard guard(st->hmistruc_lock);
    std::memcpy(text, entry.queue[slot].buf, sizeof text);
    qtime = entry.queue[slot].qtime;
}
