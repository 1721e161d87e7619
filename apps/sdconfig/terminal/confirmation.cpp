#include "apps/sdconfig/terminal/confirmation.h"

#include <unistd.h>

#include <iostream>

namespace cli {

bool canConfirm(const Request& request) {
    return request.yes || (request.file != "-" && ::isatty(STDIN_FILENO) != 0);
}

bool confirmed(const Request& request, const std::string& question) {
    if (request.yes) return true;
    const std::string text = question + " [y/N] ";
    (void)!::write(STDERR_FILENO, text.data(), text.size());
    std::string line;
    std::getline(std::cin, line);
    return line == "y" || line == "Y" || line == "yes";
}

}  // namespace cli
