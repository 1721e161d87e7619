// A Qt program that hears of changes in its own thread: prints the value of a key at the start and after each change.
//     qt_client KEY [SECONDS]        for so many seconds; for ever untold
#include <QCoreApplication>
#include <QFile>
#include <QObject>
#include <QStandardPaths>
#include <QString>
#include <QTimer>
#include <cstdio>
#include <string>

#include "libsdconfig/sdconfig-qt.h"

namespace {

void print(const QString& value) {
    std::printf("%s\n", value.isEmpty() ? "(not set)" : qUtf8Printable(value));
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    if (argc < 2) {
        std::fprintf(stderr, "usage: qt_client KEY [SECONDS]\n");
        return 2;
    }

    // A client has no data of its own; this is for a program that serves, too. The library doesn't ask Qt.
    QCoreApplication::setOrganizationName("Example");
    QCoreApplication::setApplicationName("Client");
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::AppDataLocation);
    sd::SDConfig::setDataPath(QFile::encodeName(folder).toStdString());

    // A program knows its keys, and has constants of them: velmar::ui::theme.
    const sd::Key<std::string> key{argv[1], sd::Store::Secure, {}, {}};
    const sd::QtSetting setting(key);
    QObject::connect(&setting, &sd::QtSetting::valueChanged, &app, [&] { print(setting.value().toString()); });
    print(setting.value().toString());
    if (argc > 2) QTimer::singleShot(std::stoi(argv[2]) * 1000, &app, &QCoreApplication::quit);
    return QCoreApplication::exec();
}
