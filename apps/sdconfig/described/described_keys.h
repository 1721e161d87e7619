// What descriptions say of the keys that a command is about.
#pragma once

#include <string>

#include "apps/sdconfig/request/request.h"
#include "apps/sdconfig/terminal/messages.h"
#include "descriptions/descriptions.h"

namespace cli {

// Those of the machine's folders, and of those that the request names besides.
sd::Descriptions describedKeys(const Request& request);

// Tells what is left out of what was looked at.
void noteLeftOut(const sd::Descriptions& descriptions);

// Where it stands, for a person: "FILE, line 3".
std::string placeOf(const sd::Descriptions::Found& found);

// What a value is stored as.
enum class Target { Property, Secure, Policy };

// Why the value can't be stored so; else it gets the form that is stored.
Problem misfit(const sd::Descriptions::Found& found, Target target, std::string& value);

}  // namespace cli
