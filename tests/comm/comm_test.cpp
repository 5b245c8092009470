#include "comm/disconnect.h"
#include "comm/line_reader.h"
#include "comm/reply.h"
#include "unit_support.h"
#include "util/clock.h"

namespace unit {

using namespace std::string_literals;

struct Comm : Scratch {
    // The oldest message of a ring, or "-".
    static std::string next(hmistruc& entry, next_look look = next_look::follows) {
        char text[message_size];
        std::uint32_t qtime = 0;
        if (hmistruc_dequeue(entry, text, qtime, look) != 0) return "-";
        const std::string message = text;  // nothing of an earlier message may follow it
        EXPECT_EQ(std::string(text, sizeof text), message + std::string(sizeof text - message.size(), '\0'));
        return message + (qtime == 12345 ? "@12345" : "");
    }
    static void broadcast(int from, int to) {
        for (int i = from; i < to; ++i) hmistruc_all_enqueue(("E" + std::to_string(i)).c_str());
    }
};

TEST_F(Comm, RingKeepsTheOldestOneHundredAndTwentySevenAndCountsTheRest) {
    hmistruc& hmi = *hmistruc_get();
    for (const int start : {0, 100, 127}) {  // from the first slot, and across the end of the ring
        hmi.in = hmi.out = start;
        broadcast(0, 129);
        EXPECT_EQ(next(hmi), "E0");
        broadcast(129, 131);
        for (int i = 1; i < 127; ++i) ASSERT_EQ(next(hmi), "E" + std::to_string(i));
        EXPECT_EQ(next(hmi), "E129");
        EXPECT_EQ(next(hmi), "-");
        EXPECT_EQ(hmistruc_lostcount(hmi), 3);
    }
    for (const std::size_t length : {2000U, 0U, 1024U, 1U, 1023U, 1022U}) {  // all in the same slot
        hmi.in = hmi.out = 5;
        hmistruc_all_enqueue(pattern(length).c_str());
        EXPECT_EQ(next(hmi), pattern(std::min<std::size_t>(length, 1023)));
    }
}

TEST_F(Comm, ErrorsAndWarningsWaitForTheFirstConnectionOnly) {
    for (const char* text : {"I0", "W1", "D2", "M3", "e4", ""}) hmistruc_all_enqueue(text);
    broadcast(0, 128);
    st->dummy_hmi->queue[1].qtime = 12345;
    EXPECT_EQ(trace(), "");
    hmistruc& first = *hmistruc_get();
    EXPECT_EQ(trace(), "event:extract from dummy out=0 in=127 lost=2\n");
    hmistruc& second = *hmistruc_get();
    EXPECT_EQ(next(first), "W1");
    EXPECT_EQ(next(first), "E0@12345");
    EXPECT_EQ(next(second), "-");
    EXPECT_EQ(hmistruc_lostcount(first), 2);
    EXPECT_EQ(hmistruc_lostcount(second), 0);
    hmistruc_put(first);
    hmistruc_put(second);
    EXPECT_EQ(next(*hmistruc_get()), "-");  // neither the waiting messages again nor the rest of the first ring
}

TEST_F(Comm, MessagesOfAnUnservedConnectionWaitForTheNext) {
    st->dummy_hmi->in = st->dummy_hmi->out = 126;  // so that they lie across the end of the ring
    broadcast(0, 2);
    hmistruc& unserved = *hmistruc_get();
    broadcast(2, 4);
    hmistruc_put_unserved(unserved);
    broadcast(4, 5);
    hmistruc& served = *hmistruc_get();
    hmistruc& second = *hmistruc_get();
    broadcast(5, 6);
    hmistruc_put_unserved(second);  // the served connection has the same messages
    for (const char* message : {"E0", "E1", "E2", "E3", "E4", "E5", "-"}) EXPECT_EQ(next(served), message);
    hmistruc_put(served);
    EXPECT_EQ(next(*hmistruc_get()), "-");
}

TEST_F(Comm, NoMessageIsQueuedForAConnectionAfterItsLastLook) {
    hmistruc& leaving = *hmistruc_get();
    hmistruc& other = *hmistruc_get();
    broadcast(0, 1);
    EXPECT_EQ(next(leaving, next_look::never), "E0");  // not the last look, as it finds a message
    broadcast(1, 2);
    for (const char* message : {"E1", "-"}) EXPECT_EQ(next(leaving, next_look::never), message);
    broadcast(2, 3);
    hmistruc_put(other);
    broadcast(3, 4);  // waits, although the place of the leaving connection is still taken
    hmistruc& first = *hmistruc_get();
    EXPECT_EQ(&first, &other);
    for (const char* message : {"E3", "-"}) EXPECT_EQ(next(first), message);
    EXPECT_EQ(next(leaving), "-");
    hmistruc_put(leaving);
    broadcast(4, 5);
    EXPECT_EQ(next(*hmistruc_get()), "-");
    EXPECT_EQ(next(first), "E4");
}

// Looks at the line after the present one before it is read. Behind a line that came alone it costs no further receive.
TEST_F(Comm, NextLineIsKnownWhenItHasArrivedWhole) {
    const std::string most(4092, 'x');
    const struct {
        const char* name;
        std::string first, then;  // what is sent before the line is read, and before the look
        bool wanted;
    } cases[] = {
        {"in one piece", "status\rquit\r", "", true},
        {"LF and NUL between", "status\r\nqu\0it\n\r\n"s, "", true},
        {"rest comes later", "status\rqu", "it\r", true},
        {"comes later", "status\r", "quit\rmore", false},
        {"comes later, while another line is carried out", "lock\rstatus\r", "quit\rmore", true},
        {"across the end of the buffer", most + "\rquit\r", "", true},
        {"nothing", "status\r", "", false},
        {"no end of line", "status\r", "quit", false},
        {"an argument", "status\r", "quit\tnow\r", false},
        {"longer word", "status\rquits\r", "", false},
        {"shorter word", "status\rqui\r", "", false},
        {"not the next line", "status\rstatus\rquit\r", "", false},
        {"empty line before", "status\r\rquit\r", "", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Sockets sockets;
        line_reader reader(sockets.mine.get());
        char line[line_max];
        send(sockets.peer.get(), c.first.data(), c.first.size(), 0);
        std::size_t taken = 0;
        do {
            EXPECT_EQ(reader.read_line(line, line_max), static_cast<int>(c.first.find('\r', taken) - taken));
            taken = c.first.find('\r', taken) + 1;
        } while (line == "lock"s);
        send(sockets.peer.get(), c.then.data(), c.then.size(), 0);
        EXPECT_EQ(reader.is_next_line("quit"), c.wanted);
        shutdown(sockets.peer.get(), SHUT_WR);
        std::string rest;  // nothing was taken
        for (int length = 0; (length = reader.read_line(line, line_max)) >= 0;) rest += line + "\r"s;
        std::string sent = c.first + c.then;
        std::erase_if(sent, [](char byte) { return byte == '\n' || byte == '\0'; });
        EXPECT_EQ(rest, sent.substr(taken) + (sent.back() == '\r' ? "" : "\r"));
    }
}

TEST_F(Comm, AReusedEntryHasNothingOfItsLastConnection) {
    for (int i = 0; i < hmi_max; ++i) ASSERT_EQ(hmistruc_get(), &st->hmi[i]);
    EXPECT_EQ(hmistruc_get(), nullptr);
    hmistruc& used = st->hmi[6];
    used.nonce[0] = used.user[0] = used.ipset[0] = 2;
    used.last_status = 2;
    used.locked = used.auth = used.lost = used.resource_fd = 2;
    hmistruc_put(used);
    EXPECT_EQ(hmistruc_get(), &used);
    EXPECT_STREQ(used.nonce, "");
    EXPECT_STREQ(used.user, "");
    EXPECT_STREQ(used.ipset, "");
    EXPECT_EQ(used.last_status, 0U);
    EXPECT_EQ(used.locked, 0);
    EXPECT_EQ(used.auth, 0);
    EXPECT_EQ(used.lost, 0);
    EXPECT_EQ(used.resource_fd, -1);
}

// After the time-out the peer must not get the rest of this answer with a later one: the connection ends.
TEST_F(Comm, WriteToAPeerThatDoesNotReadWaitsUntilItsDeadlineAndNoLonger) {
    Sockets sockets;
    sockets.fill();
    std::thread slow([&] {
        usleep(300'000);  // by then the writer waits
        std::string received(1 << 24, '\0');
        while (recv(sockets.peer.get(), received.data(), received.size(), MSG_DONTWAIT) > 0) {}
    });
    EXPECT_TRUE(write_until(deadline(60'000), sockets.mine.get(), "waits"));
    slow.join();
    sockets.fill();
    const std::int64_t start = monotonic_ms();
    EXPECT_FALSE(write_until(deadline(reply_patience_ms), sockets.mine.get(), "late"));
    EXPECT_NEAR(static_cast<double>(monotonic_ms() - start), 5000, 1000);
    EXPECT_EQ(sockets.received().find("late"), std::string::npos);
}

TEST_F(Comm, CloseDiscardsWhatThePeerHasSentUpToALimit) {
    for (const int sent : {64, 65}) {
        Sockets sockets(SOCK_SEQPACKET | SOCK_NONBLOCK);
        for (int i = 0; i < sent; ++i) EXPECT_EQ(send(sockets.peer.get(), "x", 1, 0), 1);
        int closed = sockets.mine.release();
        close_connection(closed);
        EXPECT_EQ(closed, -1);
        char byte = 0;
        EXPECT_EQ(recv(sockets.peer.get(), &byte, 1, 0), sent == 64 ? 0 : -1);  // an unread packet resets it
    }
}

}  // namespace unit
