// Where the data lies.
#include <QCoreApplication>
#include <QString>

#include "libsdconfig/data_path.h"
#include "libsdconfig/sdconfig.h"
#include "platform/velmarlog/log_line.h"

namespace sd {

namespace {

constexpr char kTag[] = "sdconfig";
constexpr char kSource[] = "sdconfig_sdbus";

constexpr char kFallbackHome[] = "~";

std::string applicationHomePath(const StandardLocations& locations) {
    const QStringList entries = locations(QStandardPaths::HomeLocation);
    for (int i = 0; i < entries.size(); ++i) {
        std::string home = entries[i].toUtf8().toStdString();
        LOG(5, AT "home[%d]=%s", HERE_AT(161), i, home.c_str());
        if (!home.empty()) return home;
    }
    LOG(5, AT "using fallback home=%s", HERE_AT(168), kFallbackHome);
    return kFallbackHome;
}

}  // namespace

std::string applicationDataPath(const StandardLocations& locations) {
    const QStringList entries = locations(QStandardPaths::AppDataLocation);
    for (int i = 0; i < entries.size(); ++i) {
        std::string data = entries[i].toUtf8().toStdString();
        LOG(5, AT "data[%d]=%s", HERE_AT(185), i, data.c_str());
        if (!data.empty()) return data;
    }
    std::string home = applicationHomePath(locations);
    if (home.empty()) home = kFallbackHome;
    std::string data = home + "/" + QCoreApplication::applicationName().toUtf8().toStdString();
    LOG(5, AT "using fallback data=%s", HERE_AT(197), data.c_str());
    return data;
}

std::string SDConfig::dataPath = applicationDataPath(&QStandardPaths::standardLocations);
std::string SDConfig::velmarDataPath;

bool SDConfig::setDataPath(std::string path) {
    if (path != dataPath) LOG(6, AT "new db path from datapath %s to path %s", HERE, path.c_str(), dataPath.c_str());
    dataPath = std::move(path);
    return true;
}

std::string SDConfig::getDataPath() {
    return dataPath;
}

std::string SDConfig::getDataPathUtf8() {
    return QString::fromLocal8Bit(dataPath.c_str()).toUtf8().toStdString();
}

bool SDConfig::setVelmarDataPath(std::string path) {
    velmarDataPath = std::move(path);
    return true;
}

std::string SDConfig::getVelmarDataPath() {
    return velmarDataPath;
}

}  // namespace sd
