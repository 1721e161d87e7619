// The classes of the contract, on top of the client's and the service's half.
#define SDBUS_OPTIONAL  // nothing is to be lacking here
#include "platform/sdbus/sdbus.h"

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/sdbus/client_pool.h"
#include "platform/sdbus/event_listener.h"
#include "platform/sdbus/fork.h"
#include "platform/sdbus/log.h"
#include "platform/sdbus/message.h"
#include "platform/sdbus/peer.h"
#include "platform/sdbus/service.h"
#include "platform/sdbus/service_loop.h"

using sdbus::EventListener;
using sdbus::forkGeneration;
using sdbus::forkMutex;
using sdbus::Message;
using sdbus::RefusalObserver;
using sdbus::RuntimeFolder;
using sdbus::Service;

namespace {

constexpr char kSource[] = "platform/sdbus/sdbus";

// Every client of a service is a descriptor, and the soft limit is 1,024 by custom.
void raiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) < 0 || limit.rlim_cur == limit.rlim_max) return;
    limit.rlim_cur = limit.rlim_max;
    if (::setrlimit(RLIMIT_NOFILE, &limit) < 0) LOG(6, AT "cannot raise the limit of descriptors", HERE);
}

std::shared_ptr<Message> ofType(const std::shared_ptr<SDBusMessage>& message, Message::Type type) {
    auto own = std::dynamic_pointer_cast<Message>(message);
    return own && own->type() == type ? own : nullptr;
}

}  // namespace

// ---- Messages ----

SDBusMessage::SDBusMessage(int type, std::string name, int errorType)
    : mType(type), mName(std::move(name)), mErrorType(errorType) {}
SDBusMessage::~SDBusMessage() = default;
std::string SDBusMessage::methodName() const {
    return mType == Message::kCall ? mName : std::string();
}
std::string SDBusMessage::eventName() const {
    return mType == Message::kEvent ? mName : std::string();
}
int SDBusMessage::type() const {
    return mType;
}
int SDBusMessage::getErrorType() const {
    return mErrorType;
}
std::string SDBusMessage::signature() const {
    const auto* own = dynamic_cast<const Message*>(this);
    return own ? sdbus::kindsOf(own->arguments()) : "";
}
bool SDBusMessage::peerOf(const SDBusMessage& call, SDBusPeer& peer) {
    const auto* own = dynamic_cast<const Message*>(&call);
    if (!own || !own->pendingCall() || own->type() != Message::kCall) return false;
    peer = own->pendingCall()->peer();
    return true;
}

SDBusEventCallback::SDBusEventCallback(Function function) : mFunction(std::move(function)) {}
SDBusEventCallback::~SDBusEventCallback() = default;
void SDBusEventCallback::operator()(std::shared_ptr<SDBusMessage> event) const {
    if (mFunction) mFunction(std::move(event));
}

// ---- The client's view ----

struct SDBusProxyInterface::State {
    explicit State(std::string name) : place(RuntimeFolder::forClient()), service(std::move(name)) {}

    // The listener to use in this process: a child that was forked begins with none.
    std::shared_ptr<EventListener> ensureListener() {
        const std::lock_guard lock(forkMutex());
        if (listener && generation != forkGeneration()) abandonListener();
        if (!listener) listener = std::make_shared<EventListener>(place, service);
        generation = forkGeneration();
        return listener;
    }

    // Its thread was not forked along, so it can't be joined, and its mutex may be locked for ever.
    void abandonListener() {
        static auto& sAbandoned = *new std::vector<std::shared_ptr<EventListener>>;
        sAbandoned.push_back(std::move(listener));
        listener.reset();
    }

    const RuntimeFolder place;
    const std::string service;
    std::shared_ptr<EventListener> listener;  // guarded by forkMutex(), as what follows
    unsigned generation = 0;
};

SDBusProxyInterface::SDBusProxyInterface(const std::string& service) : mState(std::make_unique<State>(service)) {}

