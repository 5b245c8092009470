#include "sha256/sha256.h"

#include <bit>
#include <cctype>
#include <cstdio>
#include <cstring>

namespace {

constexpr std::size_t block_bytes = 64;
constexpr std::size_t length_offset = 56;  // position of the length (in bits) in the last block

constexpr std::uint32_t initial_state[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                            0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};

constexpr std::uint32_t round_constants[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

void extend_schedule(const std::uint32_t (&block)[16], std::uint32_t (&w)[64]) {
    std::memcpy(w, block, sizeof block);
    for (int t = 16; t < 64; ++t) {
        const std::uint32_t s0 = std::rotr(w[t - 15], 7) ^ std::rotr(w[t - 15], 18) ^ (w[t - 15] >> 3);
        const std::uint32_t s1 = std::rotr(w[t - 2], 17) ^ std::rotr(w[t - 2], 19) ^ (w[t - 2] >> 10);
        w[t] = w[t - 16] + s0 + w[t - 7] + s1;
    }
}

// Adds the full block to the state and clears it for the next one.
void compress(sha256_ctx* context) {
    std::uint32_t w[64];
    extend_schedule(context->block, w);
    auto [a, b, c, d, e, f, g, h] = context->state;
    for (int t = 0; t < 64; ++t) {
        const std::uint32_t sum1 = std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25);
        const std::uint32_t choice = (e & f) ^ (~e & g);
        const std::uint32_t temp1 = h + sum1 + choice + round_constants[t] + w[t];
        const std::uint32_t sum0 = std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22);
        const std::uint32_t majority = (a & b) ^ (a & c) ^ (b & c);
        h = g;
        g = f;
        f = e;
        e = d + temp1;
        d = c;
        c = b;
        b = a;
        a = temp1 + sum0 + majority;
    }
    const std::uint32_t working[8] = {a, b, c, d, e, f, g, h};
    for (int i = 0; i < 8; ++i) {
        context->state[i] += working[i];
    }
    std::memset(context->block, 0, sizeof context->block);
}

// Writes the digest's digits, a blank before each group but the first.
void write_digits(char* out, std::size_t size, const sha256_ctx* context, std::size_t group_bytes) {
    if (out == nullptr || size < sha256_text_min) {
        return;
    }
    std::memset(out, 0, size);
    for (std::size_t i = 0; i < sha256_digest_size; ++i) {
        if (i > 0 && i % group_bytes == 0) {
            *out++ = ' ';
        }
        out += std::snprintf(out, 3, "%02x", context->digest[i]);
    }
}

}  // namespace

void make32(std::uint8_t* to, std::uint32_t value) {
    to[0] = static_cast<std::uint8_t>(value >> 24);
    to[1] = static_cast<std::uint8_t>(value >> 16);
    to[2] = static_cast<std::uint8_t>(value >> 8);
    to[3] = static_cast<std::uint8_t>(value);
}

void sha256_reset(sha256_ctx* context) {
    *context = {};
    std::memcpy(context->state, initial_state, sizeof initial_state);
}

void sha256_process_byte(sha256_ctx* context, std::uint8_t byte) {
    const std::uint32_t position = context->count_lo % block_bytes;
    context->block[position / 4] |= std::uint32_t{byte} << (24 - 8 * (position % 4));
    if (++context->count_lo == 0) {
        ++context->count_hi;
    }
    if (context->count_lo % block_bytes == 0) {
        compress(context);
    }
}

void sha256_process_block(sha256_ctx* context, const void* first, const void* last) {
    if (first == nullptr || last == nullptr) {
        return;
    }
    const auto* end = static_cast<const std::uint8_t*>(last);
    for (const auto* byte = static_cast<const std::uint8_t*>(first); byte != end; ++byte) {
        sha256_process_byte(context, *byte);
    }
}

void sha256_process_bytes(sha256_ctx* context, const void* data, std::size_t length) {
    if (data != nullptr) {
        sha256_process_block(context, data, static_cast<const std::uint8_t*>(data) + length);
    }
}

void sha256_checksum(sha256_ctx* context) {
    const std::uint32_t hi = context->count_hi;
    const std::uint32_t lo = context->count_lo;
    sha256_process_byte(context, 0x80);
    if (context->count_lo % block_bytes > length_offset) {
        compress(context);
    }
    context->block[14] = (lo >> 29) | (hi << 3);
    context->block[15] = lo << 3;
    compress(context);
    for (int i = 0; i < 8; ++i) {
        make32(context->digest + std::ptrdiff_t{4} * i, context->state[i]);
    }
}

void sha256_message_digest(char* out, std::size_t size, const sha256_ctx* context) {
    write_digits(out, size, context, sha256_digest_size);
}

void sha256_message_digest_with_space(char* out, std::size_t size, const sha256_ctx* context) {
    write_digits(out, size, context, 4);
}

int sha256_compare(const sha256_ctx* context, const char* text) {
    if (text == nullptr) {
        return 0;
    }
    char digits[128];
    sha256_message_digest(digits, sizeof digits - 1, context);
    const char* expected = digits;
    for (; *expected != '\0' && *text != '\0'; ++expected, ++text) {
        if (std::tolower(static_cast<unsigned char>(*text)) != *expected) {
            return 0;
        }
    }
    return *expected == *text ? 1 : 0;
}

void sha256_output(const sha256_ctx* context) {
    char digits[128];
    sha256_message_digest(digits, sizeof digits - 1, context);
    std::puts(digits);
}

void sha256_output_with_space(const sha256_ctx* context) {
    char digits[128];
    sha256_message_digest_with_space(digits, sizeof digits - 1, context);
    std::puts(digits);
}
