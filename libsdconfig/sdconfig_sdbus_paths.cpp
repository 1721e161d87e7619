// Where the data lies.
#include <cstddef>
#include <utility>

#include "base/data_paths.h"
#include "base/standard_folders.h"
#include "base/text.h"
#include "libsdconfig/data_path.h"
#include "libsdconfig/sdconfig.h"
#include "platform/velmarlog/log_line.h"
#include "src/sdconfig_store_folder.h"

namespace sd {

namespace {

constexpr char kTag[] = "sdconfig";
constexpr char kSource[] = "sdconfig_sdbus";

constexpr char kFallbackHome[] = "~";

StandardFolders ownFolders() {
    const FolderVariables variables = ownFolderVariables();
    const std::string application = programName();
    return {dataFolders(variables, application), {homeFolder(variables)}, application};
}

std::string applicationHomePath(const std::vector<std::string>& folders) {
    for (std::size_t i = 0; i < folders.size(); ++i) {
        LOG(5, AT "home[%d]=%s", HERE_AT(161), static_cast<int>(i), folders[i].c_str());
        if (!folders[i].empty()) return folders[i];
    }
    LOG(5, AT "using fallback home=%s", HERE_AT(168), kFallbackHome);
    return kFallbackHome;
}

}  // namespace

std::string applicationDataPath(const StandardFolders& folders) {
    for (std::size_t i = 0; i < folders.data.size(); ++i) {
        LOG(5, AT "data[%d]=%s", HERE_AT(185), static_cast<int>(i), folders.data[i].c_str());
        if (!folders.data[i].empty()) return folders.data[i];
    }
    std::string home = applicationHomePath(folders.home);
    if (home.empty()) home = kFallbackHome;
    std::string data = home + "/" + folders.application;
    LOG(5, AT "using fallback data=%s", HERE_AT(197), data.c_str());
    return data;
}

std::string& SDConfig::dataPath = dataPaths().data = applicationDataPath(ownFolders());
std::string& SDConfig::velmarDataPath = dataPaths().velmar;

bool SDConfig::setDataPath(std::string path) {
    if (path != dataPath) LOG(6, AT "new db path from datapath %s to path %s", HERE, path.c_str(), dataPath.c_str());
    dataPath = std::move(path);
    dataPaths().isTold = true;
    return true;
}

std::string SDConfig::getDataPath() {
    (void)settleDataPath();  // a host may open a store of its own there
    return dataPath;
}

std::string SDConfig::getDataPathUtf8() {
    return localToUtf8(getDataPath());
}

bool SDConfig::setVelmarDataPath(std::string path) {
    velmarDataPath = std::move(path);
    return true;
}

std::string SDConfig::getVelmarDataPath() {
    return velmarDataPath;
}

}  // namespace sd