SDBusProxyInterface::~SDBusProxyInterface() {
    std::shared_ptr<EventListener> listener;
    {
        const std::lock_guard lock(forkMutex());
        if (mState->listener && mState->generation != forkGeneration()) mState->abandonListener();
        listener = std::move(mState->listener);
    }
    if (listener) listener->stop();
}

std::shared_ptr<SDBusMessage> SDBusProxyInterface::makeMethodCallMessage(const std::string& method) {
    return std::make_shared<Message>(Message::kCall, method);
}

std::shared_ptr<SDBusMessage> SDBusProxyInterface::callWithReplyBlocking(std::shared_ptr<SDBusMessage> call,
                                                                         int timeoutMs) {
    return callsWithRepliesBlocking({std::move(call)}, timeoutMs).front();
}

std::vector<std::shared_ptr<SDBusMessage>> SDBusProxyInterface::callsWithRepliesBlocking(
    const std::vector<std::shared_ptr<SDBusMessage>>& calls, int timeoutMs) {
    std::vector<const Message*> sent;
    sent.reserve(calls.size());
    for (const auto& call : calls)
        if (const auto own = ofType(call, Message::kCall)) sent.push_back(own.get());
    if (sent.size() != calls.size()) {
        LOG(7, AT "what is to be sent to service %s is no call", HERE, mState->service.c_str());
        return sdbus::Answers(calls.size(), Message::failure(SDBusNotSent));
    }
    const std::chrono::milliseconds limit(std::max(timeoutMs, 1));
    return sdbus::callService(mState->place, mState->service, sent, limit);
}

bool SDBusProxyInterface::addEventListener(const std::string& event, SDBusEventCallback* callback, SDBusSecurityFlags) {
    std::unique_ptr<SDBusEventCallback> owned(callback);
    return owned && mState->ensureListener()->add(event, std::move(owned));
}

// ---- The service's end ----

struct SDBusServiceInterface::State {
    // Null unless the interface is registered, by this very process.
    std::shared_ptr<Service> current() {
        const std::lock_guard lock(forkMutex());
        return generation == forkGeneration() ? service : nullptr;
    }

    // False when the interface serves a name already.
    bool attach(const std::shared_ptr<Service>& made) {
        const std::lock_guard lock(forkMutex());
        if (service && generation == forkGeneration()) return false;
        service = made;
        generation = forkGeneration();
        return true;
    }

    void detach() {
        const std::lock_guard lock(forkMutex());
        service.reset();
    }

    std::shared_ptr<Service> service;  // guarded by forkMutex(), as what follows
    unsigned generation = 0;
    RefusalObserver refusalObserver;  // of the thread that registers
};

SDBusServiceInterface::SDBusServiceInterface() : mState(std::make_unique<State>()) {}

SDBusServiceInterface::~SDBusServiceInterface() {
    if (const auto service = mState->current())
        SDBusSerivceManager::initSync(-1)->unregisterServiceInterface(service->name());
}

std::shared_ptr<SDBusMessage> SDBusServiceInterface::makeMethodReplyMessage(std::shared_ptr<SDBusMessage> call,
                                                                            SDBusSecurityFlags) {
    auto reply = std::make_shared<Message>(Message::kReply, "");
    if (const auto own = ofType(call, Message::kCall)) reply->setPendingCall(own->pendingCall());
    return reply;
}

std::shared_ptr<SDBusMessage> SDBusServiceInterface::makeEventMessage(const std::string& event, SDBusSecurityFlags) {
    return std::make_shared<Message>(Message::kEvent, event);
}

bool SDBusServiceInterface::sendMessage(std::shared_ptr<SDBusMessage> reply) {
    const auto own = ofType(reply, Message::kReply);
    if (own && own->pendingCall()) return own->pendingCall()->answer(*own);
    LOG(7, AT "what is to be sent is no reply to a call", HERE);
    return false;
}

