// One look-up of a name, in another thread, because the resolver has only blocking calls.
#pragma once

#include <chrono>
#include <future>
#include <netinet/in.h>
#include <string>
#include <vector>

namespace client {

class name_lookup {
public:
    struct answer {
        std::vector<in_addr> addresses;
        std::string problem;  // why there are none
    };

    // Starts it, or queues it while all threads are busy. Throws std::system_error when no thread can be created.
    explicit name_lookup(const std::string& name);

    bool is_done() const { return answer_.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }
    answer take() { return answer_.get(); }  // once, when is_done()

    // Readable when a look-up of the process has ended, until reset().
    static int event();
    static void reset();

private:
    std::future<answer> answer_;
};

}  // namespace client
