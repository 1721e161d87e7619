#include "platform/sdsecurity/crypto.h"

#include <sys/random.h>

#include <cerrno>
#include <string>

namespace sd::security {
namespace {

const EVP_CIPHER* fetchCipher() {
    const EVP_CIPHER* const cipher = openssl().EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr);
    demand(cipher != nullptr);
    return cipher;
}

}  // namespace

const OpenSslApi& openssl() {
    try {
        static const OpenSslApi sApi;
        return sApi;
    } catch (const LibraryFailure& failure) {
        throw CryptoFailure(failure.what());
    }
}

void demand(bool done) {
    if (done) return;
    const char* const reason = openssl().ERR_reason_error_string(openssl().ERR_peek_last_error());
    openssl().ERR_clear_error();
    throw CryptoFailure(std::string("OpenSSL failed: ") + (reason ? reason : "no reason given"));
}

void demandCrypto() {
    demand(openssl().OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1);
}

// Fetched once and never given back: a fetch a value takes a fifth of the time that sealing 64 bytes does. A static
// whose initialiser throws is tried again.
const EVP_CIPHER* sealingCipher() {
    static const EVP_CIPHER* const sCipher = fetchCipher();
    return sCipher;
}

void fillRandomly(unsigned char* bytes, std::size_t size) {
    for (std::size_t done = 0; done < size;) {
        const ssize_t count = ::getrandom(bytes + done, size - done, 0);
        if (count < 0 && errno != EINTR) throw CryptoFailure("the system gives no random bytes");
        if (count > 0) done += static_cast<std::size_t>(count);
    }
}

}  // namespace sd::security
