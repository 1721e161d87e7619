// What somebody may have meant who typed something else.
#pragma once

#include <string>
#include <vector>

namespace cli {

// The name that a slip or two of the fingers make of `word`; "" where there is none.
std::string nearest(const std::string& word, const std::vector<std::string>& names);

}  // namespace cli
