#include "apps/sdconfig/terminal/colour.h"

#include <array>
#include <cstddef>
#include <cstdlib>

#include "apps/sdconfig/terminal/output.h"

namespace cli {

namespace {

std::string variable(const char* name) {
    const char* const value = std::getenv(name);
    return value ? value : "";
}

bool isWanted() {
    return isTerminal() && variable("NO_COLOR").empty() && variable("TERM") != "dumb";
}

}  // namespace

std::string coloured(const std::string& word, Colour colour) {
    static const bool sWanted = isWanted();
    if (!sWanted) return word;
    static constexpr std::array kBegins{"\x1b[32m", "\x1b[31m", "\x1b[33m", "\x1b[2m"};
    return kBegins.at(static_cast<std::size_t>(colour)) + word + "\x1b[0m";
}

}  // namespace cli
