// What this layer takes from OpenSSL, which is loaded when the first value is sealed or opened.
#pragma once

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include "base/shared_library.h"

namespace sd::security {

struct OpenSslApi {
    const SharedLibrary library{OPENSSL_SONAME};
    LOADED(library, OPENSSL_init_crypto);
    LOADED(library, OPENSSL_cleanse);
    LOADED(library, ERR_peek_last_error);
    LOADED(library, ERR_reason_error_string);
    LOADED(library, ERR_clear_error);
    LOADED(library, EVP_sha256);
    LOADED(library, EVP_Digest);
    LOADED(library, EVP_MD_fetch);
    LOADED(library, EVP_MD_CTX_new);
    LOADED(library, EVP_MD_CTX_free);
    LOADED(library, EVP_DigestInit_ex2);
    LOADED(library, EVP_DigestUpdate);
    LOADED(library, EVP_DigestFinal_ex);
    LOADED(library, EVP_PBE_scrypt);
    LOADED(library, CRYPTO_memcmp);
    LOADED(library, EVP_EncodeBlock);
    LOADED(library, EVP_DecodeBlock);
    LOADED(library, EVP_CIPHER_fetch);
    LOADED(library, EVP_CIPHER_CTX_new);
    LOADED(library, EVP_CIPHER_CTX_free);
    LOADED(library, EVP_CIPHER_CTX_ctrl);
    LOADED(library, EVP_EncryptInit_ex2);
    LOADED(library, EVP_EncryptUpdate);
    LOADED(library, EVP_EncryptFinal_ex);
    LOADED(library, EVP_DecryptInit_ex2);
    LOADED(library, EVP_DecryptUpdate);
    LOADED(library, EVP_DecryptFinal_ex);
};

// Throws CryptoFailure (crypto.h) where OpenSSL can't be loaded; the next call tries again.
const OpenSslApi& openssl();

}  // namespace sd::security
