#include "sched/config.h"
#include "sched/main_loop.h"
#include "unit_support.h"

#include <arpa/inet.h>
#include <map>
#include <netdb.h>

namespace unit {

struct Settings : Scratch {
    using Values = std::map<std::string, std::string>;

    static Values values() {
        return {{"port", std::to_string(st->port)},
                {"pendtime", std::to_string(st->pendtime)},
                {"syslog_poll_interval", std::to_string(st->syslog_poll_interval)},
                {"udp_dest_addr", st->udp_dest_addr},
                {"udp_dest_port", std::to_string(st->udp_dest_port)},
                {"qmxut_port", std::to_string(st->qmxut_port)},
                {"bound_ip_address", st->bound_ip_address},
                {"debug", std::to_string(st->debug)},
                {"no_alive", std::to_string(no_alive)},
                {"watch_malloc", std::to_string(st->watch_malloc)}};
    }
    // The values that differ from those before, as "port=1 debug=1".
    std::string changed() const {
        std::string all;
        for (const auto& [name, value] : values())
            if (!before.contains(name) || before.at(name) != value)
                all += (all.empty() ? "" : " ") + name + "=" + value;
        return all;
    }
    // Sets all values back. No other thread exists.
    void reset() {
        std::memcpy(static_cast<void*>(st), record, sizeof record);
        no_alive = 0;
    }
    Settings() { std::memcpy(record, static_cast<void*>(st), sizeof record); }
    char record[sizeof(sched_status)];
    Values before = values();
};

TEST_F(Settings, EachKeyOfItsFileChangesItsValueWhenItIsValid) {
    const servent* entry = getservbyname("vgdsched", "tcp");
    const int usual_port = entry != nullptr ? ntohs(static_cast<std::uint16_t>(entry->s_port)) : 9980;
    before.clear();  // all values are shown
    EXPECT_EQ(changed(), "bound_ip_address= debug=0 no_alive=0 pendtime=60 port=" + std::to_string(usual_port) +
                             " qmxut_port=18000 syslog_poll_interval=60 udp_dest_addr=127.0.0.1 udp_dest_port=514"
                             " watch_malloc=0");
    before = values();
    const std::string thirty = "127.0.0.0000000000000000000001";
    const struct {
        const char* name;
        const char* file;
        std::string line, changed;
    } cases[] = {
        {"lowest port", "sched.conf", "port_no = 1", "port=1"},
        {"no port 0", "sched.conf", "port_no = 0", ""},
        {"no port below 0", "sched.conf", "port_no = -5", ""},
        {"port in the other file", "common.ini", "port_no = 7", ""},
        {"shortest interval", "sched.conf", "analysis_interval = 1", "pendtime=1"},
        {"no interval 0", "sched.conf", "analysis_interval = 0", ""},
        {"shortest poll", "sched.conf", "syslog_poll_interval = 1s", "syslog_poll_interval=1"},
        {"no poll 0", "sched.conf", "syslog_poll_interval = 0", ""},
        {"receiver too long", "sched.conf", "udp_dest_addr = " + pattern(128), "udp_dest_addr=" + pattern(127)},
        {"receiver's ports may be anything", "sched.conf", "udp_dest_port = -3", "udp_dest_port=-3"},
        {"receiver's port is no number", "sched.conf", "qmxut_port = x", "qmxut_port=0"},
        {"bound address too long", "common.ini", "bound_ip_address = " + thirty + "2", "bound_ip_address=" + thirty},
        {"bound address in the other file", "sched.conf", "bound_ip_address = 10.0.0.1", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        reset();
        shell("rm -f config/*");
        write(std::string("config/") + c.file, "[sched]\n" + c.line + "\n");
        read_config();
        EXPECT_EQ(changed(), c.changed);
    }
}

TEST_F(Settings, OptionsChangeTheirValues) {
    const Row<std::vector<const char*>, std::string> cases[] = {
        {"none", {}, "nice 39"},
        {"in the foreground", {"-D"}, "nice 39 debug=1 no_alive=1"},
        {"debugging", {"-d", "Dx"}, "nice 39 debug=1"},
        {"no supervisor", {"-dA"}, "nice 39 no_alive=1"},
        {"watch of the memory", {"-d", "W", "-d", "x"}, "nice 39 watch_malloc=1"},
        {"port and niceness", {"-N", "3", "-p", "1"}, "nice 3 port=1"},
        {"last of two", {"-t", "5", "-t", "-6"}, "nice 39 pendtime=-6"},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row);
        reset();
        std::vector<char*> argv = {const_cast<char*>("sched")};
        for (const char* word : row.given) argv.push_back(const_cast<char*>(word));
        argv.push_back(nullptr);
        optind = 0;
        const std::string niceness =
            "nice " + std::to_string(parse_options(static_cast<int>(argv.size()) - 1, argv.data()));
        EXPECT_EQ(niceness + (changed().empty() ? "" : " " + changed()), row.wanted);
    }
}

}  // namespace unit
