// Who works on a data folder: the one service that serves it, or whoever upgrades it meanwhile.
#pragma once

#include <string>
#include <utility>

namespace apps {

// Held on the file "sdconfigd.lock" in the folder. The name that a service has on the bus can't take its place:
// services of other users, or of other runtime folders, have names of their own, and could share a data folder unseen.
// The lock is the kernel's, on the open file: it ends with its process, however that ends. The file holds the process
// id, for people, and stays.
class DataFolderLock {
public:
    DataFolderLock() = default;
    DataFolderLock(DataFolderLock&& other) noexcept : mDescriptor(std::exchange(other.mDescriptor, -1)) {}
    DataFolderLock& operator=(DataFolderLock&& other) noexcept {
        std::swap(mDescriptor, other.mDescriptor);
        return *this;
    }
    ~DataFolderLock();

    // folder: has to be there. Returns a line for a person, with the folder and the reason, where it can't be had; "".
    std::string take(const std::string& folder);

private:
    int mDescriptor = -1;
};

// Why the folder or its sdconfig.db is not free, in a line for a person; "" where it is. A process that has the
// database open is seen even while it is idle and takes no part in the lock. Takes, makes and changes nothing. Not
// while this process has the database open: closing the file here would give up the locks of that connection.
std::string usedBy(const std::string& folder);

}  // namespace apps
