// A key as a property of an object of Qt 5 or Qt 6: read and changed like any other, and told of by a signal.
//     sd::QtSetting port(velmar::proxy::port);
//     QObject::connect(&port, &sd::QtSetting::valueChanged, &box, [&] { box.setValue(port.value().toInt()); });
//
// Header-only: whoever includes it has it among the sources of a target with CMake's AUTOMOC (docs/library-guide.md).
#pragma once

#include <QMetaObject>
#include <QMetaType>
#include <QObject>
#include <QString>
#include <QVariant>
#include <QVariantList>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "libsdconfig/sdconfig_settings.h"

namespace sd {

// ---- Values as Qt has them ----

// How a type travels in a QVariant: as the text that is stored, if it is none of those below.
template <typename T, typename = void>
struct QtForm {
    static QVariant print(const T& value) { return QString::fromStdString(Form<T>::print(value)); }
    static std::optional<T> parse(const QVariant& value) {
        if (!value.canConvert<QString>()) return std::nullopt;
        return Form<T>::parse(value.toString().toStdString());
    }
};

// As a number: a duration as milliseconds, a size as bytes.
template <typename T>
struct QtNumber {
    static std::optional<T> parse(const QVariant& value) {
        if (value.userType() == QMetaType::Double || value.userType() == QMetaType::Float) {
            const double number = value.toDouble();
            if (number != std::floor(number) || std::fabs(number) > 9e15) return std::nullopt;  // beyond 2^53 not exact
        }
        bool isNumber = false;
        const qlonglong number = value.toLongLong(&isNumber);
        if (!isNumber || number < std::numeric_limits<T>::min() || number > std::numeric_limits<T>::max())
            return std::nullopt;
        return static_cast<T>(number);
    }
};

template <>
struct QtForm<bool> {
    static QVariant print(bool value) { return value; }
    static std::optional<bool> parse(const QVariant& value) {
        return value.canConvert<bool>() ? std::optional(value.toBool()) : std::nullopt;
    }
};

template <typename T>
struct QtForm<T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>>> : QtNumber<T> {
    static QVariant print(T value) {
        return sizeof value > sizeof(int) ? QVariant(static_cast<qlonglong>(value)) : QVariant(static_cast<int>(value));
    }
};

template <>
struct QtForm<double> {
    static QVariant print(double value) { return value; }
    static std::optional<double> parse(const QVariant& value) {
        bool isNumber = false;
        const double number = value.toDouble(&isNumber);
        return isNumber ? std::optional(number) : std::nullopt;
    }
};

template <>
struct QtForm<std::chrono::milliseconds> {
    static QVariant print(std::chrono::milliseconds value) { return static_cast<qlonglong>(value.count()); }
    static std::optional<std::chrono::milliseconds> parse(const QVariant& value) {
        const auto count = QtNumber<std::int64_t>::parse(value);
        return count ? std::optional(std::chrono::milliseconds(*count)) : std::nullopt;
    }
};

template <>
struct QtForm<Bytes> {
    static QVariant print(Bytes value) { return static_cast<qlonglong>(value.count); }
    static std::optional<Bytes> parse(const QVariant& value) {
        const auto count = QtNumber<std::int64_t>::parse(value);
        return count ? std::optional(Bytes{*count}) : std::nullopt;
    }
};

// What a QVariant holds as a value of the type; a text of any type as it is stored, or understood as one.
template <typename T>
std::optional<T> fromVariant(const QVariant& value) {
    if (value.userType() == QMetaType::QString) return Form<T>::parse(value.toString().toStdString());
    return QtForm<T>::parse(value);
}

template <typename T>
struct QtForm<std::vector<T>> {
    static QVariant print(const std::vector<T>& values) {
        QVariantList list;
        for (const T& value : values) list.append(QtForm<T>::print(value));
        return list;
    }
    static std::optional<std::vector<T>> parse(const QVariant& value) {
        if (!value.canConvert<QVariantList>()) return std::nullopt;
        std::vector<T> values;
        for (const QVariant& item : value.toList()) {
            auto one = fromVariant<T>(item);
            if (!one) return std::nullopt;
            values.push_back(std::move(*one));
        }
        return values;
    }
};

// ---- The property ----

namespace detail {

// A key of whatever type. Any thread.
class QtKey {
public:
    explicit QtKey(std::string name) : mName(std::move(name)) {}
    virtual ~QtKey() = default;
    QtKey(const QtKey&) = delete;
    QtKey& operator=(const QtKey&) = delete;

