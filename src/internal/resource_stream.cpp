#include "internal/resource_stream.h"

#include "comm/reply.h"
#include "trace/trace.h"
#include "util/clock.h"
#include "util/text.h"
#include "util/unique_fd.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/tcp.h>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>

namespace {

constexpr std::size_t address_offset = 10;  // position of the host's address in the first line
constexpr std::size_t address_gap = 6;      // characters that the address replaces
constexpr std::size_t first_line_min = 17;
constexpr std::size_t printable_max = 63;  // characters of a text that the trace shows

constexpr std::int64_t receiver_patience_ms = 10'000;  // for the connection and for each write

// A write to a receiver that has closed fails without a trace line. A receiver that stops reading would block this
// connection for ever, so its stream is given up: the next writes fail at once.
void put(int fd, std::string_view text) {
    const deadline end(receiver_patience_ms);
    if (!write_until(end, fd, text) && end.left_ms() == 0) {
        trprintf("Error:res_data:receiver does not read, stream given up after %d s\n",
                 static_cast<int>(receiver_patience_ms / 1000));
    }
}

void write_first_line(int fd, const hmistruc& hmi, std::string_view text) {
    in_addr address{};
    char digits[32] = "127000000001";
    if (inet_aton(hmi.ipset, &address) != 0) {
        const std::uint32_t host = ntohl(address.s_addr);
        format_text(digits, "%03u%03u%03u%03u", host >> 24, host >> 16 & 0xff, host >> 8 & 0xff, host & 0xff);
    }
    put(fd, text.substr(0, address_offset));
    put(fd, digits);
    put(fd, "     ");
    put(fd, text.substr(address_offset + address_gap));
}

// Waits until connecting is complete. Returns 0 or an error number.
int wait_for_connection(int fd) {
    const deadline end(receiver_patience_ms);
    pollfd writable{fd, POLLOUT, 0};
    int ready = 0;
    do {
        ready = poll(&writable, 1, end.left_ms());
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0) {
        return ready == 0 ? ETIMEDOUT : errno;
    }
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

// Returns 0 or an error number. The socket is non-blocking, so that a signal cannot interrupt connecting.
int connect_in_time(int fd, const sockaddr_in& receiver) {
    if (connect(fd, reinterpret_cast<const sockaddr*>(&receiver), sizeof receiver) == 0) {
        return 0;
    }
    return errno == EINPROGRESS || errno == EINTR ? wait_for_connection(fd) : errno;
}

// Connects to the resource receiver. Returns the socket, or -1 with the reason traced.
int connect_to_receiver() {
    sockaddr_in receiver{};
    receiver.sin_family = AF_INET;
    receiver.sin_port = htons(static_cast<std::uint16_t>(st->qmxut_port));
    if (inet_aton(st->udp_dest_addr, &receiver.sin_addr) == 0) {
        trprintf("Error:res_data:ip_address(\"%s\") failed to convert.\n", st->udp_dest_addr);
        return -1;
    }
    trprintf("res_data:connecting to %s:%d ...\n", st->udp_dest_addr, st->qmxut_port);
    unique_fd fd(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd) {
        trprintf("Error:res_data:failed to create socket, errno=%d\n", errno);
        return -1;
    }
    const int on = 1;  // a line is several small writes; none of them should wait for an acknowledgement
    setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (const int error = connect_in_time(fd.get(), receiver); error != 0) {
        trprintf("Error:res_data:connect error, errno=%d\n", error);
        return -1;
    }
    return fd.release();
}

bool send_first_line(hmistruc& hmi, std::string_view text) {
    if (text.size() < first_line_min) {
        trprintf("Error:res_data:first line is too short.(len=%d)\n", static_cast<int>(text.size()));
        return false;
    }
    const int fd = connect_to_receiver();
    if (fd < 0) {
        return false;
    }
    hmi.resource_fd = fd;
    write_first_line(fd, hmi, text);
    return true;
}

void trace_text(std::string_view text) {
    char printable[printable_max + 1];
    const std::size_t length = copy_text(printable, text);
    std::replace_if(
        printable, printable + length, [](char c) { return c < 32 || c > 126; }, '.');
    trprintf("res_data(\"%s\" len=%d)\n", printable, static_cast<int>(text.size()));
}

bool send_data(hmistruc& hmi, std::string_view text) {
    if (hmi.resource_fd >= 0) {
        put(hmi.resource_fd, text);
    } else if (!send_first_line(hmi, text)) {
        return false;
    }
    put(hmi.resource_fd, "\n");
    trace_text(text);
    return true;
}

void end_stream(hmistruc& hmi) {
    trprintf("res_send done\n");
    const unique_fd old(hmi.resource_fd.exchange(-1));
}

}  // namespace

void do_send_resource(hmistruc& hmi, int argc, char* argv[]) {
    if (std::strcmp(argv[0], "res_data") != 0) {
        end_stream(hmi);
        reply_over(hmi.soc, 0, 0);
        return;
    }
    const bool sent = argc >= 2 && send_data(hmi, argv[1]);
    reply_over(hmi.soc, sent ? 0 : 1, 0);
}
