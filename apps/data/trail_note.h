// Entries of the trail by who works on a data folder that no service has.
#pragma once

#include <string>
#include <vector>

#include "trail/entry.h"

namespace apps {

// What the databases of the folder carry of its trail, which a kill may have taken from the file: for whoever opens the
// trail to write. Opens the databases as a service does.
std::vector<std::string> carriedTrail(const std::string& folder);

// This process, as a caller in the trail.
sd::trail::Peer ownPeer();

// Writes the entry, which has `what` and what came of it, into the trail of the folder, or begins one. The folder is
// the caller's alone, and its key ring the security layer's: without one that can be used there is no entry, and
// nothing to tell of that. Returns why else it could not be written, or "".
std::string noteInTrail(const std::string& folder, sd::trail::Entry entry);

}  // namespace apps
