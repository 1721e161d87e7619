#include "src/sdconfig_key_classes.h"

#include <algorithm>
#include <array>

namespace sd {

namespace {

// One ordered table for both classifying functions: each looks at its own range.
constexpr std::array<const char*, 7> kClassifiedKeys = {
    "ro.sd.keepAliveToken",       "ro.sd.uuid",          "encryptedPassword",
    "velmar.proxy.http.password", "ro.sd.build.version", "ro.sd.product.channel",
    "ro.velmar.switch.env",
};
constexpr auto kFirstBuildPropKey = kClassifiedKeys.begin() + 4;

}  // namespace

bool isKeyInTPM(std::string key) {
    return std::find(kClassifiedKeys.begin(), kFirstBuildPropKey, key) != kFirstBuildPropKey;
}

bool isSpecialKeyInBuildProp(std::string key) {
    return std::find(kFirstBuildPropKey, kClassifiedKeys.end(), key) != kClassifiedKeys.end();
}

}  // namespace sd
