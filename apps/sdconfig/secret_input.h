// Reads a secret from standard input: a pipe or a file up to its end, a terminal one line without echo.
#pragma once

#include <string>

namespace cli {

struct SecretInput {
    std::string value;
    std::string problem;  // for a person, where there is no value; else ""
};

// prompt: shown on standard error, where standard input is a terminal.
// One final newline is dropped. A signal that ends or stops the process while it reads leaves the terminal echoing.
SecretInput readSecret(const std::string& prompt);

}  // namespace cli
