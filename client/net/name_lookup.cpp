#include "net/name_lookup.h"

#include <csignal>
#include <sys/eventfd.h>
#include <utility>

namespace client {

// What the library's thread works with.
struct name_lookup::question {
    std::string name;
    addrinfo wanted{};
    gaicb request{};
};

int name_lookup::event() {
    static const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return fd;
}

void name_lookup::reset() {
    eventfd_t count = 0;
    eventfd_read(event(), &count);
}

name_lookup::name_lookup(std::string name) : asked_(new question{std::move(name)}) {
    asked_->wanted.ai_family = AF_INET;
    asked_->wanted.ai_socktype = SOCK_STREAM;
    asked_->request.ar_name = asked_->name.c_str();
    asked_->request.ar_request = &asked_->wanted;
    sigevent at_end{};
    at_end.sigev_notify = SIGEV_THREAD;
    at_end.sigev_value.sival_int = event();
    at_end.sigev_notify_function = [](sigval to) { eventfd_write(to.sival_int, 1); };
    gaicb* list[] = {&asked_->request};
    if (getaddrinfo_a(GAI_NOWAIT, list, 1, &at_end) != 0) {
        eventfd_write(event(), 1);  // no thread: the request has the error
    }
}

name_lookup::~name_lookup() {
    // One that is under way cannot be taken back: what its thread uses stays.
    if (is_done()) {
        if (asked_->request.ar_result != nullptr) {
            freeaddrinfo(asked_->request.ar_result);
        }
        delete asked_;
    }
}

bool name_lookup::is_done() const {
    return gai_error(&asked_->request) != EAI_INPROGRESS;
}

std::vector<in_addr> name_lookup::addresses(std::string& problem) const {
    std::vector<in_addr> found;
    for (const addrinfo* a = asked_->request.ar_result; a != nullptr; a = a->ai_next) {
        found.push_back(reinterpret_cast<const sockaddr_in*>(a->ai_addr)->sin_addr);
    }
    problem = found.empty() ? gai_strerror(gai_error(&asked_->request)) : "";
    return found;
}

}  // namespace client
