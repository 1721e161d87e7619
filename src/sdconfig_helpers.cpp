#include "src/sdconfig_helpers.h"

#include <QString>

namespace sd {

std::string latin1ToUtf8(const std::string& bytes) {
    return QString::fromLatin1(bytes.c_str()).toUtf8().toStdString();
}

}  // namespace sd
