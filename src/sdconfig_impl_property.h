// Build properties: read from build.prop files once, kept in memory, never written back.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "base/sdconfig_export.h"

namespace sd {

// The files, in the order in which they are read: "<product data folder>/../etc/build.prop" where that folder is set
// (SDConfig::setVelmarDataPath), "/etc/build.prop", "/velmar/etc/build.prop". The last file to define a key wins, but
// for keys that begin with "ro.", which keep their first non-empty value.
//
// A line is "key=value"; one without "=" is skipped. Blanks around the "=" don't count, others do. A line is read in
// pieces of 1023 bytes, each a line of its own, and each ends at its first zero byte.
//
// Keys compare exactly. No lock: any number of threads may read while none sets; the service does both on its own
// thread. Nothing throws.
class SDCONFIG_API SDPropertyInf {
public:
    // The process's reader, loaded on first use and kept to the end.
    static SDPropertyInf* GetInstance();

    SDPropertyInf();

    // The level of the lines about build.prop files that aren't there, 7 untold: for a host that knows that there are
    // none. Before the first use.
    static void SetAbsentFileLevel(int level);

    // The value of the key, or "". The three keys of isSpecialKeyInBuildProp are read from the first file every time,
    // so that an update of the product shows at once.
    std::string GetProperty(const std::string& key);

    // False for a key that begins with "ro." and has a value, and for what is longer than a key of 64 KiB or a value of
    // 16 MiB. What is set lasts until the process ends.
    bool SetProperty(const std::string& key, const std::string& value);

    // False for a key that begins with "ro." or that isn't there.
    bool DeleteProperty(const std::string& key);

    // Properties are not listed: empty.
    std::map<std::string, std::string> ListProperty();

    // What the files defined and what was set since, for tools that read in their own process. What it has of the keys
    // of isSpecialKeyInBuildProp is not what GetProperty answers with.
    const std::map<std::string, std::string>& cached() const { return mCache; }

    // Reads the files; true when the last of them could be read.
    bool initProperties();

    bool readPropertyFile(std::string path);

    // What a line of a file says, and which line that is, from 1 on.
    struct Definition {
        std::string key;
        std::string value;
        int line;
    };

    // All that the file says, in its order, for tools that tell where a value stands. False when `path` is no file that
    // can be read.
    static bool readDefinitions(const std::string& path, std::vector<Definition>& definitions);

    // load: passes every definition of the file to SetProperty. Otherwise looks `key` up and puts what its first
    // definition says into `value`, which stays as it was when there is none.
    // False when `path` is no file that can be read.
    bool fileOperate(std::string path, bool load, std::string& value, std::string key);

private:
    std::map<std::string, std::string> mCache;
    std::string mBuildFile;
};

}  // namespace sd
