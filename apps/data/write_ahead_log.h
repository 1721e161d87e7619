// SQLite's write-ahead log, looked at before SQLite is: it would drop what follows a damaged frame without a word, and
// write over it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace apps {

// The byte at which the log is damaged where commits that were durable stand behind that; else nothing. Changes
// nothing. A write that a power cut tore looks like damage too, but only the last commit of a log can be torn, since
// each is synced before the next begins: damage is told by two commits behind it, or by a header that is not one.
std::optional<uint64_t> damagedPlaceOfLog(const std::string& path);

}  // namespace apps
