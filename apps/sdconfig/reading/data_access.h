// Whether a command may read the service's data folder itself, and which one that is.
#pragma once

#include <optional>

#include "apps/data/data_reader.h"
#include "apps/sdconfig/request/request.h"
#include "apps/sdconfig/terminal/messages.h"

namespace cli {

class Service;

// Data of another service than the one that answers would be worse than none. So beside a running service its own
// folder counts, where the system tells it, or else the one that the user named; without a service, the one that the
// user named or the user's usual one.
struct DataAccess {
    std::optional<apps::DataReader> reader;
    std::string ofService;  // where the user named another folder than the running service's: that one
    int exitCode = 0;       // kUsage then, where it was told
};

DataAccess findData(const Request& request, const Service& service);    // tells nothing
DataAccess accessData(const Request& request, const Service& service);  // tells

// Tells which of the two databases the folder lacks.
void noteMissingDatabases(const apps::DataReader& reader);

// The same for a command whose argument is the folder: the one that was named counts, whoever serves it. Without a
// reader it was told why.
DataAccess accessFolder(const Request& request, const Service& service);

// The folder, for a command that asks the service for nothing: one that --data-dir names counts, whoever serves it.
// Nothing, with the exit code, where it was told why.
std::optional<std::string> folderToRead(const Request& request, const Service& service, int& exitCode);

// What hindered reading the data, and what to do about it; "" where its folder doesn't tell.
Problem problemOfData(const DataAccess& access, const std::string& what);

inline constexpr char kFolderUntold[] = "the system does not tell where the service keeps its data";

// The folder of that path, without links and a slash at the end.
std::string folderNamed(const std::string& path);

}  // namespace cli
