// A scheduler that sends what a test has prepared. Also tells whether a connection has unread bytes.
#pragma once

#include "e2e/harness.h"

#include <thread>

namespace e2e {

// Whether a connection to this port has received bytes that were not read yet. column: of /proc/net/tcp; 2: at the
// scheduler's end, 3: at the client's end.
inline bool received_by(int port, int column) {
    return !shell("awk '$" + std::to_string(column) + " ~ /:'$(printf %04X " + std::to_string(port) +
                  ")'$/ && $4 == \"01\" && $5 !~ /:00000000/' /proc/net/tcp")
                .empty();
}

struct Exchange {
    std::string request;  // how the line begins; another line fails the test
    std::string reply;
};

// Serves these connections one after the other and refuses further ones. The last reply of a connection and its end
// are one packet.
class ScriptedScheduler {
public:
    ScriptedScheduler(int port, std::vector<std::vector<Exchange>> connections)
        : listener_(listen_on(port)),
          server_([this, script = std::move(connections)] {
              for (const std::vector<Exchange>& connection : script) serve(connection);
              shutdown(listener_.get(), SHUT_RDWR);
          }) {}

    ~ScriptedScheduler() {
        shutdown(listener_.get(), SHUT_RDWR);  // ends an accept too
        server_.join();
    }

private:
    void serve(const std::vector<Exchange>& exchanges) const {
        const unique_fd peer(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        for (const Exchange& e : exchanges) {
            std::string line;
            for (char c = '\0'; recv(peer.get(), &c, 1, 0) == 1 && c != '\r';) line += c;
            EXPECT_THAT(line, StartsWith(e.request));
            if (!line.starts_with(e.request)) return;
            const int more = &e == &exchanges.back() ? MSG_MORE : 0;
            send(peer.get(), e.reply.data(), e.reply.size(), MSG_NOSIGNAL | more);
        }
    }

    unique_fd listener_;
    std::thread server_;
};

}  // namespace e2e
