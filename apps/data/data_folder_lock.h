// Who works on a data folder: the one service that serves it, or whoever upgrades it meanwhile.
#pragma once

#include <optional>
#include <string>

#include "apps/common/descriptor.h"
#include "apps/data/finding.h"

namespace apps {

// Held on the folder itself and on the file "sdconfigd.lock" in it. The name that a service has on the bus can't take
// its place: services of other users, or of other runtime folders, have names of their own, and could share a data
// folder unseen. The locks are the kernel's, on what was opened: they end with their process, however that ends, and
// no deleted file lets a second one in. The file holds the process id, for people, and stays; it also is what an
// earlier version looks at, and file systems that can't lock a folder.
class DataFolderLock {
public:
    // folder: has to be there. Returns why it can't be had, and what to do then.
    std::optional<Finding> take(const std::string& folder);

private:
    Descriptor mFolder;
    Descriptor mFile;
};

// Why the folder or its sdconfig.db is not free, and how to end who uses it. A process that has the database open is
// seen even while it is idle and takes no part in the lock. Takes, makes and changes nothing. Not while this process
// has the database open: closing the file here would give up the locks of that connection.
std::optional<Finding> usedBy(const std::string& folder);

}  // namespace apps
