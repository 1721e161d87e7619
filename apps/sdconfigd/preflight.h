// What has to hold before the service may answer: it must never serve emptiness in place of data that it can't reach.
#pragma once

#include <string>

enum class Integrity { ToCheck, Known };

// Opens both databases in the folder for writing, looks for damage in them and their logs, and sees to it that sealed
// rows come with a key ring that can open them, and a ring with tables. Where the integrity is known, it does not look
// through the databases themselves, which takes most of a start among many keys. Changes no file that is there, and
// where it refuses leaves none that it made. The security layer must know the folder already. Returns a line for a
// person, with the path and the reason, or
// "" when all is well.
std::string preflight(const std::string& dataFolder, Integrity integrity);

// Whether the stores, once opened, have all their tables: a disk that has no room for them is told by this alone.
// Returns as preflight does.
std::string checkTables(const std::string& dataFolder);
