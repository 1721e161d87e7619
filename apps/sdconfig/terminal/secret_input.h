// Reads a secret from standard input; at a terminal one line, without echo.
#pragma once

#include <string>

namespace cli {

struct SecretInput {
    std::string value;
    std::string problem;  // for a person, where there is no value; else ""
    std::string next;     // what to do about it
};

// prompt: shown on standard error, where standard input is a terminal.
// A signal that ends or stops the process while it reads leaves the terminal echoing.

// A pipe or a file up to its end; one final newline is dropped.
SecretInput readSecret(const std::string& prompt);

// A pipe or a file up to its first newline, which is dropped, or its end; nothing behind that is taken.
SecretInput readSecretLine(const std::string& prompt);

}  // namespace cli
