// What the front and its agent say to each other: it arrives whole and in order, and a reader that is slow, stopped or
// gone costs no more than is promised.
#include "agent/channel.h"

#include "protocol/limits.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <malloc.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

std::size_t memory() {
    const struct mallinfo2 all = mallinfo2();  // zeros with a sanitizer
    return all.uordblks + all.hblkhd;
}

TEST(Channel, CallsArriveInOrderHoweverSlowTheirReaderIs) {
    alarm(60);
    std::signal(SIGPIPE, SIG_DFL);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    channel reader{descriptor(ends[0])};
    std::optional<channel> writer{descriptor(ends[1])};
    for (const char byte : {'\2', '\0', '\0', '\0', '\x81', '\7'}) {  // the call [7], byte by byte
        EXPECT_FALSE(reader.next());
        EXPECT_EQ(send(ends[1], &byte, 1, 0), 1);
        EXPECT_TRUE(reader.update());
    }
    EXPECT_EQ(reader.next(), nlohmann::json({7}));
    const std::size_t before = memory();
    for (int i = 0; i < 100; ++i) writer->send(to_agent::close, i, std::string(4000 * i, 'x'));
    EXPECT_EQ(writer->events(), POLLIN | POLLOUT);
    const std::size_t waiting = writer->waiting();
    const auto begin = std::chrono::steady_clock::now();
    writer->flush();
    EXPECT_GE(std::chrono::steady_clock::now() - begin, close_timeout);
    EXPECT_EQ(writer->waiting(), waiting);
    for (int i = 0; i < 10; ++i) EXPECT_TRUE(reader.update());
    EXPECT_TRUE(writer->update());  // sends as well
    EXPECT_LT(writer->waiting(), waiting);
    std::thread slow([&] {
        int i = 0;
        for (bool lives = true; lives; usleep(5'000)) {  // longer than close_timeout in all
            lives = reader.update();
            for (std::optional<nlohmann::json> call; (call = reader.next()); ++i)
                EXPECT_TRUE(*call == nlohmann::json({to_agent::close, {i, std::string(4000 * i, 'x')}})) << i;
        }
        EXPECT_EQ(i, 100);
    });
    const auto end_begins = std::chrono::steady_clock::now();
    writer->end();
    EXPECT_GT(std::chrono::steady_clock::now() - end_begins, close_timeout);
    slow.join();
    EXPECT_EQ(writer->events(), POLLIN);
    EXPECT_LT(memory(), before + 2'000'000);
    reader.send(to_front::left);                        // the other direction is still open
    EXPECT_TRUE(writer->update() && writer->update());  // also when nothing has come
    EXPECT_EQ(writer->next(), nlohmann::json({to_front::left, nlohmann::json::array()}));
    writer.reset();
    reader.send(to_front::left);
    EXPECT_EQ(reader.waiting(), 0U);
    errno = EAGAIN;  // of an earlier call
    EXPECT_FALSE(reader.update());
    alarm(0);
}

}  // namespace
