// The store for data of the earlier layout: its accessors, and the upgrade that carries it over to version 3.
#pragma once

#include <string>

#include "base/sdconfig_export.h"
#include "src/sdconfig_impl.h"

namespace sd {

// In the earlier layout, version 2, plain settings stand in the config table. A secure value stands in the secure table
// in pieces of 32 bytes, each enciphered with the legacy cipher (sdtks): "name@@0", "name@@1" and so on, the row's key
// cut at 255 characters. An empty value has no rows.
//
// A host that may have such data constructs one on the database's path before it uses SDConfigImpl. docs/upgrade.md
// tells what is carried over when.
class SDCONFIG_API SDConfigImplTKS : public SDConfigImpl {
public:
    // Opens the file as SDConfigImpl does, with that one's own version step: a file whose secure_v3 is empty is stamped
    // with the current version then. Runs upgradeDB after it, whose result is ignored.
    explicit SDConfigImplTKS(const std::string& dbPath);
    ~SDConfigImplTKS();

    // Whether config, secure and secure_v3 are all empty, or can't be read.
    bool isNewInstall();

    // Stamps a new install. Copies everything where the file's version is below the current one, and then stamps it.
    // False when a row could not be copied (but see upgradeSecure_to3) or the file not be stamped: the version is as it
    // was then, rows that were copied stay, and the next start tries again. config and secure keep all their rows. One
    // at a time in a process.
    bool upgradeDB();

    // Copy all settings, or all values of the secure table and then the client's identifier, into secure_v3, where they
    // replace rows of the same key. A row that can't be kept, for its key is longer than 64 KiB or its value than 16
    // MiB, is logged and the others are copied; the first that can't be stored for another reason ends the copy. False
    // in both cases; the second is true all the same when there is an identifier and it could be copied. A row that
    // can't be read counts as an empty one.
    bool upgradeConfig_to3();
    bool upgradeSecure_to3();

    std::string GetConfig_v2(const std::string& key);
    bool SetConfig_v2(const std::string& key, const std::string& value);
    bool DeleteConfig_v2(const std::string& key);

    // True, whatever became of the rows. Pieces of an earlier value from the 65th on are left where they are.
    bool SetSecure_v2(const std::string& name, const std::string& value);
    std::string GetSecure_v2(const std::string& name);
    bool DeleteSecure_v2(const std::string& name);

    // What the three above are made of. A value is read up to its first missing piece and 64 pieces at most, 2048
    // bytes; a piece that can't be deciphered counts as empty. A name without pieces has its built-in value.
    bool SDTksSetSecure(const std::string& name, const std::string& value);
    std::string SDTksGetSecure(const std::string& name);
    std::string getSecureFromDatabase(const std::string& name);

    // As the base class has them.
    std::string SignRequest(const std::string& request);
    bool VerifyRequest(const std::string& request, const std::string& signature);
};

}  // namespace sd
