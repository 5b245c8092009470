#include "e2e/harness.h"

#include <array>
#include <netinet/in.h>
#include <sys/time.h>
#include <thread>

namespace e2e {

static std::string two_bytes(int number) { return {static_cast<char>(number >> 8), static_cast<char>(number & 255)}; }

// The next datagram of this machine to the port, with its IP header.
static std::string datagram_to(const unique_fd& raw_socket, int port) {
    std::array<char, 4096> packet{};
    std::string text(28, '?');
    for (ssize_t size = 28; size >= 28 && text.substr(22, 2) != two_bytes(port);) {
        size = recv(raw_socket.get(), packet.data(), packet.size(), 0);
        text.assign(packet.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 28)));
    }
    return text;
}

TEST(E2eForwarding, DatagramHasTheSourceAddressGivenAndItsTextIsCut) {
    if (geteuid() != 0) GTEST_SKIP() << "raw sockets need root";
    Suite suite;
    suite.settings("udp_dest_port = " + std::to_string(suite.port));
    suite.start();
    const unique_fd raw(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_UDP));
    const timeval deadline{patience / 1s, 0};
    setsockopt(raw.get(), SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof deadline);
    Client client = suite.client();
    EXPECT_EQ(client.ask("send\tno address yet"), refused);
    client.send("ipset\t127.0.0.5\r");
    EXPECT_EQ(client.ask("send"), refused);
    const Row<std::string, std::string> cases[] = {
        {"only the first word", "hello\tignored", "hello"},
        {"empty", "", ""},
        {"too long", std::string(2000, 'y'), std::string(1020, 'y')},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row);
        const std::string& payload = row.wanted;
        EXPECT_EQ(client.ask("send\t" + row.given), over);
        std::string packet = datagram_to(raw, suite.port);
        for (const std::size_t position : {2, 3, 4, 5, 10, 11})  // the system sets length, identification and checksum
            packet.at(position) = '?';
        EXPECT_EQ(packet, "\x45\0????\0\0\xff\x11??\x7f\0\0\x05\x7f\0\0\x01\0\0"s + two_bytes(suite.port) +
                              two_bytes(static_cast<int>(payload.size()) + 8) + "\0\0"s + payload);
        suite.await_trace("succeed to send data.(len=" + std::to_string(payload.size()) + ")\n");
    }
    suite.expect_trace(
        {"sending \"no address yet\" from  to 127.0.0.1:", "Error:ipset address(=\"\") failed to convert.\n",
         "ipset done.\n", "sending \"hello\" from 127.0.0.5 to 127.0.0.1:"});
}

TEST(E2eForwarding, ResourceStreamArrivesWholeAndEndsWithItsConnection) {
    Suite suite;
    const int port = free_port();
    unique_fd listener = listen_on(port);
    suite.settings("qmxut_port = " + std::to_string(port));
    suite.start();
    Client client = suite.client();
    EXPECT_EQ(client.ask({"res_send", "res_data", "res_data\t0123456789abcdef"}), over + refused + refused);
    EXPECT_EQ(client.ask("res_data\t0123456789abcdefX"), over);
    Client receiver(listener);
    EXPECT_EQ(client.ask({"res_data\tshort\tmore", "res_data\t", "res_data\tblanks \x01\xff\x7f"}), repeated(3, over));
    EXPECT_THAT(client.ask("debug\thmi"), Not(HasSubstr("resource_fd=-1")));
    EXPECT_EQ(client.ask({"res_data", "res_send\twhatever"}), refused + over);
    EXPECT_EQ(receiver.rest(), "0123456789127000000001     X\nshort\n\nblanks \x01\xff\x7f\n");

    client.send("ipset\t10.0.0.5\r");
    const std::string line = "res_data\t2026/11/24 123456 cpu 1 percent";
    EXPECT_EQ(client.ask(line), over);
    Client(listener).reset();  // data lost this way is not reported
    listener.reset();
    EXPECT_EQ(client.ask({"res_data\tx", "res_data\tx", "res_data\tx", "res_send", line}), repeated(4, over) + refused);

    listener = listen_on(port);
    EXPECT_EQ(client.ask(line), over);
    receiver = Client(listener);
    EXPECT_EQ(client.ask("quit"), goodbye);  // the stream ends with the connection that opened it
    EXPECT_EQ(receiver.rest(), "2026/11/24010000000005     6 cpu 1 percent\n");
    suite.expect_trace({"res_send done\n", "Error:res_data:first line is too short.(len=16)\n",
                        "res_data:connecting to 127.0.0.1:" + std::to_string(port) + " ...\n",
                        "res_data(\"0123456789abcdefX\" len=17)\n", "res_data(\"\" len=0)\n",
                        "res_data(\"blanks ...\" len=10)\n", "Error:res_data:connect error, errno=111\n"});
}

