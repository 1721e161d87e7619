// Reads a database that a service may be using, and leaves no trace: it creates, changes and deletes nothing.
#pragma once

#include <sqlite3.h>

#include <functional>
#include <string>

namespace apps {

// What is done with the connection, in one transaction, so that all it reads stood there at one moment. Returns the
// code of the call that failed, or SQLITE_OK. It may be called anew when somebody opened or closed the database
// meanwhile; what it did before counts for nothing then.
using DatabaseUse = std::function<int(sqlite3* db)>;

// Asked now and then by long work: whether it is to end. What it returns counts for nothing then.
using Stop = std::function<bool()>;

// Returns a line for a person, with the path, or "".
//
// Whoever opens a database in WAL mode the plain way makes its log and index files where they are missing, even when he
// only reads. So a database with both is read through them, as they are, whether a service lives or was killed; one
// without a log is read alone; one with a log but no index, a copy from somewhere, is read in a copy of our own.
//
// Its schema is trusted with nothing, and a row has its bound: the file may be anybody's.
std::string readUntouched(const std::string& path, const DatabaseUse& use, const Stop& stop = nullptr);

}  // namespace apps
