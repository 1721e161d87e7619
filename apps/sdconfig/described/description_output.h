// A description as it is printed.
#pragma once

#include <string>

#include "apps/sdconfig/terminal/output.h"
#include "descriptions/descriptions.h"

namespace cli {

// Its words in the language of the environment.
sd::KeyWords localWords(const sd::KeyDescription& description);

// Several lines, in the language of the environment. key: the one that was asked for, which a glob may stand for.
std::string textOf(const sd::Descriptions::Found& found, const std::string& key);

// One line: key, type, default and summary.
std::string lineOf(const sd::Descriptions::Found& found);

Object objectOf(const sd::Descriptions::Found& found, const std::string& key);

}  // namespace cli
