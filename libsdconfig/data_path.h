// The default data folder. Not for users of the library.
#pragma once

#include <QStandardPaths>
#include <QStringList>
#include <functional>
#include <string>

namespace sd {

// Where the desktop's standard folders are asked for: QStandardPaths::standardLocations, or a test's lists.
using StandardLocations = std::function<QStringList(QStandardPaths::StandardLocation)>;

// The first application data folder that is not empty; else the application's name below the home folder; below "~"
// where there is none either.
std::string applicationDataPath(const StandardLocations& locations);

}  // namespace sd
