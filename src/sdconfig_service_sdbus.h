// The configuration service, as its host process sees it.
#pragma once

#include "base/sdconfig_export.h"

namespace sd {

class SDCONFIG_API SDConfigService {
public:
    // The process's one service. The first call opens both databases in the data folder, so the host sets
    // SDConfig::setDataPath, setVelmarDataPath and the security layer's key ring folder before it.
    static SDConfigService* GetInstance();

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
