#include "sdtks/sdtks.h"

#include <openssl/aes.h>
#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iterator>
#include <memory>
#include <vector>

#include "base/shared_library.h"
#include "platform/velmarlog/log_line.h"
#include "sdtks_constants.h"

namespace sd {

namespace {

constexpr char kTag[] = "sdtks";
constexpr char kSource[] = "sdtks/sdtks";

constexpr std::size_t kBlock = AES_BLOCK_SIZE;
constexpr int kKeyBits = 256;

constexpr std::size_t kMaxPlain = 32;    // of one piece of a value
constexpr std::size_t kMaxCipher = 100;  // no version wrote more than 48
constexpr std::size_t kMaxDecoded = 1024;

// How far the length can go beyond the deciphered bytes, by a padding byte of -128.
constexpr std::size_t kMaxBeyond = 128;

using Iv = std::array<unsigned char, kBlock>;

// Each call has its own, as CBC writes to it.
Iv freshIv() {
    Iv iv;
    std::copy(std::begin(kLegacyIv), std::end(kLegacyIv), iv.begin());
    return iv;
}

unsigned char* bytes(char* text) {
    return reinterpret_cast<unsigned char*>(text);
}

// The EVP interface that OpenSSL 3 wants in place of AES_* takes whole blocks only; stored texts can end within one.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

// What this cipher takes from OpenSSL.
struct OpenSslApi {
    const SharedLibrary library{OPENSSL_SONAME};
    LOADED(library, AES_set_encrypt_key);
    LOADED(library, AES_set_decrypt_key);
    LOADED(library, AES_cbc_encrypt);
    LOADED(library, BIO_new);
    LOADED(library, BIO_new_mem_buf);
    LOADED(library, BIO_f_base64);
    LOADED(library, BIO_s_mem);
    LOADED(library, BIO_set_flags);
    LOADED(library, BIO_push);
    LOADED(library, BIO_write);
    LOADED(library, BIO_read);
    LOADED(library, BIO_ctrl);
    LOADED(library, BIO_free_all);
};

#pragma GCC diagnostic pop

// OpenSSL, loaded with the first value; null, with a line logged, where that can't be done.
const OpenSslApi* openssl() {
    try {
        static const OpenSslApi sApi;
        return &sApi;
    } catch (const std::exception& failure) {
        LOG(7, AT "%s", HERE, failure.what());
        return nullptr;
    }
}

struct FreeBioChain {
    const OpenSslApi* api;
    void operator()(BIO* bio) const { api->BIO_free_all(bio); }
};
using BioChain = std::unique_ptr<BIO, FreeBioChain>;

// A base64 filter in front of `memory`, which it owns; null where memory ran out.
BioChain base64Filter(const OpenSslApi& api, BIO* memory, int flags) {
    BioChain chain(memory, {&api});
    BIO* const filter = memory ? api.BIO_new(api.BIO_f_base64()) : nullptr;
    if (!filter) return {nullptr, {&api}};
    api.BIO_set_flags(filter, flags);
    api.BIO_push(filter, chain.release());
    return {filter, {&api}};
}

std::string base64(const char* data, std::size_t length) {
    const OpenSslApi* const api = openssl();
    if (!api) return "";
    const BioChain chain = base64Filter(*api, api->BIO_new(api->BIO_s_mem()), 0);
    if (!chain || api->BIO_write(chain.get(), data, static_cast<int>(length)) <= 0 ||
        api->BIO_ctrl(chain.get(), BIO_CTRL_FLUSH, 0, nullptr) <= 0)
        return "";
    BUF_MEM* memory = nullptr;
    api->BIO_ctrl(chain.get(), BIO_C_GET_BUF_MEM_PTR, 0, &memory);
    return memory ? std::string(memory->data, memory->length) : "";
}

// The number of decoded bytes in `out`, 0 or less where there are none. A text of more than `out` holds is cut.
int unbase64(const char* text, std::array<char, kMaxDecoded>& out) {
    const std::size_t length = std::strlen(text);
    const OpenSslApi* const api = openssl();
    if (!api || length > INT_MAX) return -1;
    BIO* const memory = api->BIO_new_mem_buf(text, static_cast<int>(length));
    const BioChain chain = base64Filter(*api, memory, BIO_FLAGS_BASE64_NO_NL);
    return chain ? api->BIO_read(chain.get(), out.data(), static_cast<int>(out.size())) : -1;
}

}  // namespace

const std::map<std::string, std::string> SDTks::sKeys;

bool aes_encrypt_strong(const char* in, int length, char* out, unsigned long* outLength) {
    if (!in || !out || !outLength || length < 0) return false;
    const OpenSslApi* const api = openssl();
    if (!api) return false;
    const auto plain = static_cast<std::size_t>(length);
    const std::size_t padded = plain / kBlock * kBlock + kBlock;
    std::vector<unsigned char> work(padded, static_cast<unsigned char>(padded - plain));
    std::copy_n(in, plain, work.begin());

    AES_KEY key;
    if (api->AES_set_encrypt_key(kLegacyKey, kKeyBits, &key) != 0) {
        std::fputs("Unable to set encryption key in AES\n", stderr);
        return false;
    }
    Iv iv = freshIv();
    api->AES_cbc_encrypt(work.data(), bytes(out), padded, &key, iv.data(), AES_ENCRYPT);
    *outLength = padded;
    return true;
}

bool aes_decrypt_strong(char* in, unsigned long length, char* out, int* outLength) {
    if (!in || !out || !outLength || length == 0 || length > INT_MAX - kMaxBeyond) return false;
    const OpenSslApi* const api = openssl();
    if (!api) return false;
    AES_KEY key;
    if (api->AES_set_decrypt_key(kLegacyKey, kKeyBits, &key) != 0) return false;

    Iv iv = freshIv();
    const std::size_t whole = length / kBlock * kBlock;
    api->AES_cbc_encrypt(bytes(in), bytes(out), whole, &key, iv.data(), AES_DECRYPT);
    if (whole < length) {
        // The cipher reads a whole block even where less is left.
        std::array<unsigned char, kBlock> last{};
        std::copy_n(in + whole, length - whole, last.begin());
        api->AES_cbc_encrypt(last.data(), bytes(out) + whole, length - whole, &key, iv.data(), AES_DECRYPT);
    }

    const auto padding = static_cast<signed char>(out[length - 1]);
    if (padding == 0 || padding > static_cast<int>(kBlock)) return false;
    *outLength = static_cast<int>(length) - padding;
    return true;
}

std::string SDTks::Encrypt(const std::string& plain) {
    if (plain.empty() || plain.size() > kMaxPlain) return "";
    std::array<char, kMaxCipher> cipher{};
    unsigned long length = cipher.size();
    if (!aes_encrypt_strong(plain.data(), static_cast<int>(plain.size()), cipher.data(), &length)) {
        LOG(7, AT "SetKey aes_encrypt_strong error! \n", HERE);
        return "";
    }
    return base64(cipher.data(), length);
}

int SDTks::Decrypt(char* text, char* out, int size) {
    if (!text || !out) return 0;
    std::array<char, kMaxDecoded> cipher{};
    const int count = unbase64(text, cipher);
    // Longer than its bytes can be: zeros follow where a negative padding makes the value longer than what was stored.
    std::array<char, kMaxCipher + kMaxBeyond> plain{};
    int length = 0;
    if (count <= 0 || static_cast<std::size_t>(count) > kMaxCipher ||
        !aes_decrypt_strong(cipher.data(), static_cast<unsigned long>(count), plain.data(), &length)) {
        LOG(7, AT "SetKey aes_decrypt_strong error! \n", HERE);
        return -1;
    }
    if (length <= 0) {
        LOG(7, AT "SetKey decryptLen <=0! \n", HERE);
        return -1;
    }
    const int copied = std::clamp(size, 0, length);
    std::copy_n(plain.begin(), copied, out);
    std::fill(out + copied, out + std::max(size, copied), '\0');
    return 1;
}

std::string SDTks::GetKey(int index) {
    if (index < 0 || static_cast<std::size_t>(index) >= sKeys.size()) return "";
    return std::next(sKeys.begin(), index)->second;
}

std::string SDTks::GetKey(const std::string& name) {
    const auto found = sKeys.find(name);
    return found == sKeys.end() ? "" : found->second;
}

}  // namespace sd
