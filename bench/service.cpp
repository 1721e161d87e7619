#include "bench/service.h"

#include <sqlite3.h>

#include <cstdlib>
#include <filesystem>

#include "libsdconfig/sdconfig.h"
#include "platform/sdbus/sdbus.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "platform/velmarlog/velmarlog.h"
#include "src/sdconfig_protocol.h"
#include "src/sdconfig_sealed_row.h"

namespace bench {

namespace {

// Has a running service make its key ring, in the form that it reads: its first value does. Without the facade, whose
// first call stores settings of its own.
void setFirstValue() {
    const auto proxy =
        SDBusSerivceManager::initSync(-1)->getServiceProxyInterface(sd::protocol::kServiceName, SDBusSameUser, 1);
    const auto call = proxy->makeMethodCallMessage(sd::protocol::kSetSecure);
    call->appendString(keyOf(0));
    call->appendString(storedValue());
    require(proxy->callWithReplyBlocking(call, sd::protocol::kCallTimeoutMs)->getBool(0), "setting a value");
}

// As the service that made the ring seals: one of an earlier build binds no value to its row.
std::string sealed(const std::string& key) {
    sd::SDSecurity& security = *sd::SDSecurity::GetInstance();
    return security.RequiresBoundForm() ? sd::sealForRow(sd::secureRow(key), storedValue())
                                        : security.FastEncrypt(storedValue());
}

// All but the first. By the product's own sealing, but in one transaction: the store commits each value durably, which
// takes minutes.
void insertSecureValues(const std::string& dataFolder, int count) {
    sd::SDSecurity::GetInstance()->SetKeyRingFolder(dataFolder);
    sqlite3* db = nullptr;
    sqlite3_stmt* insert = nullptr;
    const char* const sql = "INSERT INTO secure_v3(key, value) VALUES(?, ?)";
    require(sqlite3_open((dataFolder + "/sdconfig.db").c_str(), &db) == SQLITE_OK &&
                sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr) == SQLITE_OK &&
                sqlite3_prepare_v2(db, sql, -1, &insert, nullptr) == SQLITE_OK,
            "the service's database");
    for (int i = 1; i < count; ++i) {
        const std::string key = keyOf(i);
        const std::string text = sealed(key);
        sqlite3_bind_text(insert, 1, key.c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_text(insert, 2, text.c_str(), -1, SQLITE_STATIC);
        require(sqlite3_step(insert) == SQLITE_DONE && sqlite3_reset(insert) == SQLITE_OK, sql);
    }
    sqlite3_finalize(insert);
    require(sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK && sqlite3_close(db) == SQLITE_OK,
            "the service's database");
}

// What a service needs to be reached, below its folder.
std::vector<std::string> prepare(const std::string& folder, const std::string& sdconfigd, int secureValues,
                                 const std::vector<std::string>& options) {
    std::filesystem::create_directory(folder);
    std::filesystem::permissions(folder, std::filesystem::perms::owner_all);
    makeData(folder + "/data", sdconfigd, secureValues);
    std::vector<std::string> command = serviceCommand(sdconfigd, folder + "/data");
    command.insert(command.begin(), {"env", "XDG_RUNTIME_DIR=" + folder});
    command.insert(command.end(), options.begin(), options.end());
    return command;
}

}  // namespace

std::string keyOf(int index) {
    return "bench.secure.key." + std::to_string(index);
}

const std::string& storedValue() {
    static const std::string sValue(64, 'v');
    return sValue;
}

void makeData(const std::string& folder, const std::string& sdconfigd, int secureValues) {
    {
        const Process service = Process::start(serviceCommand(sdconfigd, folder), kReady);  // makes the tables
        if (secureValues == 0) return;
        Process first = Process::fork([](int ready, int) {
            setFirstValue();
            tellReady(ready);
        });
        require(first.wait() == 0, "the store's first value");
    }
    // A process of its own, because a process has one key ring.
    Process filling = Process::fork([&](int ready, int) {
        insertSecureValues(folder, secureValues);
        tellReady(ready);
    });
    require(filling.wait() == 0, "filling the store");
}

std::vector<std::string> serviceCommand(const std::string& sdconfigd, const std::string& dataFolder) {
    const std::string product = std::filesystem::path(dataFolder).parent_path();  // has no build.prop, but is there
    return {sdconfigd, "--data-dir", dataFolder, "--product-dir", product, "--log-level", "8"};
}

Service::Service(const Workplace& place, const std::string& name, const std::string& sdconfigd, int secureValues,
                 const std::vector<std::string>& options)
    : mFolder(place.path(name)), mProcess(Process::start(prepare(mFolder, sdconfigd, secureValues, options), kReady)) {}

void Service::join() const {
    require(::setenv("XDG_RUNTIME_DIR", mFolder.c_str(), 1) == 0, "setenv");
    velmarLogSetLevel(8);  // the start-up tasks tell of every setting that a desktop would have
    sd::SDConfig::GetInstance()->GetProperty("bench");
}

}  // namespace bench
