// One look-up of a name, in another thread, because the resolver has only blocking calls.
#pragma once

#include <memory>
#include <netinet/in.h>
#include <string>
#include <vector>

namespace client {

class name_lookup {
public:
    // Starts it, or queues it while all threads are busy. Throws std::system_error when no thread can be created.
    explicit name_lookup(std::string name);

    bool is_done() const;

    // Valid when it is done. Without addresses, problem has the reason.
    std::vector<in_addr> addresses(std::string& problem) const;

    // Readable when a look-up of the process has ended, until reset().
    static int event();
    static void reset();

private:
    struct question;
    struct all_questions;
    static all_questions& all();

    std::shared_ptr<question> asked_;  // shared with a thread that may be blocked in the resolver
};

}  // namespace client
