// Looks up names in separate threads, because the resolver can only be called blocking.
#pragma once

#include <memory>
#include <netinet/in.h>
#include <string>
#include <vector>

namespace client {

struct lookup_result {
    std::size_t host = 0;  // the number that was passed to ask
    std::vector<in_addr> addresses;
    std::string problem;  // why there are none
};

class name_lookup {
public:
    name_lookup();
    ~name_lookup();  // does not wait: a thread that is blocked in the resolver ends with the process
    name_lookup(const name_lookup&) = delete;
    name_lookup& operator=(const name_lookup&) = delete;

    // Returns the address of a host that is given as an IPv4 address; nothing for a name.
    static std::vector<in_addr> numeric(const std::string& name);

    // Starts a look-up. Throws std::system_error when there is no thread yet and none can be created.
    void ask(std::size_t host, const std::string& name);

    // A descriptor that is readable while results wait.
    int fd() const;

    // Returns the results that have come since the last call.
    std::vector<lookup_result> results();

private:
    struct shared_state;
    std::shared_ptr<shared_state> state_;
};

}  // namespace client
