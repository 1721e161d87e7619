// What both programs' command lines have in common: how a wrong one is told.
#pragma once

#include <string>

namespace CLI {
class ParseError;
}  // namespace CLI

namespace apps {

// What was wrong, for a person.
std::string usageProblem(const CLI::ParseError& error);

// For an option whose value can't be empty: what is wrong with the value; "".
std::string notEmpty(const std::string& value);

}  // namespace apps
