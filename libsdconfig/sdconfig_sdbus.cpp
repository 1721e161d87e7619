// The client's connection: found, made and kept once a process, and the events that come over it.
#include <chrono>
#include <thread>

#include "libsdconfig/listener_map.h"
#include "libsdconfig/sdconfig_client.h"
#include "platform/velmarlog/log_line.h"
#include "src/sdconfig_protocol.h"

namespace sd {

namespace {

constexpr char kTag[] = "sdconfig";
constexpr char kSource[] = "sdconfig_sdbus";

constexpr int kServiceChecks = 11;
constexpr std::chrono::milliseconds kServiceCheckPause{100};
constexpr std::chrono::milliseconds kConnectPause{10};

}  // namespace

const char* SDConfigClient::sServiceName = nullptr;
std::atomic<bool> SDConfigClient::sInitialized{false};
std::atomic<bool> SDConfigClient::sDestroyed{false};
std::mutex SDConfigClient::sLock;
std::mutex SDConfigClient::sDMLock;

// The process's client. At exit it goes like any other static; who calls a facade after that finds no client instead of
// a destroyed one.
struct SDConfigClient::Instance {
    Instance() = default;
    Instance(const Instance&) = delete;
    Instance& operator=(const Instance&) = delete;
    ~Instance() {
        sInitialized.store(false);
        sDestroyed.store(true);
    }
    std::shared_ptr<SDConfigClient> client;
};

std::shared_ptr<SDConfigClient> SDConfigClient::GetInstance() {
    static Instance instance;
    if (sInitialized.load(std::memory_order_acquire)) return instance.client;
    const std::lock_guard lock(sLock);
    if (sDestroyed.load()) return nullptr;
    if (sInitialized.load()) return instance.client;

    if (!sServiceName) {
        sServiceName = protocol::kServiceName;
        LOG(5, AT "sdconfig service name %s", HERE_AT(239), sServiceName);
    }
    SDBusSerivceManager* manager = SDBusSerivceManager::initSync(-1);
    for (int check = 1; check <= kServiceChecks; ++check) {
        if (manager->isServiceRegistered(sServiceName)) break;
        if (check == kServiceChecks) break;
        LOG(5, AT "service %s not ready, waiting...", HERE_AT(247), sServiceName);
        std::this_thread::sleep_for(kServiceCheckPause);
    }
    if (!manager->isServiceRegistered(sServiceName)) {
        LOG(7, AT "service %s failed to register after timeout", HERE_AT(253), sServiceName);
        return nullptr;
    }
    if (sDestroyed.load()) return nullptr;  // the process began to exit while this thread waited
    instance.client.reset(new SDConfigClient);
    sInitialized.store(true);
    LOG(5, AT "SDConfigClient initialized successfully %p", HERE_AT(261), static_cast<void*>(instance.client.get()));
    return instance.client;
}

SDConfigClient::SDConfigClient() : mListenerMap(std::make_shared<ListenerMap>()) {
    LOG(5, AT "SDConfigClient instance SDBUS intf %p", HERE_AT(268), static_cast<void*>(this));
    while (!init()) std::this_thread::sleep_for(kConnectPause);
    printProductInfo();
    dataMigrate(kOldLockscreenKey);
    wpowerConfigInit();
}

SDConfigClient::~SDConfigClient() = default;

bool SDConfigClient::init() {
    mProxy = SDBusSerivceManager::initSync(-1)->getServiceProxyInterface(sServiceName, SDBusSameUser, 1);
    if (!mProxy) {
        LOG(7, AT "initSync error", HERE_AT(287));
        return false;
    }
    // The bus layer takes the callback over.
    auto* callback = new SDBusEventCallback(
        [listeners = mListenerMap](std::shared_ptr<SDBusMessage> event) { listeners->onEvent(*event); });
    mProxy->addEventListener(protocol::kDmChanged, callback, SDBusSameUser);
    return true;
}

std::shared_ptr<SDBusMessage> SDConfigClient::makeCall(const char* method) const {
    return mProxy->makeMethodCallMessage(method);
}

SDConfigClient::Answer SDConfigClient::send(const std::shared_ptr<SDBusMessage>& call) const {
    return Answer(mProxy->callWithReplyBlocking(call, protocol::kCallTimeoutMs));
}

SDConfigClient::Answer SDConfigClient::request(const char* method, std::initializer_list<std::string> strings) const {
    const auto call = makeCall(method);
    for (const std::string& argument : strings) call->appendString(argument);
    return send(call);
}

bool SDConfigClient::Answer::ok() const {
    return type() == protocol::kMethodReply;
}

void SDConfigClient::printProductInfo() {
    const std::string version = GetProperty("ro.sd.build.version");
    if (!version.empty()) LOG(5, AT "ProductInfo build.version: %s", HERE_AT(1032), version.c_str());
    const std::string mode = GetProperty("ro.sd.product.mode");
    if (!mode.empty()) LOG(5, AT "ProductInfo product.mode: %s", HERE_AT(1037), mode.c_str());
}

}  // namespace sd
