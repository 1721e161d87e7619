#include "apps/common/data_folder.h"

#include <QCoreApplication>
#include <QStandardPaths>

#include "src/sdconfig_protocol.h"

namespace apps {

std::string defaultDataFolder() {
    QCoreApplication::setApplicationName(sd::protocol::kServiceName);
    return QStandardPaths::writableLocation(QStandardPaths::AppDataLocation).toStdString();
}

}  // namespace apps
