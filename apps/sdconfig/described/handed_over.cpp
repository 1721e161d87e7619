#include "apps/sdconfig/described/handed_over.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>

namespace cli {

namespace {

constexpr char kVariable[] = "SDCONFIG_DESCRIBED_AS";  // "LINE FILE\nEXCERPT"
constexpr std::size_t kBytesMax = 32 << 10;            // beside arguments and the rest of the environment

std::string takeVariable() {
    const char* const told = std::getenv(kVariable);
    std::string text = told ? told : "";
    ::unsetenv(kVariable);
    return text;
}

}  // namespace

void handOverFound(const sd::Descriptions::Found& found, const std::string& excerpt) {
    if (found.file.find('\n') != std::string::npos) return;
    const std::string text = std::to_string(found.description.line) + " " + found.file + "\n" + excerpt;
    if (text.size() <= kBytesMax) ::setenv(kVariable, text.c_str(), 1);
}

std::optional<sd::Descriptions::Found> takeHandedOver(const std::string& key) {
    const std::string text = takeVariable();
    const std::size_t blank = std::min(text.find(' '), text.size());
    const std::size_t end = text.find('\n', blank);
    int line = 0;
    const auto [stop, failure] = std::from_chars(text.data(), text.data() + blank, line);
    if (end == std::string::npos || failure != std::errc() || stop != text.data() + blank) return std::nullopt;
    sd::Descriptions one;
    one.add(text.substr(blank + 1, end - blank - 1), text.substr(end + 1));
    auto found = one.find(key);
    if (found) found->description.line = line;
    return found;
}

}  // namespace cli
