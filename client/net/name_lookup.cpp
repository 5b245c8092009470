#include "net/name_lookup.h"

#include <deque>
#include <mutex>
#include <netdb.h>
#include <sys/eventfd.h>
#include <system_error>
#include <thread>
#include <utility>

namespace client {

namespace {

name_lookup::answer look_up(const std::string& name) {
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (const int error = getaddrinfo(name.c_str(), nullptr, &wanted, &found); error != 0) {
        return {{}, gai_strerror(error)};
    }
    name_lookup::answer result;
    for (const addrinfo* a = found; a != nullptr; a = a->ai_next) {
        result.addresses.push_back(reinterpret_cast<const sockaddr_in*>(a->ai_addr)->sin_addr);
    }
    freeaddrinfo(found);
    return result;
}

constexpr std::size_t max_threads = 16;  // more would only load the name server

// The look-ups that wait for a thread.
struct question_queue {
    std::mutex lock;  // guards the fields below
    std::deque<std::packaged_task<name_lookup::answer()>> waiting;
    std::size_t threads = 0;
};

// Never destroyed: a thread that is blocked in the resolver ends with the process.
question_queue& questions() {
    static question_queue& all = *new question_queue;
    return all;
}

void work() {
    question_queue& all = questions();
    std::unique_lock guard(all.lock);
    while (!all.waiting.empty()) {
        std::packaged_task<name_lookup::answer()> next = std::move(all.waiting.front());
        all.waiting.pop_front();
        // The lock is not held during the look-up, which may take long.
        guard.unlock();
        next();
        eventfd_write(name_lookup::event(), 1);
        guard.lock();
    }
    --all.threads;
}

}  // namespace

name_lookup::name_lookup(const std::string& name) {
    question_queue& all = questions();
    const std::lock_guard guard(all.lock);
    answer_ = all.waiting.emplace_back([name] { return look_up(name); }).get_future();
    if (all.threads == max_threads) {
        return;
    }
    // When a further thread cannot be created, the existing ones answer the question later.
    try {
        std::thread(work).detach();
        ++all.threads;
    } catch (const std::system_error&) {
        if (all.threads == 0) {
            throw;
        }
    }
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
