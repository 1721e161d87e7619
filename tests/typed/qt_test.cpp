// Properties of Qt against a real service: told in the thread of their object, and safe to destroy.
#include <gmock/gmock.h>

#include <QEventLoop>
#include <QGuiApplication>
#include <QSignalSpy>
#include <QThread>
#include <QTimer>
#include <atomic>
#include <memory>

#include "exchange_keys.h"
#include "libsdconfig/sdconfig-qt.h"
#include "tests/e2e/sandbox.h"

namespace {

class QtTest : public test::Sandbox {
protected:
    const test::ScopedEnv mRuntime{"XDG_RUNTIME_DIR", path("run").c_str()};
    test::Process mService = startService();
};

TEST_F(QtTest, APropertyIsToldInTheThreadOfItsObject) {
    sd::QtSetting name(exchange::string("qt"));
    sd::QtSetting pause(exchange::duration("qt"));
    EXPECT_EQ(name.property("key").toString(), "exchange.qt.string");
    EXPECT_EQ(pause.value(), QVariant(qlonglong(5'400'000)));
    QSignalSpy told(&name, &sd::QtSetting::valueChanged);
    cli({"policy", "set", "exchange.qt.string", "grün", "10"});
    EXPECT_EQ(name.value().toString(), "") << "nothing changes before the event loop runs";
    ASSERT_TRUE(told.wait(20000));
    EXPECT_EQ(name.value().toString(), QString::fromUtf8("grün"));
    EXPECT_TRUE(name.isGoverned());
    name.setValue("blau");
    EXPECT_EQ(name.value().toString(), QString::fromUtf8("grün")) << "the policy has the say";

    QThread thread;
    thread.start();
    auto moved = std::make_unique<sd::QtSetting>(exchange::short_("qt"));
    std::atomic<QThread*> in{nullptr};
    QObject::connect(moved.get(), &sd::QtSetting::valueChanged, moved.get(), [&] { in = QThread::currentThread(); });
    moved->moveToThread(&thread);
    cli({"set", "exchange.qt.short", "7"});
    EXPECT_TRUE(test::waitUntil([&] { return in == &thread; }, 20000));
    QObject::connect(&thread, &QThread::finished, moved.release(), &QObject::deleteLater);
    thread.quit();
    thread.wait();
}

TEST_F(QtTest, WhatDoesNotFitIsRefused) {
    sd::QtSetting port(exchange::short_("qt"));
    QSignalSpy changed(&port, &sd::QtSetting::valueChanged);
    QSignalSpy refused(&port, &sd::QtSetting::refused);
    for (const QVariant& value : {QVariant(0), QVariant("text"), QVariant(2.5), QVariant(qlonglong(1) << 40)})
        port.setProperty("value", value);
    EXPECT_EQ(refused.count(), 4);
    EXPECT_EQ(changed.count(), 0);
    port.setProperty("value", 3.0);
    EXPECT_EQ(port.value(), QVariant(3));
    port.setProperty("value", "4");
    EXPECT_EQ(cli({"get", "exchange.qt.short"}).out, "4\n");
    port.reset();
    EXPECT_EQ(port.value(), QVariant(8080));
    EXPECT_EQ(changed.count(), 3);

    sd::QtSetting names(exchange::strings("qt"));
    names.setValue(QStringList{"a", QString::fromUtf8("ü")});
    EXPECT_EQ(names.value().toStringList(), (QStringList{"a", QString::fromUtf8("ü")}));
    EXPECT_EQ(cli({"secure", "get", "exchange.qt.strings"}).out, "[\"a\",\"ü\"]\n");
    names.setValue(17);
    EXPECT_EQ(names.value().toStringList().size(), 2);
}

TEST_F(QtTest, ObjectsGoWhileChangesCome) {
    for (int round = 0; round < 20; ++round) {
        auto port = std::make_unique<sd::QtSetting>(exchange::short_("qt"));
        const sd::QtSetting other(exchange::short_("qt"));
        sd::Settings().set(exchange::short_("qt"), round + 1);
        if (round % 2 == 0) QCoreApplication::processEvents();
        port.reset();
        QCoreApplication::processEvents();
    }
}

}  // namespace

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    testing::InitGoogleTest(&argc, argv);
    const QGuiApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
