// How a policy stands in its row, before it is sealed: "<value>&&&<priority in decimal>".
#pragma once

#include <string>
#include <utility>

namespace sd {

std::string composePolicyText(const std::string& value, int priority);

// The value, and the text of the priority, unchecked. A text without the separator is of the earlier form: a value
// followed by a priority of one digit. text: not empty.
std::pair<std::string, std::string> splitPolicyText(const std::string& text);

}  // namespace sd