// Stops and continues the process, which interrupts a system call that waits.
static void interrupt(const Suite& suite) {
    send_signal(suite.scheduler(), SIGSTOP);
    std::this_thread::sleep_for(50ms);
    send_signal(suite.scheduler(), SIGCONT);
    std::this_thread::sleep_for(50ms);
}

TEST(E2eForwarding, StreamToASlowReceiverSurvivesInterruptionsAndIsGivenUpInTheEnd) {
    Suite suite;
    const int port = free_port();
    const unique_fd listener = listen_on(port);
    suite.settings("qmxut_port = " + std::to_string(port));
    suite.hurry();
    suite.start();
    const std::string lines = repeated(1000, std::string(16000, 'x') + "\n");
    const std::string given_up = "Error:res_data:receiver does not read, stream given up after 10 s\n";
    Client client = suite.client();
    EXPECT_EQ(client.ask("res_data\t0123456789abcdefX"), over);
    Client receiver(listener);
    // One stream: after the first part the system's buffers have their full size, and accept nothing more while they wait.
    for (const bool reads : {true, false}) {
        std::thread sender([&] {
            client.send(repeated(1000, "res_data\t" + std::string(16000, 'x') + "\r") + "res_data\t__over__ \r");
        });
        std::string before = "another trace";
        EXPECT_TRUE(wait_until([&] {  // the receiver's buffers are full
            std::this_thread::sleep_for(200ms);
            return std::exchange(before, suite.out()) == before;
        }));
        for (int i = 0; i < 3; i++) interrupt(suite);
        if (reads) {
            EXPECT_TRUE(receiver.answer() == "0123456789127000000001     X\n" + lines + "__over__ \n");
        } else {
            suite.await_trace(given_up);
            EXPECT_FALSE(receiver.rest().starts_with(lines));
        }
        sender.join();
        for (int i = 0; i < 1001; i++) EXPECT_EQ(client.answer(), over);
        const std::size_t first = suite.out().find(given_up);
        EXPECT_EQ(first == std::string::npos, reads);
        EXPECT_EQ(suite.out().find(given_up, first + 1), std::string::npos);
    }
}

TEST(E2eForwarding, ReceiverThatDoesNotAcceptYetDelaysOnlyItsOwnConnection) {
    Suite suite;
    const int port = free_port();
    const unique_fd listener = listen_on(port, 0);
    suite.settings("qmxut_port = " + std::to_string(port));
    suite.hurry();
    suite.start();
    const Client fills_the_backlog(port);
    Client client = suite.client();
    client.send("res_data\ta first line that waits\r");
    suite.await_trace("res_data:connecting to ");
    EXPECT_EQ(suite.client().ask("parts\tstatus"), over);
    interrupt(suite);
    const Client takes_the_first(listener);
    EXPECT_EQ(client.answer(), over);
    EXPECT_EQ(suite.client().ask("res_data\ta first line that waits in vain"), refused);
    suite.expect_trace({"Error:res_data:connect error, errno=110\n"});
}

TEST(E2eForwarding, BadAddressesAndASecondOneAreRefused) {
    Suite suite;
    suite.settings("udp_dest_addr = nonsense");
    suite.start();
    const struct {
        const char* lines;
        const char* traced;
    } cases[] = {
        {"ipset", "info:ipset \"-\"\n"},
        {"ipset\t10.0.0.1\t", "info:ipset \"10.0.0.1\"\n"},
        {"ipset\t300.1.1.1", "Error:inet_aton failed for \"300.1.1.1\", errno=0\n"},
        {"ipset\t10.1 $(id)", "Error:inet_aton failed for \"10.1 $(id)\", errno=0\n"},
        {"ipset\t10.0.0.1 \ripset\t10.0.0.2", "Error:ipset already received\n"},
        {"ipset\t10.1\rsend\tx", "sending \"x\" from 10.1 to nonsense:514\n"},
        {"ipset\t10.1\rsend\tx", "Error:udp_dest_addr(=\"nonsense\") failed to convert.\n"},
        {"res_data\tlong enough a line", "Error:res_data:ip_address(\"nonsense\") failed to convert.\n"},
    };
    for (const auto& [lines, traced] : cases) {
        Client client = suite.client();
        EXPECT_EQ(client.ask("parts"), over);  // it leaves an errno, which the next command must not report as its own
        EXPECT_EQ(client.ask(lines), refused) << lines;
        suite.await_trace(traced);
    }
    suite.stop();
    suite.settings("udp_dest_addr = 255.255.255.255");  // refused without SO_BROADCAST; nothing is sent
    suite.start();
    EXPECT_EQ(suite.client().ask("ipset\t127.0.0.5\rsend\tx"), refused);
    suite.expect_trace({"Error:sendto error, errno=13\n"});
}

}  // namespace e2e
