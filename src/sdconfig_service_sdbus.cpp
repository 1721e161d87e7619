// Start-up of the service.
#include "src/sdconfig_service_sdbus.h"

#include "platform/velmarlog/log_line.h"
#include "src/sdconfig_impl.h"
#include "src/sdconfig_impl_policy.h"
#include "src/sdconfig_interface.h"
#include "src/sdconfig_key_keeper.h"
#include "src/sdconfig_policy_keeper.h"
#include "src/sdconfig_protocol.h"
#include "src/sdconfig_slot_keeper.h"
#include "src/sdconfig_store_folder.h"

namespace sd {

namespace {

constexpr char kTag[] = "sdconfig";
constexpr char kSource[] = "src/sdconfig_service_sdbus";

class SDConfigServiceImpl : public SDConfigService {
public:
    void Start() override {
        SDBusSerivceManager* manager = SDBusSerivceManager::initSync(-1);
        LOG(5, AT "sdconfig service name=%s", HERE, protocol::kServiceName);
        if (!settleDataPath()) return;
        mInterface.readMachinePolicies();
        if (manager->registerServiceInterface(protocol::kServiceName, &mInterface, SDBusSameUser, 1))
            mInterface.watchMachinePolicies();
    }

    void Stop() override {}

private:
    SDConfigInterface mInterface;
};

}  // namespace

SDConfigService::~SDConfigService() = default;

SDConfigService* SDConfigService::GetInstance() {
    static SDConfigServiceImpl instance;
    return &instance;
}

SDConfigInterface::SDConfigInterface() : mManager(nullptr) {
    if (!settleDataPath()) return;  // which told why; Start won't serve
    SDConfigImpl::GetInstance();
    SDConfigDmHelper::GetInstance();
}

SDConfigInterface::~SDConfigInterface() = default;

void SDConfigInterface::initManager() {
    if (!mManager) mManager = SDBusSerivceManager::initSync(-1);
}

}  // namespace sd
