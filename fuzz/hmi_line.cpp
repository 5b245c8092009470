// Bytes of a connection: lines, login, dispatch and answers. The modules do nothing, and the command that ends the
// process is not listed.
#include "command/module_table.h"
#include "server/connection.h"
#include "support.h"

#include <cstring>
#include <sys/socket.h>
#include <sys/time.h>
#include <thread>

namespace {

struct Operators : fuzz::Suite {
    Operators() {
        write("vgd_modules",
              "true true - 5\nfalse false x 5\ngone no/such/program - 5\nehello true - 5\nstatus - - 0\n"
              "modcntl - x 0\ndebug - - 0\nquit - - 0\nlock - - 0\nunlock - - 0\nshow - - 0\nhello - - 0\n"
              "login - - 0\nipset - - 0\nsend - - 0\nres_data - - 0\nres_send - - 0\nunhandled - - 0\n");
        setenv("VGD_bin", "/bin", 1);
        fuzz::require(hmistruc_init() == 0 && read_modules() == 0, "tables are allocated");
        std::memset(st->auth_hash, 'a', 64);
        std::memset(st->auth_salt, 's', 8);
        st->udp_dest_port = st->qmxut_port = 9;  // no program listens there
    }
};

// Serves one connection that sends text and then closes. Returns the answers.
std::string conversation(const char* address, const std::string& text) {
    int ends[2];
    fuzz::require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "sockets are created");
    fuzz::require(send(ends[1], text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()),
                  "the request fits the socket's buffer");
    shutdown(ends[1], SHUT_WR);
    std::string answers;
    std::thread reader([&] { answers = fuzz::read_to_end(ends[1]); });
    struct sigaction action {};  // running a module replaces the fuzzer's alarm
    itimerval timer{};
    sigaction(SIGALRM, nullptr, &action);
    getitimer(ITIMER_REAL, &timer);
    hmistruc& hmi = *hmistruc_get();
    hmistruc_set_text(hmi.remote, address);
    hmi.soc = ends[0];
    hmi_main(hmi);
    sigaction(SIGALRM, &action, nullptr);
    setitimer(ITIMER_REAL, &timer, nullptr);
    reader.join();
    close(ends[1]);
    fuzz::require(hmi.flag == 0 && hmi.soc == -1 && hmi.resource_fd == -1, "the entry is free again");
    return answers;
}

}  // namespace

// The first byte selects the client's address and the length of a word put before the rest, which can be longer than a
// line.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Operators operators;
    if (size == 0) return 0;
    const bool local = (data[0] & 1) != 0;
    const std::string text = std::string((data[0] >> 1) * 256U, 'x') + std::string(fuzz::text_of(data + 1, size - 1));
    for (int i = 0; i < mod_max; i++) mod[i].enabled = 1;
    const std::string answers = conversation(local ? "127.0.0.1" : "192.0.2.1", text);

    fuzz::require(local || ("\n" + answers).find("\n__over__ 0 ") == std::string::npos,
                  "no command runs before the login");
    return 0;
}
