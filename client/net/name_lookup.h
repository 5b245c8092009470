// One look-up of a name, in a thread of the C library: the resolver can only be called blocking.
#pragma once

#include <netdb.h>
#include <netinet/in.h>
#include <string>
#include <vector>

namespace client {

class name_lookup {
public:
    // Starts it. Failures show in addresses().
    explicit name_lookup(std::string name);
    ~name_lookup();
    name_lookup(const name_lookup&) = delete;
    name_lookup& operator=(const name_lookup&) = delete;

    bool is_done() const;

    // Valid when it is done. Without addresses, problem has the reason.
    std::vector<in_addr> addresses(std::string& problem) const;

    // Readable when a look-up of the process has ended, until reset().
    static int event();
    static void reset();

private:
    struct question;
    question* asked_;
};

}  // namespace client
