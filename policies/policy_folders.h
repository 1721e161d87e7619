// Reads the folders of the machine's policies.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/trusted_path.h"
#include "policies/machine_policies.h"
#include "policies/policy_users.h"

namespace sd {

// Where the vendor's policies lie, the administrator's, and those until the next boot.
std::vector<std::string> standardPolicyFolders();
inline constexpr char kAdministratorPolicies[] = "/etc/sdconfig/policies.d";

inline constexpr std::size_t kPolicyFileBytesMax = std::size_t{4} << 20;
inline constexpr std::size_t kPolicyFilesMax = 10'000;
inline constexpr std::size_t kPolicyBytesMax = std::size_t{32} << 20;  // of all files together

// Whether a file of that name in a folder is one of policies: *.json, and not hidden.
bool isPolicyFileName(const std::string& name);

// The rules of drop-in files: all that are named *.json are taken in the order of their names over all folders. A file
// takes the place of those of its name in earlier folders; an empty one, or a link to /dev/null, leaves the place
// empty. Of a URI that several have, the last one's policy counts.
//
// What can't be trusted is as if it weren't there. A file that can't be used as it is takes its place all the same;
// what it held when it was read last stays in force until it is whole again or gone.
//
// For one thread at a time. Each reading reads every file; only those with other bytes than before are parsed again.
class PolicyFolders {
public:
    // folders: absolute paths; the files of a later one count before those of an earlier one. owner: the user who may
    // have made them, beside root.
    PolicyFolders(std::vector<std::string> folders, uid_t owner);

    // isUnfinished: whether somebody is writing the file at that path, asked after the reading of it too; what it held
    // before stands, and one that is new counts once it is whole. May be empty.
    using IsUnfinished = std::function<bool(const std::string& path)>;
    std::shared_ptr<const MachinePolicies> read(PolicyUsers& users, const IsUnfinished& isUnfinished = nullptr);

    const std::vector<std::string>& folders() const { return mFolders; }

private:
    struct Held {
        std::uint64_t digest;
        std::size_t bytes;
        MachinePolicies::Entries entries;  // null where the text was never whole
        std::string problem;               // of that text
    };
    struct Folder {
        std::string path;
        TrustedOpening opening;
    };
    struct Reading;

    void listFolder(const std::string& path, Reading& reading) const;
    void takeName(const std::string& name, Reading& reading);
    PolicySource takeFile(const std::string& path, const TrustedOpening& opening, Reading& reading);
    PolicySource takeText(const std::string& path, const std::string& text, Reading& reading);
    PolicySource keep(const std::string& path, const std::string& problem, Reading& reading);

    const std::vector<std::string> mFolders;
    const uid_t mOwner;
    std::map<std::string, Held> mHeld;  // by the file's path
};

}  // namespace sd
