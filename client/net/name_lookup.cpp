#include "net/name_lookup.h"

#include <cerrno>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <netdb.h>
#include <sys/eventfd.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

namespace client {

namespace {

constexpr std::size_t max_threads = 16;  // look-ups at once; more would only load the name server

lookup_result look_up(std::size_t host, const std::string& name, int flags) {
    lookup_result result{host, {}, ""};
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags;
    addrinfo* found = nullptr;
    const int error = getaddrinfo(name.c_str(), nullptr, &hints, &found);
    if (error != 0) {
        result.problem = gai_strerror(error);
        return result;
    }
    for (const addrinfo* a = found; a != nullptr; a = a->ai_next) {
        result.addresses.push_back(reinterpret_cast<const sockaddr_in*>(a->ai_addr)->sin_addr);
    }
    freeaddrinfo(found);
    return result;
}

}  // namespace

// The threads share the ownership, because they may live longer than the object that started them.
struct name_lookup::shared_state {
    ~shared_state() {
        if (event >= 0) {
            close(event);
        }
    }

    void work();

    const int event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    std::mutex lock;  // guards the fields below
    std::condition_variable asked;
    std::deque<std::pair<std::size_t, std::string>> questions;
    std::vector<lookup_result> results;
    std::size_t threads = 0;
    std::size_t waiting = 0;  // idle threads
    bool ending = false;
};

void name_lookup::shared_state::work() {
    std::unique_lock guard(lock);
    for (;;) {
        ++waiting;
        asked.wait(guard, [this] { return ending || !questions.empty(); });
        --waiting;
        if (ending) {
            return;
        }
        const auto [host, name] = std::move(questions.front());
        questions.pop_front();
        // The lock is not held during the look-up, which may take long.
        guard.unlock();
        lookup_result result = look_up(host, name, 0);
        guard.lock();
        results.push_back(std::move(result));
        eventfd_write(event, 1);
    }
}

name_lookup::name_lookup() : state_(std::make_shared<shared_state>()) {
    if (state_->event < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

name_lookup::~name_lookup() {
    const std::lock_guard guard(state_->lock);
    state_->ending = true;
    state_->asked.notify_all();
}

std::vector<in_addr> name_lookup::numeric(const std::string& name) {
    return look_up(0, name, AI_NUMERICHOST).addresses;
}

void name_lookup::ask(std::size_t host, const std::string& name) {
    const std::lock_guard guard(state_->lock);
    state_->questions.emplace_back(host, name);
    state_->asked.notify_one();
    if (state_->waiting >= state_->questions.size() || state_->threads == max_threads) {
        return;
    }
    // When a further thread cannot be created, the existing ones answer the question later.
    try {
        std::thread([state = state_] { state->work(); }).detach();
        ++state_->threads;
    } catch (const std::system_error&) {
        if (state_->threads == 0) {
            throw;
        }
    }
}

int name_lookup::fd() const {
    return state_->event;
}

std::vector<lookup_result> name_lookup::results() {
    // The event is reset before the results are read, so that a later result makes it readable again.
    eventfd_t count = 0;
    eventfd_read(state_->event, &count);
    const std::lock_guard guard(state_->lock);
    return std::exchange(state_->results, {});
}

}  // namespace client
