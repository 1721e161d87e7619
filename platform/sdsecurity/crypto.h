// What this layer takes from OpenSSL and from the kernel.
#pragma once

#include <cstddef>
#include <stdexcept>

#include "platform/sdsecurity/openssl_api.h"

namespace sd::security {

// OpenSSL could not be loaded or could not do its work; memory may have run out. It is thrown, so that it never passes
// for a wrong value or a damaged ring, and nothing of it is kept: the next operation may succeed.
struct CryptoFailure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Throws where a call of OpenSSL has failed.
void demand(bool done);

// To be called before OpenSSL is. The first call keeps it usable for static destructors; where the host was first to
// use OpenSSL, its clean-up at exit comes before them, and calls from then on would crash: then it throws.
void demandCrypto();

// Bytes of somebody else's; fewer than 2^31, since OpenSSL counts in int.
struct BytesView {
    const unsigned char* data;
    std::size_t size;
};

// AES-256-GCM: puts the cipher text, as long as `plain`, and the tag into `sealed`. key, nonce: of kKeySize and
// kNonceSize bytes. covered: what the tag covers besides. Throws CryptoFailure.
void encrypt(const unsigned char* key, const unsigned char* nonce, BytesView covered, BytesView plain,
             unsigned char* sealed);
// The way back: `plain` has room for all but the tag. False where the tag does not fit; what stands in `plain` then is
// wiped. Throws CryptoFailure.
bool decrypt(const unsigned char* key, const unsigned char* nonce, BytesView covered, BytesView sealed,
             unsigned char* plain);

// From the kernel: a generator of OpenSSL that could not be set up once fails for the rest of the process.
void fillRandomly(unsigned char* bytes, std::size_t size);

}  // namespace sd::security
