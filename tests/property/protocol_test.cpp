// Random conversations in random pieces, against a model of the line protocol. Finds bytes that are lost where pieces
// meet, lines that are split or cut wrongly, missing or wrong answers, commands that run without a login, and what a
// connection leaves to the next one.
#include "command/module_table.h"
#include "internal/operator_lock.h"
#include "property.h"
#include "server/connection.h"

#include <arpa/inet.h>
#include <future>
#include <numeric>
#include <regex>

namespace unit {

using namespace std::string_literals;
using Fields = std::vector<std::string>;

const std::string over = "__over__ 0 0\r\n";
const std::string refused = "__over__ 1 0\r\n";
const std::string busy = "__busy__\r\n";
const std::string unsupported = "__unsupported__\r\n";

struct Listed {
    std::string name;
    std::string program;
    std::string display;
    std::string answer = {};  // when it is always the same
    bool is_on = true;
};

// What the scheduler remembers: of one connection, and which modules are on.
struct Protocol {
    std::string remote;    // address of the client
    std::string nonce;     // of the challenge, empty when none was made or it is not known
    std::string response;  // the right one to it
    bool is_gated = false;
    bool has_ipset = false;
    bool is_locked = false;
    bool is_closed = false;
    std::vector<Listed> modules = {
        {"args", "args", "x"},        {"lines", "lines", "-", "a\r\r\n\r\nb\r\n" + over},
        {"args", "lines", "x"},       {"killed", "killed", "x", "__over__ 0 9\r\n"},
        {"ehello", "host", "-"},      {"nobody", "-", "x", unsupported},
        {"modcntl", "-", "x"},        {"quit", "-", "-", "Good-bye.\r\n"},
        {"lock", "-", "-"},           {"unlock", "-", "x"},
        {"hello", "-", "-"},          {"login", "-", "-"},
        {"ipset", "-", "-"},          {"restart", "-", "-", ""},
        {"res_send", "-", "x", over},
    };

