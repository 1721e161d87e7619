// What has to hold before the service may answer: it must never serve emptiness in place of data that it can't reach.
#pragma once

#include <string>

// Makes the data folder (0700, parents too) if it is missing, opens both databases in it for writing, and sees to it
// that sealed rows come with a key ring that can open them. The security layer must know the folder already. Returns a
// line for a person, with the path and the reason, or "" when all is well.
std::string preflight(const std::string& dataFolder);

// Whether the stores, once opened, have all their tables: a disk that has no room for them is told by this alone.
// Returns as preflight does.
std::string checkTables(const std::string& dataFolder);
