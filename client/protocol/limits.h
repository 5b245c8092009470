// All limits of the client, in one place.
#pragma once

#include <chrono>
#include <cstddef>

// For look-up, connecting, sending, and a command that the scheduler answers itself, when the operator sets no
// time-out.
constexpr std::chrono::seconds default_timeout{10};
// Silence of a module with several hosts, when the operator sets no time-out. With one host there is no limit.
constexpr std::chrono::seconds default_module_silence{600};
// After that a question without an answer does not count for --parallel.
constexpr std::chrono::seconds place_time{1};
// How long a program waits for the last status of its connections before it leaves that to its agent.
constexpr std::chrono::seconds close_timeout{1};
// After a refused login: a wrong password is not tried every two seconds.
constexpr std::chrono::seconds login_retry{60};
// For the lock of a mailbox file, and for an older connection to the same scheduler that is about to end.
constexpr std::chrono::seconds lock_timeout{1};
// A process that is about to show its messages is not reported as their holder.
constexpr std::chrono::milliseconds held_briefly{100};
// A silent connection is probed every 10 s; 40 s without an acknowledgement end it.
constexpr std::chrono::seconds probe_interval{10};
constexpr std::chrono::seconds dead_peer_timeout{40};
// How long the output of several hosts is kept in their order. Then each is written when it is complete.
constexpr std::chrono::milliseconds order_limit{200};
// How long the exporter waits for a scheduler when the operator sets no time-out; collectors wait for ten seconds.
constexpr std::chrono::seconds scrape_timeout{2};
// For receiving a request of HTTP and sending its answer.
constexpr std::chrono::seconds http_lifetime{10};

constexpr std::size_t max_answer = 1 << 20;       // bytes of a command that the scheduler answers itself
constexpr std::size_t max_messages = 1000;        // in the mailbox of one scheduler, and in a view of one host
constexpr std::size_t max_listed = 10'000;        // messages in a view of several hosts
constexpr std::size_t room_per_answer = 140'000;  // bytes; 127 messages of 1023 bytes and their dates
constexpr std::size_t receive_size = 65536;       // bytes of one receive
constexpr std::size_t max_unread = 64 << 20;      // bytes of output that the agent keeps for a front
constexpr std::size_t http_memory = 8192;         // bytes of a connection: the request, and the headers of the answer
constexpr unsigned max_http_connections = 4096;
constexpr std::size_t max_targets = 20'000;  // of an exporter without a hosts file; each keeps some memory
