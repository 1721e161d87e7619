// SQLite's write-ahead log, looked at before SQLite is: it would drop what follows a damaged frame without a word, and
// write over it.
#pragma once

#include <string>

// Whether commits that were durable stand behind a damaged place of the log. Changes nothing.
// A write that a power cut tore looks like damage too, but only the last commit of a log can be torn, since each is
// synced before the next begins: damage is told by two commits behind it, or by a header that is not one.
// Returns a line for a person, with the path and the place, or "".
std::string logProblem(const std::string& path);
