// Uses libmicrohttpd, not cpp-httplib: it bounds the memory of a connection and runs in a loop of ours, where the other
// has a thread for each request and stores a header line of any length. Debian maintains both.
#include "exporter/http_server.h"

#include "net/host_list.h"
#include "protocol/limits.h"

#include <algorithm>
#include <cerrno>
#include <microhttpd.h>
#include <netdb.h>
#include <stdexcept>
#include <string_view>
#include <sys/resource.h>
#include <sys/socket.h>
#include <system_error>

namespace {

MHD_Result queue(MHD_Connection* connection, const http_reply& reply) {
    // The library takes a pointer to bytes that it only reads.
    MHD_Response* response =
        MHD_create_response_from_buffer(reply.text.size(), const_cast<char*>(reply.text.data()), MHD_RESPMEM_MUST_COPY);
    if (response == nullptr) {
        return MHD_NO;  // no memory: the connection is closed
    }
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, reply.type.c_str());
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
    if (reply.status == MHD_HTTP_METHOD_NOT_ALLOWED) {
        MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
    }
    const MHD_Result queued = MHD_queue_response(connection, reply.status, response);
    MHD_destroy_response(response);
    return queued;
}

MHD_Result add_target(void* targets, MHD_ValueKind, const char* key, std::size_t key_size, const char* value,
                      std::size_t size) {
    if (std::string_view(key, key_size) == "target") {
        static_cast<std::vector<std::string>*>(targets)->emplace_back(value != nullptr ? value : "", size);
    }
    return MHD_YES;
}

}  // namespace

struct http_server::callbacks {
    // Called when the headers are complete, for each part of a body, when the request is complete, and again after a
    // suspension.
    static MHD_Result request(void* self, MHD_Connection* connection, const char* url, const char* method, const char*,
                              const char*, std::size_t* upload_size, void** context) {
        if (*context == nullptr) {
            auto request = std::make_unique<http_request>();
            request->path = url;
            request->connection = connection;
            MHD_get_connection_values_n(connection, MHD_GET_ARGUMENT_KIND, add_target, &request->targets);
            *context = request.release();  // until completed()
            return MHD_YES;
        }
        if (*upload_size != 0) {
            *upload_size = 0;  // a part of a body, which is dropped
            return MHD_YES;
        }
        auto& request = *static_cast<http_request*>(*context);
        if (const std::string_view wanted = method; wanted != MHD_HTTP_METHOD_GET && wanted != MHD_HTTP_METHOD_HEAD) {
            request.reply = {.status = MHD_HTTP_METHOD_NOT_ALLOWED, .text = "only GET and HEAD\n"};
        } else if (!request.reply) {
            request.reply = static_cast<http_server*>(self)->handler_(request);
        }
        if (!request.reply) {
            MHD_suspend_connection(connection);
            return MHD_YES;
        }
        return queue(connection, *request.reply);
    }

    static void completed(void*, MHD_Connection*, void** context, MHD_RequestTerminationCode) {
        delete static_cast<http_request*>(*context);
        *context = nullptr;
    }

    static void connection(void* self, MHD_Connection* connection, void**, MHD_ConnectionNotificationCode code) {
        auto& server = *static_cast<http_server*>(self);
        if (code == MHD_CONNECTION_NOTIFY_STARTED) {
            server.open_[connection] = clock::now() + server.lifetime_;
        } else {
            server.open_.erase(connection);
        }
    }
};

http_server::http_server(const std::string& address, const std::string& port, std::chrono::seconds lifetime,
                         handler answerer)
    : lifetime_(lifetime), handler_(std::move(answerer)), daemon_(nullptr, MHD_stop_daemon) {
    const std::string fault = "cannot listen at " + address + ":" + port + ": ";
    if (!port_of(port)) {
        throw std::runtime_error(fault + "expected ADDRESS:PORT");
    }
    addrinfo hints{};  // without AI_ADDRCONFIG, which refuses ::1 on a machine that has no other IPv6 address
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    if (const int unknown = getaddrinfo(address.c_str(), port.c_str(), &hints, &list); unknown != 0) {
        throw std::runtime_error(fault + gai_strerror(unknown));
    }
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> found(list, freeaddrinfo);
    const unsigned family = found->ai_family == AF_INET6 ? unsigned{MHD_USE_DUAL_STACK} : 0;
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    // At most half of the descriptors, so that the others are left for files.
    const auto limit = static_cast<unsigned>(std::min<rlim_t>(max_http_connections, files.rlim_cur / 2));
    daemon_.reset(MHD_start_daemon(family | MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME, 0, nullptr, nullptr,
                                   &callbacks::request, this,                                 //
                                   MHD_OPTION_SOCK_ADDR, found->ai_addr,                      //
                                   MHD_OPTION_CONNECTION_MEMORY_LIMIT, http_memory,           //
                                   MHD_OPTION_CONNECTION_LIMIT, limit,                        //
                                   MHD_OPTION_STRICT_FOR_CLIENT, 1,                           //
                                   MHD_OPTION_NOTIFY_COMPLETED, &callbacks::completed, this,  //
                                   MHD_OPTION_NOTIFY_CONNECTION, &callbacks::connection, this, MHD_OPTION_END));
    if (daemon_ == nullptr) {
        throw std::runtime_error(fault + std::generic_category().message(errno));  // of its system call
    }
    fd_ = MHD_get_daemon_info(daemon_.get(), MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd;
}

http_server::clock::time_point http_server::step() {
    MHD_run(daemon_.get());
    const clock::time_point now = clock::now();
    MHD_UNSIGNED_LONG_LONG wait = 0;
    const bool waits = MHD_get_timeout(daemon_.get(), &wait) == MHD_YES;
    clock::time_point next = waits ? now + std::chrono::milliseconds(wait) : clock::time_point::max();
    // The library's own time-out begins again with each byte, so one byte a second would keep a connection for hours.
    for (auto& [connection, end] : open_) {
        if (end <= now) {
            shutdown(MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd, SHUT_RDWR);
            end = clock::time_point::max();
        }
        next = std::min(next, end);
    }
    return next;
}

void http_server::answer(http_request& request, http_reply reply) {
    request.reply = std::move(reply);
    MHD_resume_connection(request.connection);
}