bool SDBusServiceInterface::publishEvent(std::shared_ptr<SDBusMessage> event) {
    const auto own = ofType(event, Message::kEvent);
    const auto service = mState->current();
    return own && service && service->publish(*own);
}

void SDBusServiceInterface::observeRefusals(RefusalObserver observer) {
    mState->refusalObserver = std::move(observer);
}

// ---- The process's door ----

struct SDBusSerivceManager::State {
    struct Registration {
        std::shared_ptr<Service> service;
        SDBusServiceInterface* interface;
    };

    // What was registered by this very process. With forkMutex() held.
    std::map<std::string, Registration>& current() {
        if (generation == forkGeneration()) return registrations;
        // The parent's: no thread serves them here, and their sockets are not ours to remove.
        static auto& sAbandoned = *new std::vector<std::map<std::string, Registration>>;
        sAbandoned.push_back(std::move(registrations));
        registrations.clear();
        failures.clear();
        generation = forkGeneration();
        return registrations;
    }

    Registration take(const std::string& name) {
        const std::lock_guard lock(forkMutex());
        auto& all = current();
        const auto found = all.find(name);
        if (found == all.end()) return {};
        Registration registration = std::move(found->second);
        all.erase(found);
        return registration;
    }

    std::vector<std::shared_ptr<Service>> services() {
        const std::lock_guard lock(forkMutex());
        std::vector<std::shared_ptr<Service>> result;
        for (const auto& entry : current()) result.push_back(entry.second.service);
        return result;
    }

    std::string failure(const std::string& name) {
        const std::lock_guard lock(forkMutex());
        if (current().count(name) > 0) return "";
        const auto found = failures.find(name);
        return found == failures.end() ? "service " + name + " is not registered by this process" : found->second;
    }

    void noteFailure(const std::string& name, const std::string& why) {
        const std::lock_guard lock(forkMutex());
        (void)current();  // forgets the parent's
        failures[name] = why;
    }

    bool tryRegister(const std::string& name, SDBusServiceInterface* interface, std::string& why);

    std::map<std::string, Registration> registrations;  // guarded by forkMutex(), as what follows
    std::map<std::string, std::string> failures;
    unsigned generation = 0;
};

bool SDBusSerivceManager::State::tryRegister(const std::string& name, SDBusServiceInterface* interface,
                                             std::string& why) {
    if (!interface || !sdbus::isServiceName(name)) {
        why = interface ? "a service can't be named so" : "there is no interface to serve";
        return false;
    }
    raiseDescriptorLimit();
    sdbus::ServiceLoop* loop = sdbus::ServiceLoop::get(why);
    if (!loop) return false;
    auto socket = sdbus::ServiceSocket::claim(name, why);
    if (!socket) return false;
    const auto service =
        std::make_shared<Service>(*loop, name, *interface, std::move(*socket), interface->mState->refusalObserver);
    // In place before the first call comes, whose handler may publish.
    const bool attached = interface->mState->attach(service);
    if (!attached) why = "the interface serves another name";
    if (attached) {
        const std::lock_guard lock(forkMutex());
        current()[name] = {service, interface};
        failures.erase(name);
    }
    if (attached && service->start(why)) return true;
    service->stop();
    if (attached) {
        interface->mState->detach();
        (void)take(name);
    }
    return false;
}

SDBusSerivceManager::SDBusSerivceManager() : mState(std::make_unique<State>()) {}
SDBusSerivceManager::~SDBusSerivceManager() = default;

SDBusSerivceManager* SDBusSerivceManager::initSync(int) {
    static SDBusSerivceManager* sManager = nullptr;  // guarded by forkMutex(), so that no fork falls into its making
    const std::lock_guard lock(forkMutex());
    if (!sManager) sManager = new SDBusSerivceManager;
    return sManager;
}

bool SDBusSerivceManager::isServiceRegistered(const std::string& service) {
    return sdbus::isServiceName(service) && sdbus::isServiceReachable(RuntimeFolder::forClient(), service);
}

