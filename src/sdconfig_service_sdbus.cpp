// Start-up of the service.
#include "src/sdconfig_service_sdbus.h"

#include <algorithm>
#include <utility>

#include "platform/velmarlog/log_line.h"
#include "src/sdconfig_impl.h"
#include "src/sdconfig_impl_policy.h"
#include "src/sdconfig_interface.h"
#include "src/sdconfig_key_keeper.h"
#include "src/sdconfig_policy_keeper.h"
#include "src/sdconfig_protocol.h"
#include "src/sdconfig_slot_keeper.h"
#include "src/sdconfig_store_folder.h"
#include "src/sdconfig_trail_keeper.h"

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
        if (!mInterface.readMachinePolicies()) {
            LOG(7, AT "machine policies: memory or descriptors are short, so nothing is served", HERE);
            return;
        }
        mInterface.openTrail();
        if (!manager->registerServiceInterface(protocol::kServiceName, &mInterface, SDBusSameUser, 1)) return;
        mInterface.beginTrail();
        if (!mInterface.watchMachinePolicies()) manager->unregisterServiceInterface(protocol::kServiceName);
    }

    void Stop() override {}

private:
    SDConfigInterface mInterface;
};

}  // namespace

SDConfigService::~SDConfigService() = default;

void SDConfigService::SetTrailKept(bool isKept) {
    trailSettings().isKept = isKept;
}

void SDConfigService::SetTrailSize(int fileMiB, int filesKept) {
    trailSettings().fileMiB = std::max(fileMiB, 1);
    trailSettings().filesKept = std::max(filesKept, 1);
}

void SDConfigService::SetAuditedReads(std::vector<std::string> patterns) {
    trailSettings().auditedReads = std::move(patterns);
}

bool SDConfigService::CanStore() {
    return SDConfigImpl::GetInstance()->isWritable() &&
           SDConfigDmHelper::GetInstance().sealedTable().database().isWritable();
}

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
