#include "e2e/harness.h"

#include <algorithm>

namespace e2e {

static const std::string hash = "a-text-of-64-characters-that-is-used-as-it-is-and-no-hexadecimal";
static const std::string salt = "saltSALT";
static const std::string cnonce(64, 'c');

// The nonce of a challenge. Checks the form of the challenge.
static std::string nonce_of(const std::string& challenge) {
    EXPECT_THAT(challenge, MatchesRegex("__unauth__ [0-9a-f]{64} " + salt + "\r\n"));
    return challenge.substr(std::min<std::size_t>(challenge.size(), 11), 64);
}

static std::string login_line(const std::string& nonce) {
    return "login\t" + sha256_hex(hash + nonce + cnonce) + "\t" + nonce + "\t" + cnonce;
}

TEST(E2eLogin, ExactlyAValidPasswordFileRequiresTheLogin) {
    const std::string both = hash + " " + salt;
    const Row<std::string, bool> cases[] = {
        {"no newline", both, true},
        {"other blanks, and lines after it", " \n" + hash + "\t\n" + salt + "\nanything\n", true},
        {"salt too long", both + "9", false},
        {"hash too short", both.substr(1), false},
        {"hash too long", hash + "h " + salt, false},
        {"no salt", hash + "\n", false},
        {"empty", "", false},
        {"ends at byte 127", repeated(54, " ") + both, true},
        {"ends at byte 128, which is not read", repeated(55, " ") + both, false},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row);
        Suite suite;
        suite.write("data/password", row.given);
        suite.start();
        EXPECT_TRUE(suite.traced(row.wanted ? "need auth hash=\"" + hash + "\" salt=\"" + salt + "\"\n"
                                            : "Error:invalid password file format. \""));
        EXPECT_EQ(suite.client().ask("nosuch"), unsupported);
        EXPECT_EQ(suite.client("127.0.0.2").ask("nosuch") != unsupported, row.wanted);
    }
}

TEST(E2eLogin, RemoteClientRunsNothingBeforeTheRightResponseToItsOwnNonce) {
    Suite suite;
    suite.write("data/password", hash + " " + salt + "\n");
    suite.start();
    Client earlier = suite.client("127.0.0.2");
    const std::string old_nonce = nonce_of(earlier.ask("status"));
    Client client = suite.client("127.0.0.2");
    const std::string nonce = nonce_of(client.ask("parts\tstatus"));
    EXPECT_NE(nonce, old_nonce);
    const std::string right = sha256_hex(hash + nonce + cnonce);
    const std::string ends = "\t" + nonce + "\t" + cnonce;
    std::string upper = right;
    std::transform(upper.begin(), upper.end(), upper.begin(), [](int c) { return static_cast<char>(std::toupper(c)); });
    const Row<std::string, std::string> cases[] = {
        {"two fields", "\t", "invalid login argument(argc=3)"},
        {"four fields", right + ends + "\t", "invalid login argument(argc=5)"},
        {"response too long", right + "0" + ends, "invalid length argument"},
        {"nonce too short", right + "\t" + nonce.substr(1) + "\t" + cnonce, "invalid length argument"},
        {"empty client nonce", right + "\t" + nonce + "\t", "invalid length argument"},
        {"nonce of another connection", login_line(old_nonce).substr(6), "nonce mismatch"},
        {"upper case", upper + ends, "response mismatch"},
        {"first character wrong", "x" + right.substr(1) + ends, "response mismatch"},
        {"last character wrong", right.substr(0, 63) + "x" + ends, "response mismatch"},
        {"nonces in the wrong order", sha256_hex(hash + cnonce + nonce) + ends, "response mismatch"},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row);
        const std::size_t before = suite.out().size();
        EXPECT_EQ(client.ask("login\t" + row.given), refused);
        EXPECT_THAT(suite.out().substr(before), HasSubstr("ERROR: " + row.wanted + "\n"));
        EXPECT_EQ(nonce_of(client.ask("parts\tstatus")), nonce);
    }
    EXPECT_EQ(suite.calls(), "");
    EXPECT_EQ(client.ask({"login\t" + right + ends, "parts\tstatus"}), over + over);
    suite.expect_trace({"login:cnonce  -\n", "login:response " + right + "\n", "login:nonce  " + nonce + "\n",
                        "login:cnonce  " + cnonce + "\n", "calculated response = \"" + right + "\"\n",
                        "succeed authentication.\n"});
}

}  // namespace e2e