    const std::string& name() const { return mName; }
    virtual QVariant get() const = 0;
    virtual bool set(const QVariant& value) const = 0;
    virtual bool unset() const = 0;
    virtual bool isGoverned() const = 0;
    virtual Watch watch(std::function<void(const QVariant&)> tell) const = 0;

private:
    const std::string mName;
};

template <typename T>
class TypedQtKey final : public QtKey {
public:
    TypedQtKey(const Key<T>& key, Settings settings)
        : QtKey(std::string(key.name)), mKey(key), mSettings(std::move(settings)) {
        mKey.name = name();
    }

    QVariant get() const override { return QtForm<T>::print(mSettings.get(mKey)); }
    bool set(const QVariant& value) const override {
        const auto typed = fromVariant<T>(value);
        return typed && mSettings.set(mKey, *typed);
    }
    bool unset() const override { return mSettings.unset(mKey); }
    bool isGoverned() const override { return mSettings.isGoverned(mKey); }
    Watch watch(std::function<void(const QVariant&)> tell) const override {
        return mSettings.watch(mKey, [tell = std::move(tell)](const T& now) { tell(QtForm<T>::print(now)); });
    }

private:
    Key<T> mKey;
    const Settings mSettings;
};

}  // namespace detail

// Its value is what sd::Settings gives for the key: bool, int, qlonglong (a number of 64 bits, the milliseconds of a
// duration, the bytes of a size), double, or a text as it is stored; of a list, a QVariantList of these. It is read
// when the object is made, and kept up to date by the event loop of the object's thread, in which the object is used
// and destroyed. Reading it asks nobody. Making the object, setting and resetting it are a call to the service each,
// and so is isGoverned().
class QtSetting final : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString key READ key CONSTANT)
    Q_PROPERTY(QVariant value READ value WRITE setValue RESET reset NOTIFY valueChanged)

public:
    // settings: of objects that share them one thread watches; untold, of all such objects.
    template <typename T>
    explicit QtSetting(const Key<T>& key, QObject* parent = nullptr, const Settings& settings = shared())
        : QObject(parent), mKey(std::make_unique<detail::TypedQtKey<T>>(key, settings)) {
        mWatch = mKey->watch([this](const QVariant& now) {
            QMetaObject::invokeMethod(
                this, [this, now] { take(now); }, Qt::QueuedConnection);
        });
        mValue = mKey->get();  // what changes from here on is told
    }

    // When end() returns nobody tells of the key any more, and what was told goes with the QObject.
    ~QtSetting() override { mWatch.end(); }

    QString key() const { return QString::fromStdString(mKey->name()); }
    QVariant value() const { return mValue; }

    // What doesn't fit the key, or is not stored, is told by refused(), and changes nothing.
    void setValue(const QVariant& value) { settle(mKey->set(value)); }
    void reset() { settle(mKey->unset()); }

    // Whether a policy has the say, so that setting it has no effect.
    Q_INVOKABLE bool isGoverned() const { return mKey->isGoverned(); }

Q_SIGNALS:
    void valueChanged();
    void refused();

private:
    static const Settings& shared() {
        static const Settings settings;
        return settings;
    }

    // A policy may have the say.
    void settle(bool isDone) {
        if (isDone)
            take(mKey->get());
        else
            Q_EMIT refused();
    }

    void take(const QVariant& now) {
        if (now == mValue) return;
        mValue = now;
        Q_EMIT valueChanged();
    }

    const std::unique_ptr<const detail::QtKey> mKey;
    QVariant mValue;
    Watch mWatch;
};

}  // namespace sd
