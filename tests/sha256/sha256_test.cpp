#include "sha256/sha256.h"

#include "unit_support.h"

#include <random>

namespace unit {

struct Sha256 : Scratch {};

TEST_F(Sha256, AgreesWithSha256sumForAllLengthsAndPieces) {
    std::mt19937 random(2);
    std::string expected;
    // Every length below 80, forty random lengths, and one million times the letter a.
    for (std::size_t i = 100; i <= 220; ++i) {
        const std::size_t length = i < 180 ? i - 100 : i < 220 ? random() % 5000 : 1'000'000;
        std::string data(length, 'a');
        for (std::size_t at = 0; i < 220 && at < length; ++at) data[at] = static_cast<char>(random());
        write("f" + std::to_string(i), data);
        sha256_ctx context;
        sha256_reset(&context);
        for (std::size_t at = 0, n = 0; at < length; at += n) {
            n = std::min<std::size_t>(random() % 200, length - at);
            sha256_process_block(&context, data.data() + at, data.data() + at + n / 2);
            sha256_process_bytes(&context, data.data() + at + n / 2, n - n / 2);
            sha256_process_block(&context, nullptr, data.data());
            sha256_process_bytes(&context, nullptr, 5);
        }
        sha256_checksum(&context);
        char text[72];
        sha256_message_digest(text, sizeof text, &context);
        expected += text + ("  f" + std::to_string(i)) + "\n";
    }
    EXPECT_EQ(shell("sha256sum f*"), expected);
}

TEST_F(Sha256, TextNeedsSeventyTwoBytesAndComparesWithoutLetterCase) {
    const std::string plain = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
    const std::string spaced = "ba7816bf 8f01cfea 414140de 5dae2223 b00361a3 96177a9c b410ff61 f20015ad";
    sha256_ctx abc;
    sha256_reset(&abc);
    for (const char byte : {'a', 'b', 'c'}) sha256_process_byte(&abc, static_cast<std::uint8_t>(byte));
    sha256_checksum(&abc);
    std::string out(144, '#');
    sha256_message_digest(out.data(), 71, &abc);
    sha256_message_digest_with_space(out.data(), 71, &abc);
    EXPECT_EQ(out, std::string(144, '#'));
    sha256_message_digest(out.data(), 72, &abc);
    sha256_message_digest_with_space(out.data() + 72, 72, &abc);
    EXPECT_EQ(out, plain + std::string(8, '\0') + spaced + '\0');
    EXPECT_EQ(sha256_compare(&abc, "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD"), 1);
    EXPECT_EQ(sha256_compare(&abc, (plain + "0").c_str()), 0);
    EXPECT_EQ(sha256_compare(&abc, "ba7816bf"), 0);
    EXPECT_EQ(sha256_compare(&abc, nullptr), 0);
    testing::internal::CaptureStdout();
    sha256_output(&abc);
    sha256_output_with_space(&abc);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), plain + "\n" + spaced + "\n");
}

}  // namespace unit
