// The store that upgrades, as those see it who run the upgrade: what came of it.
#pragma once

#include <cstdlib>

#include "src/sdconfig_impl_tks.h"

namespace apps {

class Upgrader : public sd::SDConfigImplTKS {
public:
    using SDConfigImplTKS::SDConfigImplTKS;

    // Whether the file has the current version, or a later one. After a failed upgrade, or without the file, it has
    // not.
    bool isCurrent() { return number(getDBVersion(mDbInforTable)) >= number(mLatestVersion); }

    // Whether there is data of the earlier layout and nothing was ever carried over: the version step of the base class
    // comes first and stamps such a file, so that the upgrade then leaves it alone.
    bool leftBehind() { return !isNewInstall() && SDConfigImpl::isNewInstall(); }

    // The upgrade's copies, whatever the version says; the secure values also after settings that could not be copied.
    bool copyAll() {
        const bool settings = upgradeConfig_to3();
        return upgradeSecure_to3() && settings && setDBVersion(mDbInforTable, mLatestVersion);
    }

private:
    static long number(const std::string& version) { return std::strtol(version.c_str(), nullptr, 10); }
};

}  // namespace apps
