// The configuration service, as its host process sees it.
#pragma once

#include <string>
#include <vector>

#include "base/sdconfig_export.h"

namespace sd {

class SDCONFIG_API SDConfigService {
public:
    // The process's one service. The first call opens both databases in the data folder, so the host sets
    // SDConfig::setDataPath, setVelmarDataPath and the security layer's key ring folder before it.
    static SDConfigService* GetInstance();

    // The trail of what is changed, and by whom, that the service keeps beside its databases (docs/security.md). To be
    // told before Start; untold, a trail is kept in files of 8 MiB, four besides the current one, and no readings stand
    // in it.
    static void SetTrailKept(bool isKept);
    // fileMiB: from 1 on; about. filesKept: besides the current one, from 1 on.
    static void SetTrailSize(int fileMiB, int filesKept);
    // Each reading of a secure value or a policy whose key fits one of these patterns, as of the shell, whatever the
    // letter case, is in the trail before it is answered.
    static void SetAuditedReads(std::vector<std::string> patterns);

    // Whether the stores' own connections can write, from the first GetInstance on. Where memory or descriptors ran out
    // when they opened their files they can't, and stay so: a host does well not to serve then.
    static bool CanStore();

    virtual ~SDConfigService();

    // Registers the service under "sdconfig"; from then on calls are answered, on the bus layer's own thread. Whether
    // the name could be had is for SDBusSerivceManager::registrationFailure to tell. Where no data folder was told, and
    // both the application's and the place of earlier versions hold data, it is not asked for: a level-7 line has said
    // what to do.
    virtual void Start() = 0;

    // Does nothing yet: the service ends with its process, or by SDBusSerivceManager::unregisterServiceInterface.
    virtual void Stop() = 0;
};

}  // namespace sd
