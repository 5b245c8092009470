// The box of one scheduler, below state_directory(): `mail/NAME:PORT.1.box`. It has its counters and the messages that
// nobody has been shown yet.
//
// The first line has the counters; each further line is a record of fixed columns. Only the first byte of a record ('+'
// waits, '-' was shown) and its owner change later, so showing needs no room on the disk:
//
//     +00000000000000000042 o 4711.5f3a9c01    2026-11-24T23:34:11+00:00;E0101:fan 3 stopped
#pragma once

#include "mail/state_file.h"

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

struct status_report;

// One line of an answer of `status`, without its line end. The line that counts lost messages is a message, too.
struct status_line {
    std::uint64_t id = 0;  // its number in the mailbox, rising; 0: it is no message, or could not be stored
    std::string text;
    bool is_message = true;
};

// They only grow.
struct message_totals {
    unsigned long error = 0;
    unsigned long warning = 0;
    unsigned long info = 0;
    unsigned long lost = 0;  // dropped by the scheduler or by the mailbox

    void add(const status_report& report);
};

struct counter_row {
    unsigned long long next_id = 1;
    message_totals totals;
    bool login = false;   // the last connection had to log in: the password is asked for before connecting
    std::string address;  // of the last messages, dotted
};

// Returns the counters of one scheduler; zeros before its first message. Needs no lock.
counter_row counters_of(const std::string& key);

// Returns the keys of all schedulers with a box.
std::set<std::string> keys_of_boxes();

class box {
public:
    struct record {
        std::size_t offset = 0;
        bool waits = false;
        std::uint64_t id = 0;
        char kind = 'o';         // what left it: 'o' an operator's process, 'f' a follower
        std::string owner = {};  // the process that shows it, as the mailbox names it
        std::string text = {};
    };

    // Reads the text of a box. Lines that are no records are left where they are.
    explicit box(std::string_view text);

    // The box of this scheduler for writing: the first that can be locked and read, or a new one. Throws
    // std::runtime_error with the reason when there is none.
    static box open(const std::string& key);
    // Calls action for each box of this scheduler that can be locked and read, one after the other. Adds to problems
    // why the others cannot, which of the boxes have lines that are no records, and what action throws.
    static void each(const std::string& key, std::vector<std::string>& problems,
                     const std::function<void(box&)>& action);

    counter_row& counters() { return counters_; }
    std::vector<record>& records() { return records_; }

    // Each writes at once; false with errno.
    bool append(std::vector<record> more);  // numbers them; the oldest beyond max_messages are dropped and counted
    bool set_owner(record& of, const std::string& owner);
    bool remove(record& shown);
    bool write_counters();
    // Cuts off what was shown. No other call may follow clean(), and only clean() may follow append(): the offsets of
    // the records do not hold.
    void clean();

private:
    // Opens and locks the box, which is created if it does not exist. Throws std::runtime_error with the reason when
    // this fails or the lock is not free within lock_timeout.
    static box open_path(const std::string& path);
    std::vector<record*> oldest_beyond(std::size_t added);
    record count_as_lost(const std::vector<record*>& dropped);

    state_file file_;
    counter_row counters_;
    std::vector<record> records_;  // those that wait and those that were shown, in the order of the file
    std::size_t size_;
    bool has_garbage_ = false;
    bool ends_in_a_line_ = false;  // the last line has no line end
};

// The messages that wait for this scheduler. Needs no lock.
std::vector<box::record> waiting_records(const std::string& key);
