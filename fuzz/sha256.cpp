// SHA-256 compared with another implementation; the input comes in two parts.
#include "sha256/sha256.h"

#include "support.h"

#include <cstring>
#include <openssl/sha.h>

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    sha256_ctx context;
    sha256_reset(&context);
    const std::size_t first = size > 0 ? data[0] % size : 0;
    sha256_process_bytes(&context, data, first);
    sha256_process_block(&context, data + first, data + size);
    sha256_checksum(&context);
    std::uint8_t expected[SHA256_DIGEST_LENGTH];
    SHA256(data, size, expected);
    fuzz::require(std::memcmp(context.digest, expected, sizeof expected) == 0,
                  "both implementations give the same digest");
    std::string text;
    for (const std::uint8_t byte : expected) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789ABCDEF"[byte & 15];
    }
    fuzz::require(sha256_compare(&context, text.c_str()) == 1, "letter case is ignored");
    text[data == nullptr || size == 0 ? 0 : data[0] % text.size()] = 'g';
    fuzz::require(sha256_compare(&context, text.c_str()) == 0, "a wrong digit is noticed");
    return 0;
}
