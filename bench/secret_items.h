// The items of the session's secret service, by libsecret: the peer of the secure values.
#pragma once

#include <string>

namespace bench {

// Whether libsecret was there when this was built; else the others must not be called. Says so on standard output.
bool haveLibsecret();

void storeSecretItem(const std::string& key, const std::string& value);
std::string lookUpSecretItem(const std::string& key);  // "" where there is none

}  // namespace bench
