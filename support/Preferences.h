// The preference store: one XML property list per user under
// $XDG_CONFIG_HOME/Brix/, over a registration (factory-defaults) layer.
//
// A read answers the user's own value, else the registered default, else
// nothing. Writes replace whole values; they reach the file soon after on the
// store's own serial queue (or at once through synchronize()), each time as a
// complete new file renamed over the old one. Changes made by another process
// to the same file are merged per key at the next save or synchronize. A file
// that cannot be read is moved aside with a timestamp, logged, and the store
// starts empty over the defaults.
//
// Threads: any thread may read and write; valueChanged is emitted on the main
// thread (at once when the change is made there). Values are property-list
// values (QString, bool, integers, double, QByteArray, QDateTime, QVariantList,
// QVariantMap), returned by copy.
#pragma once

#include <QObject>
#include <QString>
#include <QVariant>
#include <QVariantList>
#include <QVariantMap>

#include <functional>
#include <memory>

namespace brix {

// The keys the station reads and writes.
namespace pref {
inline constexpr const char kSaveFolderPath[] = "prefSaveFolderPath";
inline constexpr const char kCanonSettings[] = "prefCanonSettings";
inline constexpr const char kTempCanonSettings[] = "prefTempCanonSettings";
inline constexpr const char kNameOfCameraFound[] = "prefNameOfCameraFound";
inline constexpr const char kDefaultMainTabviewItemIdentifier[] = "prefDefaultMainTabviewItemIdentifier";
inline constexpr const char kMiniSizesInfoArray[] = "prefMiniSizesInfoArray";
inline constexpr const char kSelectedMiniPanelSizeValue[] = "prefSelectedMiniPanelSizeValue";
inline constexpr const char kMiniSize3Position[] = "prefMiniSize3Position";
inline constexpr const char kForceWindowBottomRight[] = "prefForceWindowBottomRight";
inline constexpr const char kForceWindowPosition[] = "prefForceWindowPosition";
inline constexpr const char kScanForNewImageInSeconds[] = "prefScanForNewImageInSeconds";
inline constexpr const char kPreferNotificationsOverModalAlerts[] = "prefPreferNotificationsOverModalAlerts";
inline constexpr const char kWindowTitleName[] = "prefWindowTitleName";
inline constexpr const char kLable1String[] = "prefLable1String";
inline constexpr const char kLongInfoString[] = "prefLongInfoString";
inline constexpr const char kRecentLaunchDates[] = "recentLaunchDates";
} // namespace pref

class Preferences : public QObject {
    Q_OBJECT
public:
    // Name of the factory-defaults resource.
    static constexpr const char kFactoryDefaultsResource[] = "FactoryDefault.plist";
    // Prefix of a binding path: "values.<key>".
    static constexpr const char kBindingPrefix[] = "values.";

    // The user's store for this application; its file path is taken from the
    // environment at first use. Lives for the process.
    static Preferences &standard();
    // $XDG_CONFIG_HOME (else ~/.config) /Brix/<bundle identifier>.plist.
    static QString standardFilePath();

    // A store kept in `filePath` (tests, tools). The file is read now. The
    // object belongs to the main thread whichever thread makes it.
    explicit Preferences(const QString &filePath, QObject *parent = nullptr);
    // Writes what is still pending.
    ~Preferences() override;

    QString filePath() const;

    QVariant objectForKey(const QString &key) const;
    QString stringForKey(const QString &key) const; // numbers as text; other types null
    bool boolForKey(const QString &key) const;       // absent = false
    double floatForKey(const QString &key) const;    // absent = 0.0
    qint64 integerForKey(const QString &key) const;  // absent = 0
    QVariantList arrayForKey(const QString &key) const;
    QVariantMap dictionaryForKey(const QString &key) const;
    // Every key with its effective value.
    QVariantMap dictionaryRepresentation() const;
    // The user's own values only (what the file holds).
    QVariantMap persistentDomain() const;

    // A value that is not a property-list value is refused with a log line; an
    // invalid QVariant removes the key.
    void setObject(const QVariant &value, const QString &forKey);
    void setBool(bool value, const QString &forKey);
    void setFloat(double value, const QString &forKey);
    void setInteger(qint64 value, const QString &forKey);
    void removeObjectForKey(const QString &key);

    // Adds to (or replaces keys of) the registration layer; never written to disk.
    void registerDefaults(const QVariantMap &defaults);
    QVariantMap registeredDefaults() const;
    // Reads a property-list dictionary from `path` and registers it. A missing
    // or unreadable file, or one that is not a dictionary, registers nothing
    // and is not reported (the factory defaults are optional).
    bool registerDefaultsFromFile(const QString &path);
    // registerDefaultsFromFile(the "FactoryDefault.plist" resource), then synchronize().
    bool registerFactoryDefaults();

    // Writes pending changes now and takes in changes another process made to
    // the file. True when the file matches the store afterwards.
    bool synchronize();

    // "values.prefX" -> "prefX"; a plain key is returned as it is.
    static QString keyForBindingPath(const QString &path);
    // Calls `apply` now with the current value of the key named by `path`
    // ("values.<key>" or the key), and after every change of it, on the thread
    // of `context`, until `context` is destroyed or the connection is broken.
    QMetaObject::Connection bind(const QString &path, QObject *context, std::function<void(const QVariant &)> apply);

signals:
    // "values.<key>" bindings listen here. `value` is the new effective value
    // (the registered default after a removal; invalid when there is none).
    void valueChanged(const QString &key, const QVariant &value);

private:
    struct State;
    void notify(const QString &key, const QVariant &value);
    void scheduleSave();
    bool save();
    bool saveLocked(QList<std::pair<QString, QVariant>> *externalChanges);
    std::unique_ptr<State> d_;
};

} // namespace brix
