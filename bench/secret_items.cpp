#include "bench/secret_items.h"

#include <cstdio>

#include "bench/process.h"

#ifdef SDCONFIG_BENCH_LIBSECRET
#include <libsecret/secret.h>
#endif

namespace bench {

#ifdef SDCONFIG_BENCH_LIBSECRET

namespace {

const SecretSchema& schema() {
    static const SecretSchema sSchema = [] {
        SecretSchema made{};
        made.name = "bench.Item";
        made.attributes[0] = {"key", SECRET_SCHEMA_ATTRIBUTE_STRING};
        return made;
    }();
    return sSchema;
}

}  // namespace

bool haveLibsecret() {
    return true;
}

void storeSecretItem(const std::string& key, const std::string& value) {
    require(secret_password_store_sync(&schema(), SECRET_COLLECTION_DEFAULT, key.c_str(), value.c_str(), nullptr,
                                       nullptr, "key", key.c_str(), nullptr) != FALSE,
            "secret_password_store_sync");
}

std::string lookUpSecretItem(const std::string& key) {
    gchar* const password = secret_password_lookup_sync(&schema(), nullptr, nullptr, "key", key.c_str(), nullptr);
    std::string value = password ? password : "";
    secret_password_free(password);
    return value;
}

#else

bool haveLibsecret() {
    std::printf("left out: libsecret was not installed when this was built\n");
    return false;
}

void storeSecretItem(const std::string& /*key*/, const std::string& /*value*/) {
    require(false, "libsecret");
}

std::string lookUpSecretItem(const std::string& /*key*/) {
    require(false, "libsecret");
    return "";
}

#endif

}  // namespace bench
