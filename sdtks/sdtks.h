// The cipher of earlier versions: short secure values under one fixed key, as base64 text. It is here to read what they
// stored; it protects nothing from whoever has the program, and what is stored today is sealed by the security layer.
#pragma once

#include <map>
#include <string>

#define SDTKS_API __attribute__((visibility("default")))

namespace sd {

// AES-256 in CBC mode, key and initialisation vector fixed: the same bytes always give the same cipher text. Between 1
// and 16 padding bytes, each of which is their number, fill the last block. Any thread.

// Enciphers `length` bytes into `out`, which must hold them rounded down to blocks of 16, and 16 more; `outLength`
// becomes that number. False, with `outLength` unchanged, for a null pointer, a negative length, an unfit key, or where
// OpenSSL can't be loaded.
SDTKS_API bool aes_encrypt_strong(const char* in, int length, char* out, unsigned long* outLength);

// Deciphers `length` bytes into `out`, which must hold as many. Bytes of the last block that are missing count as 0.
// Only the last padding byte is looked at. One of 128 and more passes, as a negative number: `outLength` is then larger
// than `length`, and only `length` bytes were written.
// False, with `outLength` unchanged, for a null pointer, no bytes or more than an int counts, an unfit key, a padding
// of 0 or of 17 to 127, or where OpenSSL can't be loaded.
SDTKS_API bool aes_decrypt_strong(char* in, unsigned long length, char* out, int* outLength);

class SDTKS_API SDTks {
public:
    // The base64 text of the enciphered bytes: a newline after each 64 characters and one at the end.
    // "" for no bytes, for more than 32, and, with a log line, when the cipher fails.
    static std::string Encrypt(const std::string& plain);

    // Deciphers the text, which ends at its first zero byte, into `out`, and fills what is left of its `size` bytes
    // with zeros. A longer value is cut there, without a zero byte at its end.
    // Returns 1; 0 for a null pointer; -1, with a log line and `out` unchanged, for what is no base64, holds more than
    // 100 bytes, has no fit padding, or is empty.
    static int Decrypt(char* text, char* out, int size);

    // Built-in values, in the form that Encrypt gives, for names that a legacy table does not hold: by position in the
    // order of the names, or by exact name. "" where there is none. This build has none.
    static std::string GetKey(int index);
    static std::string GetKey(const std::string& name);

private:
    static const std::map<std::string, std::string> sKeys;
};

}  // namespace sd
