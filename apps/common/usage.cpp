#include "apps/common/usage.h"

#include <CLI/CLI.hpp>

namespace apps {

// The parser's words on a number of values that doesn't fit are for programmers. They begin with the option's name, a
// flag's without its dashes.
std::string usageProblem(const CLI::ParseError& error) {
    std::string told = error.what();
    if (error.get_name() != "ArgumentMismatch") return told;
    const std::string name = told.substr(0, told.find_first_of(": "));
    const auto says = [&told](const char* words) { return told.find(words) != std::string::npos; };
    if (says("flag override")) return "--" + name + " takes no value";
    return name + (says(" missing") ? " needs a value" : " takes one value, and once");
}

std::string notEmpty(const std::string& value) {
    return value.empty() ? "the value is empty" : "";
}

}  // namespace apps
