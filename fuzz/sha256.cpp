// SHA-256: the digest does not depend on how the input is divided.
#include "sha256/sha256.h"

#include "support.h"

#include <cstring>

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    sha256_ctx whole;
    sha256_reset(&whole);
    sha256_process_bytes(&whole, data, size);
    sha256_checksum(&whole);
    sha256_ctx parts;
    sha256_reset(&parts);
    const std::size_t first = size > 0 ? data[0] % size : 0;
    sha256_process_bytes(&parts, data, first);
    sha256_process_block(&parts, data + first, data + size);
    sha256_checksum(&parts);
    fuzz::require(std::memcmp(whole.digest, parts.digest, sizeof whole.digest) == 0, "both digests are the same");
    return 0;
}
