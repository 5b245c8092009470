#include "net/name_lookup.h"

#include <deque>
#include <mutex>
#include <netdb.h>
#include <sys/eventfd.h>
#include <system_error>
#include <thread>
#include <utility>

namespace client {

struct name_lookup::question {
    void look_up();

    const std::string name;
    std::vector<in_addr> addresses = {};
    std::string problem = {};
    bool is_done = false;  // guarded by the lock of the questions; after that the answer does not change
};

void name_lookup::question::look_up() {
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (const int error = getaddrinfo(name.c_str(), nullptr, &wanted, &found); error != 0) {
        problem = gai_strerror(error);
        return;
    }
    for (const addrinfo* a = found; a != nullptr; a = a->ai_next) {
        addresses.push_back(reinterpret_cast<const sockaddr_in*>(a->ai_addr)->sin_addr);
    }
    freeaddrinfo(found);
}

struct name_lookup::all_questions {
    static constexpr std::size_t max_threads = 16;  // more would only load the name server

    void work();

    std::mutex lock;  // guards the fields below
    std::deque<std::shared_ptr<question>> waiting;
    std::size_t threads = 0;
};

void name_lookup::all_questions::work() {
    std::unique_lock guard(lock);
    while (!waiting.empty()) {
        const std::shared_ptr<question> next = std::move(waiting.front());
        waiting.pop_front();
        // The lock is not held during the look-up, which may take long.
        guard.unlock();
        next->look_up();
        guard.lock();
        next->is_done = true;
        eventfd_write(event(), 1);
    }
    --threads;
}

// Never destroyed: a thread that is blocked in the resolver ends with the process.
name_lookup::all_questions& name_lookup::all() {
    static all_questions& questions = *new all_questions;
    return questions;
}

name_lookup::name_lookup(std::string name) : asked_(new question{std::move(name)}) {
    const std::lock_guard guard(all().lock);
    all().waiting.push_back(asked_);
    if (all().threads == all_questions::max_threads) {
        return;
    }
    // When a further thread cannot be created, the existing ones answer the question later.
    try {
        std::thread([] { all().work(); }).detach();
        ++all().threads;
    } catch (const std::system_error&) {
        if (all().threads == 0) {
            throw;
        }
    }
}

bool name_lookup::is_done() const {
    const std::lock_guard guard(all().lock);
    return asked_->is_done;
}

std::vector<in_addr> name_lookup::addresses(std::string& problem) const {
    problem = asked_->problem;
    return asked_->addresses;
}

int name_lookup::event() {
    static const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return fd;
}

void name_lookup::reset() {
    eventfd_t count = 0;
    eventfd_read(event(), &count);
}

}  // namespace client
