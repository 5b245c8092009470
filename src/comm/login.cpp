#include "comm/login.h"

#include "comm/address_restriction.h"
#include "comm/reply.h"
#include "sha256/sha256.h"
#include "trace/trace.h"
#include "util/clock.h"
#include "util/regular_file.h"
#include "util/text.h"
#include "util/unique_fd.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr std::size_t hash_length = 64;  // hexadecimal digits of a SHA-256
constexpr std::size_t salt_length = 8;
constexpr std::size_t digest_text_size = 120;  // buffer size passed to the digest's output routine
constexpr int login_words = 4;

void digest_text(std::string_view text, char (&out)[nonce_size]) {
    sha256_ctx context;
    sha256_reset(&context);
    sha256_process_bytes(&context, text.data(), text.size());
    sha256_checksum(&context);
    static_assert(digest_text_size <= sizeof out);
    sha256_message_digest(out, digest_text_size, &context);
}

// Writes 64 random hexadecimal digits, or an empty text when the device cannot be opened or read.
void random_source(char (&source)[256]) {
    const unique_fd device(open("/dev/urandom", O_RDONLY | O_CLOEXEC));
    if (!device) {
        trprintf("Error:failed to open /dev/urandom, errno=%d\n", errno);
        return;
    }
    constexpr std::size_t digits_per_number = 8;
    for (std::size_t i = 0; i < 8; ++i) {
        std::uint32_t number = 0;
        if (read(device.get(), &number, sizeof number) != static_cast<ssize_t>(sizeof number)) {
            source[0] = '\0';  // a short read counts as no device
            return;
        }
        char digits[digits_per_number + 1];
        format_text(digits, "%08x", number);
        std::memcpy(source + i * digits_per_number, digits, sizeof digits);
    }
}

void time_source(char (&source)[256]) {
    const std::tm now = local_time(now_seconds());
    std::strftime(source, sizeof source, "%a %b %e %H:%M:%S %Y\n", &now);
}

// Takes the same time wherever the texts differ, so that timing tells nothing about the secret. Both hold hash_length
// characters.
bool is_same_secret(const char* a, const char* b) {
    unsigned difference = 0;
    for (std::size_t i = 0; i < hash_length; ++i) {
        difference |= static_cast<unsigned char>(a[i]) ^ static_cast<unsigned char>(b[i]);
    }
    return difference == 0;
}

bool is_valid_login(const hmistruc& hmi, int argc, char* argv[]) {
    if (argc != login_words) {
        trprintf("ERROR: invalid login argument(argc=%d)\n", argc);
        return false;
    }
    for (int i = 1; i < login_words; ++i) {
        if (std::strlen(argv[i]) != hash_length) {
            trprintf("ERROR: invalid length argument\n");
            return false;
        }
    }
    if (std::strcmp(argv[2], hmi.nonce) != 0) {
        trprintf("ERROR: nonce mismatch\n");
        return false;
    }
    char joined[3 * hash_length + 1];
    const std::size_t length = format_text(joined, "%s%s%s", st->auth_hash, hmi.nonce, argv[3]);
    char expected[nonce_size];
    digest_text({joined, length}, expected);
    trprintf("calculated response = \"%s\"\n", expected);
    if (!is_same_secret(argv[1], expected)) {
        trprintf("ERROR: response mismatch\n");
        return false;
    }
    trprintf("succeed authentication.\n");
    return true;
}

}  // namespace

void read_password_file() {
    char path[path_size];
    format_text(path, "%s/%s", environment("VGD_data"), "password");
    unique_fd file = open_regular(path, O_RDONLY);
    if (!file) {
        trprintf("Info:password open fails errno=%d, no authentication required.\n", errno);
        return;
    }
    char text[128] = "";
    [[maybe_unused]] const ssize_t got = read(file.get(), text, sizeof text - 1);
    file.reset();
    static_assert(sizeof st->auth_hash >= sizeof text && sizeof st->auth_salt >= sizeof text);
    if (std::sscanf(text, "%127s %127s", st->auth_hash, st->auth_salt) == 2 &&
        std::strlen(st->auth_hash) == hash_length && std::strlen(st->auth_salt) == salt_length) {
        trprintf("need auth hash=\"%s\" salt=\"%s\"\n", st->auth_hash, st->auth_salt);
        return;
    }
    trprintf("Error:invalid password file format. \"%s\"\n", text);
    std::memset(st->auth_hash, 0, sizeof st->auth_hash);
    std::memset(st->auth_salt, 0, sizeof st->auth_salt);
}

void auth_check(hmistruc& hmi) {
    if (st->auth_hash[0] == '\0' || std::strcmp(hmi.remote, loopback_text) == 0) {
        return;
    }
    hmi.auth = auth_required;
    char source[256] = "";
    random_source(source);
    if (source[0] == '\0') {
        time_source(source);
    }
    trprintf("nonce source = \"%s\"\n", source);
    digest_text(source, hmi.nonce);
    trprintf("nonce = \"%s\"\n", hmi.nonce);
}

void do_login(hmistruc& hmi, int argc, char* argv[]) {
    const auto word = [argc, argv](int i) { return i < argc ? argv[i] : "-"; };
    trprintf("login:response %s\n", word(1));
    trprintf("login:nonce\t %s\n", word(2));
    trprintf("login:cnonce\t %s\n", word(3));
    if (!is_valid_login(hmi, argc, argv)) {
        reply_over(hmi.soc, 1, 0);
        return;
    }
    hmi.auth = auth_done;
    reply_over(hmi.soc, 0, 0);
}
