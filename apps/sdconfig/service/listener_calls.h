// The call about what clients listen to. An earlier version's service has none, and leaves it without an answer.
#pragma once

#include <map>
#include <optional>
#include <string>

namespace cli {

class Service;

// How many clients listen to each key; those that ended without a word are among them. Nothing where the service
// doesn't tell.
std::optional<std::map<std::string, int>> listenersOf(const Service& service);

}  // namespace cli
