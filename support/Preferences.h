// The preference store: one XML property list per user under
// $XDG_CONFIG_HOME/Brix/, over a registration (factory-defaults) layer.
//
// Threads: any thread may read and write; valueChanged is emitted on the main
// thread. Values are property-list values (QString, bool, integers, double,
// QByteArray, QDateTime, QVariantList, QVariantMap), returned by copy.
#pragma once

#include <QObject>
#include <QString>
#include <QVariant>
#include <QVariantList>
#include <QVariantMap>

namespace brix {

class Preferences : public QObject {
    Q_OBJECT
public:
    // The user's store for this application.
    static Preferences &standard();

    QVariant objectForKey(const QString &key) const;
    QString stringForKey(const QString &key) const;
    bool boolForKey(const QString &key) const;   // absent = false
    double floatForKey(const QString &key) const; // absent = 0.0
    qint64 integerForKey(const QString &key) const;
    QVariantList arrayForKey(const QString &key) const;
    QVariantMap dictionaryForKey(const QString &key) const;

    void setObject(const QVariant &value, const QString &forKey);
    void setBool(bool value, const QString &forKey);
    void setFloat(double value, const QString &forKey);
    void setInteger(qint64 value, const QString &forKey);
    void removeObjectForKey(const QString &key);

    void registerDefaults(const QVariantMap &defaults);
    bool synchronize();

signals:
    // "values.<key>" bindings listen here.
    void valueChanged(const QString &key, const QVariant &value);
};

} // namespace brix
