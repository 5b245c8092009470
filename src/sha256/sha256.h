// SHA-256 (FIPS 180-2) and its digest as hexadecimal text.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr std::size_t sha256_digest_size = 32;
constexpr std::size_t sha256_text_min =
    72;  // bytes the output routines want: 71 characters and the NUL at most

struct sha256_ctx {
    std::uint32_t state[8];
    std::uint8_t digest[sha256_digest_size];  // valid after sha256_checksum
    std::uint32_t block[16];                  // the block being filled, most significant byte of a word first
    std::uint32_t count_hi;                   // bytes processed, high word
    std::uint32_t count_lo;                   // low word
};

// Order of calls: reset, any number of process calls, checksum once, then any output routine. The caller owns the
// context; nothing is allocated.
void sha256_reset(sha256_ctx* context);
void sha256_process_byte(sha256_ctx* context, std::uint8_t byte);

// Adds the bytes from first up to, not including, last; nothing when either is null or both are equal.
void sha256_process_block(sha256_ctx* context, const void* first, const void* last);

// Adds length bytes; nothing when data is null.
void sha256_process_bytes(sha256_ctx* context, const void* data, std::size_t length);

// Finishes the message and stores the digest.
void sha256_checksum(sha256_ctx* context);

// Writes 64 lower-case digits and a NUL, the rest of size zeros. Nothing when out is null or size below 72.
void sha256_message_digest(char* out, std::size_t size, const sha256_ctx* context);

// The same as 8 groups of 8 digits with single blanks between them.
void sha256_message_digest_with_space(char* out, std::size_t size, const sha256_ctx* context);

// 1 when text is the digest in hexadecimal, letter case ignored, else 0 (also for null).
int sha256_compare(const sha256_ctx* context, const char* text);

// Print the digest and a newline on standard output.
void sha256_output(const sha256_ctx* context);
void sha256_output_with_space(const sha256_ctx* context);

// Stores value into 4 bytes, most significant byte first.
void make32(std::uint8_t* to, std::uint32_t value);
