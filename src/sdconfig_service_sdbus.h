// The configuration service, as its host process sees it.
#pragma once

#include "libsdconfig/sdconfig_export.h"

namespace sd {

class SDCONFIG_API SDConfigService {
public:
    // The process's one service. The first call opens both databases in the data folder, so the host sets
    // SDConfig::setDataPath, setVelmarDataPath and the security layer's key ring folder before it.
    static SDConfigService* GetInstance();

    virtual ~SDConfigService();

    // Registers the service under "sdconfig"; from then on calls are answered, on the bus layer's own thread. Whether
    // the name could be had is for SDBusSerivceManager::registrationFailure to tell.
    virtual void Start() = 0;

    // Does nothing yet: the service ends with its process, or by SDBusSerivceManager::unregisterServiceInterface.
    virtual void Stop() = 0;
};

}  // namespace sd
