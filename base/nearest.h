// What somebody may have meant who wrote something else.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace sd {

// The name that a slip or two of the fingers make of `word`; "" where there is none. Of names that are equally near,
// the first.
std::string nearest(std::string_view word, const std::vector<std::string_view>& names);

}  // namespace sd
