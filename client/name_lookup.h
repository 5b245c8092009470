// Looks up names in threads of its own, since the resolver cannot be asked without waiting.
#pragma once

#include <memory>
#include <netinet/in.h>
#include <string>
#include <vector>

namespace client {

struct lookup_result {
    std::size_t host = 0;  // the number that the question had
    std::vector<in_addr> addresses;
    std::string problem;  // why there are none
};

class name_lookup {
public:
    name_lookup();
    ~name_lookup();  // does not wait: a thread that the resolver holds ends with the process
    name_lookup(const name_lookup&) = delete;
    name_lookup& operator=(const name_lookup&) = delete;

    // The address of a host that is given by its numbers; nothing for a name.
    static std::vector<in_addr> numeric(const std::string& name);

    // Begins a look-up. Throws std::system_error when no thread can be had for the first.
    void ask(std::size_t host, const std::string& name);

    // Readable when results wait.
    int fd() const;

    // Takes the results that have come.
    std::vector<lookup_result> take();

private:
    struct shared_state;
    std::shared_ptr<shared_state> state_;
};

}  // namespace client
