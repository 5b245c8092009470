// SHA-256 (FIPS 180-2) and its digest as hexadecimal text.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr std::size_t sha256_digest_size = 32;
constexpr std::size_t sha256_text_min = 72;  // bytes that the output routines need: up to 71 characters and the NUL

struct sha256_ctx {
    std::uint32_t state[8];
    std::uint8_t digest[sha256_digest_size];  // valid after sha256_checksum
    std::uint32_t block[16];                  // the block being filled; each word has its most significant byte first
    std::uint32_t count_hi;                   // bytes processed, high word
    std::uint32_t count_lo;                   // low word
};

// Order of calls: reset, any number of process calls, checksum once, then any output routine. The caller owns the
// context; nothing is allocated.
void sha256_reset(sha256_ctx* context);
void sha256_process_byte(sha256_ctx* context, std::uint8_t byte);

// Adds the bytes from first up to, but not including, last. Does nothing when a pointer is null or both are equal.
void sha256_process_block(sha256_ctx* context, const void* first, const void* last);

// Adds length bytes. Does nothing when data is null.
void sha256_process_bytes(sha256_ctx* context, const void* data, std::size_t length);

// Finishes the message and stores the digest.
void sha256_checksum(sha256_ctx* context);

// Writes 64 lower-case digits and fills the rest of size with NUL. Does nothing when out is null or size is below 72.
void sha256_message_digest(char* out, std::size_t size, const sha256_ctx* context);

// The same as 8 groups of 8 digits with single blanks between them.
void sha256_message_digest_with_space(char* out, std::size_t size, const sha256_ctx* context);

// Returns 1 when text is the digest in hexadecimal, upper or lower case, else 0 (also for null).
int sha256_compare(const sha256_ctx* context, const char* text);

// Print the digest and a newline on standard output.
void sha256_output(const sha256_ctx* context);
void sha256_output_with_space(const sha256_ctx* context);

// Stores value into 4 bytes, most significant byte first.
void make32(std::uint8_t* to, std::uint32_t value);