    Listed* find(const std::string& name) {
        const auto found = std::find_if(modules.begin(), modules.end(), [&](const auto& m) { return m.name == name; });
        return found != modules.end() ? &*found : nullptr;
    }
    std::string args(const Fields& fields) const {
        std::string words = fields.size() == 1 ? "<>" : "";
        for (std::size_t i = 1; i < fields.size(); ++i) words += "<" + fields[i] + ">";
        return words + "\r\n__over__ 3 0\r\n";
    }
    std::string modcntl(const Fields& fields) {
        std::string listing;
        for (const Listed& module : modules)
            if (module.display != "-") listing += module.name + (module.is_on ? " on\r\n" : " off\r\n");
        if (fields.size() == 1) return listing + over;
        if (fields.size() < 3 || (fields[2] != "on" && fields[2] != "off"))
            return "Usage: modcntl module on/off\r\n" + refused;
        Listed* module = find(fields[1]);
        if (module == nullptr) return "Error:modcntl:Invalid module name\r\n" + refused;
        module->is_on = fields[2] == "on";
        return over;
    }
    std::string ipset(const Fields& fields) {
        const std::string address = fields.size() == 2 && !has_ipset ? fields[1] : "";
        is_closed = address == "192.0.3.9";  // not allowed
        has_ipset = has_ipset || address == "127.0.0.1" || address == "192.0.2.9";
        if (is_closed || address.empty() || !has_ipset) return is_closed ? "" : refused;
        remote = address;
        if (address != "127.0.0.1") is_gated = true, nonce = "";
        return "";
    }
    std::string login(const Fields& fields) {
        if (nonce.empty() || fields != Fields{"login", response, nonce, std::string(64, 'c')}) return refused;
        is_gated = false;
        return over;
    }
    std::string lock(bool wanted) { return std::exchange(is_locked, wanted) == wanted ? busy : over; }
    std::string answer(const std::string& line) {
        if (line.size() == 16383) return busy;
        if (is_gated && line != "quit" && !line.starts_with("login\t") && !line.starts_with("ipset\t"))
            return "__unauth__ NONCE saltsalt\r\n";
        Fields fields(1);
        for (const char byte : line) byte == '\t' ? fields.emplace_back() : fields.back() += byte;
        const std::string& name = fields[0];
        const Listed* listed = find(name);
        if (listed == nullptr || fields.size() > 15) return unsupported;
        if (name == "hello") listed = find("ehello");
        if (listed->program != "-" && !listed->is_on) return busy;
        if (listed->program == "host") return remote + "\r\n" + over;
        if (name == "args") return args(fields);
        if (name == "modcntl") return modcntl(fields);
        if (name == "ipset") return ipset(fields);
        if (name == "login") return login(fields);
        if (name == "lock" || name == "unlock") return lock(name == "lock");
        is_closed = name == "quit";
        return listed->answer;
    }
    std::string answers(const std::string& bytes) {
        std::string all;
        std::string line;
        for (const char byte : bytes) {
            if (byte != '\r' && byte != '\n' && byte != '\0') line += byte;
            if (byte == '\r' || line.size() == 16383) all += is_closed ? "" : answer(std::exchange(line, ""));
        }
        return is_closed || line.empty() ? all : all + answer(line);
    }
};

struct ConnectionProperty : Scratch {
    ConnectionProperty() {
        program("args", "printf '<%s>' \"$@\"; exit 3");
        program("lines", "printf 'a\\r\\n\\nb\\n'");
        program("killed", "kill -9 $$");
        program("host", "echo $REMOTEHOST");
        std::string list;
        for (const Listed& module : Protocol().modules)
            list += module.name + " " + module.program + " " + module.display + " 60\n";
        write("config/vgd_modules", list);
        EXPECT_EQ(read_modules(), 0);
        copy_text(st->auth_hash, std::string(64, 'h'));
        copy_text(st->auth_salt, "saltsalt");
        st->allowed_ip_address[0] = {inet_addr("192.0.2.0"), 0xffffff00};
    }
    // Returns the next packet, empty at the end. When the scheduler closes with requests unread, a reset is reported
    // once, before the packets that have arrived.
    static std::string receive(int soc) {
        char packet[65536];
        ssize_t got = recv(soc, packet, sizeof packet, 0);
        if (got < 0) got = recv(soc, packet, sizeof packet, 0);
        return {packet, static_cast<std::size_t>(std::max<ssize_t>(got, 0))};
    }
    // Gets a challenge and works out the answer to it.
    void challenge(Protocol& protocol, int soc) const {
        send(soc, "status\r", 7, MSG_NOSIGNAL);
        const std::string asked = receive(soc) + std::string(80, ' ');
        protocol.nonce = asked.substr(11, 64);
        const std::string secret = std::string(64, 'h') + protocol.nonce + std::string(64, 'c');
        protocol.response = shell("printf '" + secret + "' | sha256sum").substr(0, 64);
    }
    // Sends the text in pieces and compares the answers. Packets keep the borders of the pieces; a stream would not.
    void operate(Protocol& protocol, const std::string& text, const std::vector<std::size_t>& pieces, int soc) const {
        protocol.nonce = "";
        protocol.response = std::string(64, '0');
        if (protocol.is_gated) challenge(protocol, soc);
        const std::string bytes = expand(text, {{"LONG", std::string(16370, 'x')},
                                                {"RESPONSE", protocol.response},
                                                {"NONCE", protocol.nonce},
                                                {"CLIENT", std::string(64, 'c')}});
        std::string answers;
        std::thread reader([&] {
            for (std::string some; !(some = receive(soc)).empty();) answers += some;
        });
        std::size_t sent = 0;
        for (std::size_t i = 0; sent < bytes.size(); sent += pieces[i++ % pieces.size()])
            send(soc, &bytes[sent], std::min(pieces[i % pieces.size()], bytes.size() - sent), MSG_NOSIGNAL);
        shutdown(soc, SHUT_WR);
        reader.join();
        static const std::regex nonce("__unauth__ [0-9a-f]{64} ");
        RC_ASSERT(std::regex_replace(answers, nonce, "__unauth__ NONCE ") == protocol.answers(bytes));
    }
    void connection(Protocol& protocol, const std::string& text, const std::vector<std::size_t>& pieces) const {
        Sockets sockets(SOCK_SEQPACKET);
        hmistruc& hmi = *hmistruc_get();
        hmistruc_set_text(hmi.remote, protocol.remote);
        hmi.soc = sockets.mine.release();
        std::future<void> served = std::async(std::launch::async, [&] { hmi_main(hmi); });
        operate(protocol, text, pieces, sockets.peer.get());
        served.get();
        RC_ASSERT(hmi.flag == 0);
    }
};

// LONG is a text that is nearly as long as a line; the other names in capitals are parts of a login.
static std::string draw_request() {
    const auto word =
        rc::gen::element<std::string>("", "on", "off", "args", "ehello", "a b", "o\nn", "\0off"s, "\xff%s", "127.0.0.1",
                                      "192.0.2.9", "192.0.3.9", "192.0.2.9x", "LONG");
    std::string line = *rc::gen::element<std::string>(
        "args", "lock", "unlock", "modcntl", "ipset", "hello", "args", "lock", "modcntl", "ehello", "lines", "killed",
        "restart", "res_send", "nobody", "unknown", "ARGS", "", "LONG", "quit", "login", "modcntl\targs\toff",
        "modcntl\targs\ton", "modcntl\tehello\toff", "ipset\t127.0.0.1", "ipset\t192.0.2.9", "ipset\t192.0.2.9",
        "login\tRESPONSE\tNONCE\tCLIENT", "login\tRESPONSE\tNONCE\tCLIENT", "login\tNONCE\tNONCE\tCLIENT",
        "login\tRESPONSE\tRESPONSE\tCLIENT");
    const int most = *rc::gen::element(0, 1, 1, 2, 2, 3, 16);  // fields
    for (const std::string& field : *rc::gen::resize(most, rc::gen::container<Fields>(word))) line += "\t" + field;
    if (line.find("LONG") != std::string::npos) line.append(*rc::gen::inRange<std::size_t>(0, 20), 'y');
    return line + *rc::gen::element<std::string>("\r\n", "\r", "\r\n", "\r", "\n", "\0\r"s, "");
}

TEST_F(ConnectionProperty, AnswersAreThoseOfTheProtocol) {
    const auto sizes = rc::gen::nonEmpty(
        rc::gen::container<std::vector<std::size_t>>(rc::gen::element<std::size_t>(4096, 1000, 50, 5, 3, 2, 1)));
    const bool holds = rc::check("answers are those of the protocol", [&] {
        if (last_locked_hmi != nullptr) release_operator_lock();  // left by a failure
        for (int i = 0; i < mod_max; ++i) mod[i].enabled = 1;
        Protocol protocol;
        const int connections = *rc::gen::inRange(1, 4);
        for (int i = 0; i < connections; ++i) {
            protocol.is_gated = *rc::gen::arbitrary<bool>();
            protocol.remote = protocol.is_gated ? "192.0.2.7" : "127.0.0.1";
            protocol.has_ipset = protocol.is_closed = protocol.is_locked = false;
            const auto requests = *rc::gen::container<std::vector<std::string>>(rc::gen::exec(draw_request));
            connection(protocol, std::accumulate(requests.begin(), requests.end(), ""s), *sizes);
        }
    });
    EXPECT_TRUE(holds);
}

}  // namespace unit
