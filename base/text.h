// Texts of other encodings, as UTF-8.
#pragma once

#include <string>

namespace sd {

// Both read up to the first zero byte. Any thread.

// The bytes are taken for Latin-1.
std::string latin1ToUtf8(const std::string& bytes);

// The bytes are taken for the encoding of the process's locale (LC_CTYPE of setlocale), or the thread's own, where it
// has one. "C", which every program begins with, knows ASCII alone and is taken for UTF-8. A byte that begins no
// character becomes U+FFFD.
std::string localToUtf8(const std::string& bytes);

}  // namespace sd
