#include "platform/sdsecurity/crypto.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <string>

#include "platform/sdsecurity/key_ring.h"

namespace sd::security {
namespace {

const EVP_CIPHER* fetchCipher() {
    const EVP_CIPHER* const cipher = openssl().EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr);
    demand(cipher != nullptr);
    openssl().ERR_clear_error();  // of another cipher, which it looks at on its way
    return cipher;
}

// Fetched once and never given back: a fetch a value takes a fifth of the time that sealing 64 bytes does. A static
// whose initialiser throws is tried again.
const EVP_CIPHER* sealingCipher() {
    static const EVP_CIPHER* const sCipher = fetchCipher();
    return sCipher;
}

struct FreeContext {
    void operator()(EVP_CIPHER_CTX* context) const { openssl().EVP_CIPHER_CTX_free(context); }
};
using Context = std::unique_ptr<EVP_CIPHER_CTX, FreeContext>;

Context newContext() {
    demandCrypto();
    Context context(openssl().EVP_CIPHER_CTX_new());
    demand(context != nullptr);
    return context;
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

void encrypt(const unsigned char* key, const unsigned char* nonce, BytesView covered, BytesView plain,
             unsigned char* sealed) {
    const Context context = newContext();
    unsigned char* const tag = sealed + plain.size;
    int length = 0;
    demand(openssl().EVP_EncryptInit_ex2(context.get(), sealingCipher(), key, nonce, nullptr) == 1);
    demand(openssl().EVP_EncryptUpdate(context.get(), nullptr, &length, covered.data, static_cast<int>(covered.size)) ==
           1);
    demand(openssl().EVP_EncryptUpdate(context.get(), sealed, &length, plain.data, static_cast<int>(plain.size)) == 1);
    demand(openssl().EVP_EncryptFinal_ex(context.get(), tag, &length) == 1);
    demand(openssl().EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, static_cast<int>(kTagSize), tag) == 1);
}

bool decrypt(const unsigned char* key, const unsigned char* nonce, BytesView covered, BytesView sealed,
             unsigned char* plain) {
    const std::size_t size = sealed.size - kTagSize;
    std::array<unsigned char, kTagSize> tag{};
    std::copy_n(sealed.data + size, tag.size(), tag.begin());
    const Context context = newContext();
    int length = 0;
    demand(openssl().EVP_DecryptInit_ex2(context.get(), sealingCipher(), key, nonce, nullptr) == 1);
    demand(openssl().EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, static_cast<int>(tag.size()),
                                         tag.data()) == 1);
    demand(openssl().EVP_DecryptUpdate(context.get(), nullptr, &length, covered.data, static_cast<int>(covered.size)) ==
           1);
    demand(openssl().EVP_DecryptUpdate(context.get(), plain, &length, sealed.data, static_cast<int>(size)) == 1);
    if (openssl().EVP_DecryptFinal_ex(context.get(), plain + size, &length) == 1) return true;
    // What stands there was decrypted but is not what was sealed.
    openssl().OPENSSL_cleanse(plain, size);
    return false;
}

void fillRandomly(unsigned char* bytes, std::size_t size) {
    for (std::size_t done = 0; done < size;) {
        const ssize_t count = ::getrandom(bytes + done, size - done, 0);
        if (count < 0 && errno != EINTR) throw CryptoFailure("the system gives no random bytes");
        if (count > 0) done += static_cast<std::size_t>(count);
    }
}

}  // namespace sd::security
