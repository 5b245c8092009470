// Random use of the rings of messages, against queues of the standard library. Finds messages that are lost, repeated,
// out of order or in the wrong ring, wrong counts of lost messages, and wrong entries of the table.
#include "property.h"

#include <deque>
#include <optional>

namespace unit {

// What to do, with which of the connections in use, how often; the beginning of a message and its least length.
using Step = std::tuple<std::string, std::size_t, int, std::string, std::size_t>;

struct Ring {
    std::deque<std::string> messages;
    int lost = 0;
    bool receives = true;

    void add(const std::string& text) {
        if (messages.size() == 127) {
            ++lost;
        } else {
            messages.push_back(text.substr(0, 1023));
        }
    }
};

struct Rings {
    std::optional<Ring> hmis[hmi_max];  // those in use
    Ring waiting;
    int sent = 0;

    std::vector<int> in_use() const {
        std::vector<int> all;
        for (int i = 0; i < hmi_max; ++i)
            if (hmis[i]) all.push_back(i);
        return all;
    }
    bool anyone_receives() const {
        return std::any_of(std::begin(hmis), std::end(hmis), [](const auto& hmi) { return hmi && hmi->receives; });
    }
    void broadcast(const std::string& begin, std::size_t length) {
        std::string text = begin + std::to_string(++sent);
        text.resize(std::max(text.size(), length), '.');
        hmistruc_all_enqueue(text.c_str());
        for (const int i : in_use())
            if (hmis[i]->receives) hmis[i]->add(text);
        if (!anyone_receives() && (begin == "E" || begin == "W")) waiting.add(text);
    }
    void connect() {
        const auto free = std::find(std::begin(hmis), std::end(hmis), std::nullopt);
        const hmistruc* entry = hmistruc_get();
        RC_ASSERT(entry == (free == std::end(hmis) ? nullptr : &st->hmi[free - hmis]));
        if (entry != nullptr) *free = anyone_receives() ? Ring{} : std::exchange(waiting, {});
    }
    void leave(int i, bool served) {
        served ? static_cast<void>(hmistruc_put(st->hmi[i])) : hmistruc_put_unserved(st->hmi[i]);
        Ring left = *std::exchange(hmis[i], std::nullopt);
        left.receives = true;
        if (!served && !anyone_receives()) waiting = left;
    }
    void read(int i, next_look next = next_look::follows) {
        char text[message_size] = "";
        std::uint32_t queued = 0;
        const bool found = hmistruc_dequeue(st->hmi[i], text, queued, next) == 0;
        RC_ASSERT(found == !hmis[i]->messages.empty());
        if (!found && next == next_look::never) hmis[i]->receives = false;
        if (!found) return;
        RC_ASSERT(std::string(text, strnlen(text, sizeof text)) == hmis[i]->messages.front());
        hmis[i]->messages.pop_front();
    }
    void count_lost(int i) {
        RC_ASSERT(hmistruc_lostcount(st->hmi[i]) == hmis[i]->lost);
        hmis[i]->lost = 0;
    }
    void take(const Step& step) {
        const auto& [act, hmi, times, begin, length] = step;
        const std::vector<int> all = in_use();
        if (act == "broadcast") return broadcast(begin, length);
        if (act == "connect") return connect();
        if (all.empty()) return;
        const int i = all[hmi % all.size()];
        if (act == "read") return read(i);
        if (act == "read last") return read(i, next_look::never);
        if (act == "count lost") return count_lost(i);
        leave(i, act == "leave");
    }
    // All messages that are still there, the waiting ones last.
    void read_all() {
        if (in_use().empty()) connect();
        while (!in_use().empty()) {
            const int i = in_use().front();
            for (std::size_t left = hmis[i]->messages.size() + 1; left > 0; --left) read(i);
            count_lost(i);
            leave(i, true);
        }
        connect();  // gets nothing that was there before
        read(0);
        count_lost(0);
    }
};

struct CommProperty : Scratch {
    static void clear(hmistruc& entry) {
        entry.flag = entry.receives = 0;
        entry.in = entry.out = entry.lost = 0;
        std::memset(entry.queue, 0, ring_slots * sizeof(message_slot));
    }
};

TEST_F(CommProperty, RingsHoldWhatQueuesHold) {
    const auto steps = rc::gen::scale(
        4, rc::gen::container<std::vector<Step>>(rc::gen::tuple(
               rc::gen::element<std::string>("broadcast", "read", "connect", "broadcast", "read", "connect",
                                             "broadcast", "leave", "leave unserved", "count lost", "read last"),
               rc::gen::inRange<std::size_t>(0, 4), rc::gen::element(1, 2, 1, 2, 1, 2, 1, 2, 40, 126, 127),
               rc::gen::element<std::string>("E", "W", "E", "W", "I", "D", "M", "e", ""),
               rc::gen::element<std::size_t>(0, 0, 0, 0, 0, 1022, 1023, 1024))));
    const bool holds = rc::check("rings hold what queues hold", [&] {
        clear(*st->dummy_hmi);
        std::for_each(st->hmi, st->hmi + hmi_max, clear);
        Rings rings;
        for (const Step& step : *steps)
            for (int i = 0; i < std::get<int>(step); ++i) rings.take(step);
        rings.read_all();
    });
    EXPECT_TRUE(holds);
}

}  // namespace unit
