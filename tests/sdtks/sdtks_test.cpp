// The legacy cipher against texts that the openssl command made, with the default key and vector in hexadecimal:
//     printf %s TEXT | openssl enc -aes-256-cbc -K KEY -iv IV -base64       and -nopad where TEXT ends in its own
//     padding
#include "sdtks/sdtks.h"

#include <gtest/gtest.h>

#include <cstring>

#include "sdtks_constants.h"
#include "tests/support/support.h"

namespace sd {
namespace {

// Deciphers into a buffer that begins as all 'x', as no caller's would.
struct Deciphered {
    explicit Deciphered(std::string text, int size = 256) : result(SDTks::Decrypt(text.data(), out.data(), size)) {}
    std::string out = std::string(256, 'x');
    int result;
};

class SDTksTest : public testing::Test {
protected:
    void SetUp() override {
        if (std::memcmp(kLegacyKey, "Tq7vLw2ZpN4xRb9Ke3Hm6Ys8Dj1Fc5Ug", sizeof kLegacyKey) != 0 ||
            std::memcmp(kLegacyIv, "wP3nX8rA6tK1yE9s", sizeof kLegacyIv) != 0)
            GTEST_SKIP() << "the answers are those of the default key";
    }
    test::LogCapture mLog;
};

const std::string kLine = "wb1phPRjkrf4/a01h0aaob7pSK2dzN1rlxqMmyjRLfYy6FtYXHIRpEv+jcfRnXSA";

TEST_F(SDTksTest, KnownAnswersBothWays) {
    const std::pair<std::string, std::string> cases[] = {
        {"x", "Bhpv144ubSDaGUdLdvZPLw==\n"},
        {"0123456789abcdef", "wb1phPRjkrf4/a01h0aaoYg4qKNek6MzXxzNxioFo8I=\n"},
        {"0123456789abcdef0123456789abcdef", kLine + "\n"},
        {std::string("\xC3\xA9\0z", 4), "qnLv8iqeXvMOw/xJVeCO3Q==\n"},
    };
    for (const auto& [plain, text] : cases) {
        SCOPED_TRACE(text);
        EXPECT_EQ(SDTks::Encrypt(plain), text);
        EXPECT_EQ(Deciphered(text).result, 1);
        EXPECT_EQ(Deciphered(text).out, plain + std::string(256 - plain.size(), '\0'));
        EXPECT_EQ(Deciphered(text, 1).out, plain[0] + std::string(255, 'x')) << "nothing beyond the size";
    }
    EXPECT_EQ(SDTks::Encrypt("") + SDTks::Encrypt(std::string(33, 'x')), "");
    EXPECT_EQ(SDTks::GetKey(0) + SDTks::GetKey(-1) + SDTks::GetKey("name"), "");
    EXPECT_EQ(SDTks::Decrypt(nullptr, Deciphered("").out.data(), 1), 0);
    EXPECT_EQ(SDTks::Decrypt(std::string("x").data(), nullptr, 1), 0);
}

TEST_F(SDTksTest, TakesAPaddingAsASignedByteAndRefusesWhatItsBuffersCannotHold) {
    constexpr char kUnfit[] = "sdtks/sdtks Decrypt(";
    const struct {
        const char* what;
        std::string text;
        const char* plain;  // null: refused
        const char* line = "SetKey aes_decrypt_strong error!";
    } cases[] = {
        {"padding 0x80", "1dmBtIYnrY2ki1aVG7ERTQ==", "fifteen bytes..\x80"},
        {"padding 0xFF", "GxK5US3v6UkRZv+Jw4woVA==", "fifteen bytes..\xFF"},
        {"padding 0", "3VSf5re69b7hCo9H7TdjNw==", nullptr},
        {"padding 17", "zKtjKJ+Dc8tyRcRFvEkS8w==", nullptr},
        {"padding 127", "2Ne9P4z22axRojVA7xCX/g==", nullptr},
        {"padding 16, no bytes", "Xj5N59hum/1qeY2NdCDqLw==", nullptr, "SetKey decryptLen <=0!"},
        {"nothing", "", nullptr},
        {"no base64", "not base64!", nullptr},
        {"bytes", "\xFF\xFE\x80\x81", nullptr},
        {"144 bytes", kLine + kLine + kLine, nullptr},
        {"1,440 bytes", std::string(1920, 'A'), nullptr},
        {"12 MB", std::string(16 << 20, 'A'), nullptr},
    };
    for (const auto& [what, text, plain, line] : cases) {
        SCOPED_TRACE(what);
        mLog.clear();
        const Deciphered deciphered(text);
        EXPECT_EQ(deciphered.result, plain ? 1 : -1);
        EXPECT_EQ(deciphered.out, plain ? plain + std::string(240, '\0') : std::string(256, 'x'));
        EXPECT_EQ(mLog.count(line, 7), plain ? 0 : 1);
        EXPECT_EQ(mLog.count(kUnfit), plain ? 0 : 1);
    }
}

// Buffers of exactly the size that is asked for: the address sanitizer sees a byte more.
TEST_F(SDTksTest, TheCipherKeepsToItsBuffersAndTakesABlockThatEndsEarly) {
    const std::vector<char> plain(24, 'p');
    std::vector<char> cipher(32);
    unsigned long cipherLength = 0;
    ASSERT_TRUE(aes_encrypt_strong(plain.data(), 24, cipher.data(), &cipherLength));
    ASSERT_EQ(cipherLength, 32u);
    for (const std::size_t size : {32u, 24u}) {
        std::vector<char> in(cipher.begin(), cipher.begin() + static_cast<long>(size));
        std::vector<char> out(size);
        int length = -1;
        EXPECT_TRUE(aes_decrypt_strong(in.data(), size, out.data(), &length)) << size;
        EXPECT_EQ(std::string(out.data(), 16), std::string(16, 'p'));
        EXPECT_FALSE(aes_decrypt_strong(in.data(), 0, out.data(), &length));
    }
}

}  // namespace
}  // namespace sd
