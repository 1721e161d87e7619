// A Qt program that hears of changes in its own thread: prints the value of a key at the start and after each change.
//     qt_client KEY [SECONDS]        for so many seconds; for ever untold
// Listens as long as the service runs; policy_listener.cpp shows how to outlive its restarts.
#include <QCoreApplication>
#include <QFile>
#include <QObject>
#include <QStandardPaths>
#include <QString>
#include <QTimer>
#include <cstdio>
#include <functional>
#include <string>
#include <utility>

#include "libsdconfig/dmconfig.h"
#include "libsdconfig/sdconfig.h"
#include "libsdconfig/sdconfig_text.h"

namespace {

// A key's value; changes are told by the event loop of this object's thread, in which it has to be destroyed, too.
class Setting final : public QObject, private sd::DMConfig::Listener {
public:
    Setting(std::string key, std::function<void(const QString&)> tell) : mKey(std::move(key)), mTell(std::move(tell)) {
        // RegisterListener would tell the service of a key once a process, and objects of this class come and go.
        mListens = sd::DMConfig::GetInstance()->RegisterListenersWithList({{mKey, this}}, true);
    }

    // When this call returns, onChanged runs no more, and what it left in the queue goes with the QObject.
    ~Setting() override { sd::DMConfig::GetInstance()->UnRegisterListener(mKey, this, true); }

    bool listens() const { return mListens; }

    QString value() const {
        return QString::fromStdString(sd::textAsSet(sd::SDConfig::GetInstance()->GetSecure(mKey)));
    }

private:
    // On a thread of the library's own, where a call to the service holds up no window.
    void onChanged(const std::string&, const std::string&, bool) override {
        QMetaObject::invokeMethod(
            this, [this, now = value()] { mTell(now); }, Qt::QueuedConnection);
    }

    const std::string mKey;
    const std::function<void(const QString&)> mTell;
    bool mListens = false;
};

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

    const Setting setting(argv[1], print);
    if (!setting.listens()) {
        std::fprintf(stderr, "qt_client: the service could not be asked to tell of %s\n", argv[1]);
        return 1;
    }
    print(setting.value());
    if (argc > 2) QTimer::singleShot(std::stoi(argv[2]) * 1000, &app, &QCoreApplication::quit);
    return QCoreApplication::exec();
}
