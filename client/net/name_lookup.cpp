#include "net/name_lookup.h"

#include <cerrno>
#include <deque>
#include <mutex>
#include <netdb.h>
#include <sys/eventfd.h>
#include <system_error>
#include <thread>
#include <utility>

namespace {

constexpr std::size_t max_threads = 16;  // more would only load the name server

// The look-ups that wait for a thread.
struct lookup_queue {
    std::mutex lock;  // guards the fields below
    std::deque<std::shared_ptr<name_lookup>> waiting;
    std::size_t threads = 0;
};

// Never destroyed: a thread that is blocked in the resolver ends with the process.
lookup_queue& queue = *new lookup_queue;

void resolve(name_lookup& what) {
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (const int error = getaddrinfo(what.name.c_str(), nullptr, &wanted, &found); error != 0) {
        what.problem = gai_strerror(error);
        return;
    }
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
    for (const addrinfo* a = found; a != nullptr; a = a->ai_next) {
        what.addresses.push_back(reinterpret_cast<const sockaddr_in*>(a->ai_addr)->sin_addr);
    }
}

void work() {
    std::unique_lock guard(queue.lock);
    while (!queue.waiting.empty()) {
        const std::shared_ptr<name_lookup> next = std::move(queue.waiting.front());
        queue.waiting.pop_front();
        // The lock is not held during the look-up, which may take long.
        guard.unlock();
        resolve(*next);
        next->is_done = true;
        eventfd_write(next->ended.get(), 1);
        guard.lock();
    }
    --queue.threads;
}

}  // namespace

std::shared_ptr<name_lookup> look_up(const std::string& name) {
    std::shared_ptr<name_lookup> added(new name_lookup{name, descriptor(eventfd(0, EFD_CLOEXEC))});
    if (!added->ended.is_open()) {
        throw std::system_error(errno, std::generic_category());
    }
    const std::lock_guard guard(queue.lock);
    // When a further thread cannot be created, the existing ones answer the question later.
    try {
        if (queue.threads < max_threads) {
            std::thread(work).detach();
            ++queue.threads;
        }
    } catch (const std::system_error&) {
        if (queue.threads == 0) {
            throw;
        }
    }
    queue.waiting.push_back(added);
    return added;
}
