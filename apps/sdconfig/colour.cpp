#include "apps/sdconfig/colour.h"

#include <unistd.h>

#include <cstdlib>

namespace cli {

namespace {

std::string variable(const char* name) {
    const char* const value = std::getenv(name);
    return value ? value : "";
}

bool isWanted() {
    return ::isatty(STDOUT_FILENO) && variable("NO_COLOR").empty() && variable("TERM") != "dumb";
}

}  // namespace

std::string coloured(const std::string& word, Colour colour) {
    static const bool sWanted = isWanted();
    if (!sWanted) return word;
    return (colour == Colour::Good ? "\x1b[32m" : "\x1b[31m") + word + "\x1b[0m";
}

}  // namespace cli
