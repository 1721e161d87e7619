// What hosts do: carries data of the earlier layout over, serves, and prints the folder of its data and the value of
// "key".
//     plain_host [DATA-DIR [VALUE]]        setting the value first
#include <iostream>

#include "libsdconfig/sdconfig.h"
#include "platform/sdbus/sdbus.h"
#include "src/sdconfig_impl_tks.h"
#include "src/sdconfig_service_sdbus.h"

int main(int argc, char** argv) {
    if (argc > 1) sd::SDConfig::setDataPath(argv[1]);
    { const sd::SDConfigImplTKS upgrade(sd::SDConfig::getDataPathUtf8() + "/sdconfig.db"); }
    sd::SDConfigService::GetInstance()->Start();
    if (!SDBusSerivceManager::initSync(-1)->registrationFailure("sdconfig").empty()) return 1;
    sd::SDConfig& config = *sd::SDConfig::GetInstance();
    if (argc > 2) config.SetSecure("key", argv[2]);
    std::cout << sd::SDConfig::getDataPath() << ": " << config.GetSecure("key") << std::endl;
}