std::shared_ptr<SDBusProxyInterface> SDBusSerivceManager::getServiceProxyInterface(const std::string& service,
                                                                                   SDBusSecurityFlags, int) {
    if (sdbus::isServiceName(service)) return std::shared_ptr<SDBusProxyInterface>(new SDBusProxyInterface(service));
    LOG(7, AT "a service can't be named so", HERE);
    return nullptr;
}

bool SDBusSerivceManager::registerServiceInterface(const std::string& service, SDBusServiceInterface* interface,
                                                   SDBusSecurityFlags, int) {
    std::string why;
    if (mState->tryRegister(service, interface, why)) {
        // Handlers run in the reverse order of their registration, mixed with the destructors of static objects: this
        // one before those of the objects that are there now.
        (void)std::atexit([] {
            for (const auto& running : initSync(-1)->mState->services())
                initSync(-1)->unregisterServiceInterface(running->name());
        });
        LOG(5, AT "service %s is registered", HERE, service.c_str());
        return true;
    }
    LOG(7, AT "service %s is not registered: %s", HERE, service.c_str(), why.c_str());
    mState->noteFailure(service, why);
    return false;
}

std::shared_ptr<SDBusMessage> SDBusSerivceManager::makeEventMessage(const std::string& event, SDBusSecurityFlags) {
    return std::make_shared<Message>(Message::kEvent, event);
}

bool SDBusSerivceManager::publishEvent(std::shared_ptr<SDBusMessage> event) {
    const auto own = ofType(event, Message::kEvent);
    const auto services = mState->services();
    bool sent = own && !services.empty();
    for (const auto& service : services) sent = own && service->publish(*own) && sent;
    return sent;
}

void SDBusSerivceManager::unregisterServiceInterface(const std::string& service) {
    const State::Registration registration = mState->take(service);
    if (!registration.service) return;
    registration.service->stop();
    registration.interface->mState->detach();
    LOG(5, AT "service %s is unregistered", HERE, service.c_str());
}

std::string SDBusSerivceManager::registrationFailure(const std::string& service) {
    return mState->failure(service);
}

int SDBusSerivceManager::serviceProcess(const std::string& service) {
    if (!sdbus::isServiceName(service)) return 0;
    const RuntimeFolder place = RuntimeFolder::forClient();
    for (const RuntimeFolder* one = &place; one; one = one->next()) {
        sdbus::UniqueFd folder;
        std::string why;
        if (one->open(RuntimeFolder::Missing::Leave, folder, why) != RuntimeFolder::Result::Open) continue;
        if (const pid_t holder = sdbus::lockHolder(folder.get(), service)) return holder;
    }
    return 0;
}

std::string SDBusSerivceManager::socketPath(const std::string& service) {
    if (!sdbus::isServiceName(service)) return "";
    const RuntimeFolder place = RuntimeFolder::forClient();
    for (const RuntimeFolder* one = &place; one; one = one->next())
        if (one->holdsSocket(service)) return one->socketPath(service);
    sdbus::UniqueFd folder;
    std::string why;
    const bool unfit = place.open(RuntimeFolder::Missing::Leave, folder, why) == RuntimeFolder::Result::Unfit;
    return unfit ? "" : place.socketPath(service);
}

std::string SDBusSerivceManager::lookedAt(const std::string& service) {
    const RuntimeFolder place = RuntimeFolder::forClient();
    std::string seen;
    for (const RuntimeFolder* one = &place; one; one = one->next()) {
        sdbus::UniqueFd folder;
        std::string why;
        const bool unfit = one->open(RuntimeFolder::Missing::Leave, folder, why) == RuntimeFolder::Result::Unfit;
        seen += (seen.empty() ? "" : ", ") + (unfit ? why : "nothing listens on " + one->socketPath(service));
    }
    return seen;
}
