// Entries of the trail in words, for a person.
#pragma once

#include <string>

#include "apps/sdconfig/terminal/output.h"
#include "trail/entry.h"

namespace cli {

// What was done and what came of it: "set", "policy set, priority 6", "deleted, no change".
std::string deedOf(const sd::trail::Entry& entry);

// Whether it tells of something that failed, was refused, or should not be.
bool isAmiss(const sd::trail::Entry& entry);

// Who did it: "/usr/bin/velmar-settings, pid 4711, in app-velmar.scope"; or where it comes from: "start".
std::string doerOf(const sd::trail::Entry& entry);

// The same behind a deed: "by /usr/bin/velmar-settings, pid 4711"; "" where nothing is known.
std::string byDoer(const sd::trail::Entry& entry);

// The line as it stands in the trail, as --json shows it.
Object objectOf(const std::string& line);

}  // namespace cli
