#include "Preferences.h"

#include "AtomicFile.h"
#include "BundleInfo.h"
#include "Dispatch.h"
#include "Logger.h"
#include "Paths.h"
#include "PropertyList.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QThread>

#include <mutex>
#include <optional>
#include <shared_mutex>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace brix {

namespace {

const QString kUnreadableMovedAside =
    QStringLiteral("Preferences: cannot read %1 (%2); moved it aside to %3 and starting from the defaults");
const QString kUnreadableKept = QStringLiteral(
    "Preferences: cannot read %1 (%2) and cannot move it aside (%3); changes will not be saved until it is removed");
const QString kSaveFailed = QStringLiteral("Preferences: cannot save %1: %2");
const QString kNotPlistValue = QStringLiteral("Preferences: value for key %1 not stored: %2");

// Identity of the file on disk, to notice when another process replaced it.
struct FileStamp {
    bool exists = false;
    dev_t dev = 0;
    ino_t ino = 0;
    qint64 mtimeNs = 0;
    qint64 size = 0;
    bool operator==(const FileStamp &) const = default;
};

FileStamp stampOf(const QString &path) {
    struct stat st {};
    FileStamp s;
    if (::stat(QFile::encodeName(path).constData(), &st) != 0)
        return s;
    s.exists = true;
    s.dev = st.st_dev;
    s.ino = st.st_ino;
    s.mtimeNs = qint64(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    s.size = qint64(st.st_size);
    return s;
}

// Holds an exclusive lock on "<file>.lock" for the life of the object, so that
// two processes saving the same store merge rather than overwrite each other.
class FileLock {
public:
    explicit FileLock(const QString &path) {
        fd_ = ::open(QFile::encodeName(path + QStringLiteral(".lock")).constData(), O_RDWR | O_CREAT | O_CLOEXEC,
                     0600);
        if (fd_ >= 0) {
            while (::flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
            }
        }
    }
    ~FileLock() {
        if (fd_ >= 0)
            ::close(fd_);
    }
    FileLock(const FileLock &) = delete;
    FileLock &operator=(const FileLock &) = delete;

private:
    int fd_ = -1;
};

enum class LoadResult { Loaded, Missing, Unreadable };

LoadResult loadFile(const QString &path, QVariantMap *out, QString *why) {
    QFile file(path);
    if (!file.exists()) {
        return LoadResult::Missing;
    }
    if (!file.open(QIODevice::ReadOnly)) {
        *why = file.errorString();
        return LoadResult::Unreadable;
    }
    const QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError) {
        *why = file.errorString();
        return LoadResult::Unreadable;
    }
    const QVariant value = PropertyList::propertyListFromData(bytes, Mutability::Immutable, why);
    if (!value.isValid())
        return LoadResult::Unreadable;
    if (value.typeId() != QMetaType::QVariantMap) {
        *why = QStringLiteral("the root is not a dictionary");
        return LoadResult::Unreadable;
    }
    *out = value.toMap();
    return LoadResult::Loaded;
}

// Renames an unreadable file to "<file>.corrupt-<yyyyMMdd-HHmmss>[-n]".
bool moveAside(const QString &path, QString *aside, QString *why) {
    const QString base =
        path + QStringLiteral(".corrupt-") + QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss"));
    QString candidate = base;
    for (int n = 2; QFileInfo::exists(candidate); ++n)
        candidate = base + QLatin1Char('-') + QString::number(n);
    if (::rename(QFile::encodeName(path).constData(), QFile::encodeName(candidate).constData()) != 0) {
        *why = QString::fromLocal8Bit(std::strerror(errno));
        return false;
    }
    *aside = candidate;
    return true;
}

bool textIsTrue(const QString &text) {
    const QString t = text.trimmed();
    if (t.compare(QLatin1String("YES"), Qt::CaseInsensitive) == 0 ||
        t.compare(QLatin1String("true"), Qt::CaseInsensitive) == 0)
        return true;
    return t.toLongLong() != 0;
}

// The leading number of a text, as the store's number conversions read it.
double leadingNumber(const QString &text) {
    const QString t = text.trimmed();
    qsizetype end = 0;
    while (end < t.size() && (t[end].isDigit() || QStringLiteral("+-.eE").contains(t[end])))
        ++end;
    for (; end > 0; --end) {
        bool ok = false;
        const double d = t.left(end).toDouble(&ok);
        if (ok)
            return d;
    }
    return 0.0;
}

bool isNumber(const QVariant &v) {
    switch (v.typeId()) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::Long:
    case QMetaType::ULong:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::Char:
    case QMetaType::SChar:
    case QMetaType::UChar:
    case QMetaType::Float:
    case QMetaType::Double:
        return true;
    default:
        return false;
    }
}

} // namespace

struct Preferences::State {
    QString path;

    // Guards registration, user and dirty.
    mutable std::shared_mutex mutex;
    QVariantMap registration;
    QVariantMap user;
    // Keys changed here since the last save: the new value, or none for a removal.
    QHash<QString, std::optional<QVariant>> dirty;

    // Touched only while holding saveMutex.
    std::mutex saveMutex;
    QVariantMap disk;     // what the file held when last read or written
    FileStamp diskStamp;  // and its identity then
    bool blocked = false; // an unreadable file could not be moved aside

    std::atomic<bool> saveScheduled{false};
    dispatch::QueuePtr io;

    QVariant effective(const QString &key) const {
        auto it = user.constFind(key);
        if (it != user.constEnd())
            return *it;
        return registration.value(key);
    }
};

// --- construction ----------------------------------------------------------------

QString Preferences::standardFilePath() {
    return Paths::configFolder() + QStringLiteral("/Brix/") + QLatin1String(bundle::kIdentifier) +
           QStringLiteral(".plist");
}

Preferences &Preferences::standard() {
    static Preferences *store = [] {
        auto *p = new Preferences(standardFilePath());
        // Lives for the process: flush what is pending when the application object goes.
        qAddPostRoutine([] { standard().synchronize(); });
        return p;
    }();
    return *store;
}

Preferences::Preferences(const QString &filePath, QObject *parent) : QObject(parent), d_(std::make_unique<State>()) {
    d_->path = QFileInfo(filePath).absoluteFilePath();
    d_->io = dispatch::makeSerialQueue("com.lumetra.brix.preferences");
    if (!parent && QCoreApplication::instance() && thread() != QCoreApplication::instance()->thread())
        moveToThread(QCoreApplication::instance()->thread());

    std::lock_guard guard(d_->saveMutex);
    FileLock lock(d_->path);
    QString why;
    QVariantMap loaded;
    if (loadFile(d_->path, &loaded, &why) == LoadResult::Unreadable) {
        QString aside, moveWhy;
        if (moveAside(d_->path, &aside, &moveWhy)) {
            Logger::setError(kUnreadableMovedAside.arg(d_->path, why, aside));
        } else {
            Logger::setError(kUnreadableKept.arg(d_->path, why, moveWhy));
            d_->blocked = true;
        }
    }
    d_->disk = loaded;
    d_->diskStamp = stampOf(d_->path);
    d_->user = loaded;
}

Preferences::~Preferences() {
    // Let a save already queued finish, then write whatever is left.
    d_->io->sync([] {});
    bool pending;
    {
        std::shared_lock lk(d_->mutex);
        pending = !d_->dirty.isEmpty();
    }
    if (pending)
        save();
}

QString Preferences::filePath() const { return d_->path; }

// --- reads -------------------------------------------------------------------------

QVariant Preferences::objectForKey(const QString &key) const {
    std::shared_lock lk(d_->mutex);
    return d_->effective(key);
}

QString Preferences::stringForKey(const QString &key) const {
    const QVariant v = objectForKey(key);
    if (v.typeId() == QMetaType::QString)
        return v.toString();
    if (isNumber(v))
        return v.toString();
    return {};
}

bool Preferences::boolForKey(const QString &key) const {
    const QVariant v = objectForKey(key);
    if (v.typeId() == QMetaType::Bool)
        return v.toBool();
    if (isNumber(v))
        return v.toDouble() != 0.0;
    if (v.typeId() == QMetaType::QString)
        return textIsTrue(v.toString());
    return false;
}

double Preferences::floatForKey(const QString &key) const {
    const QVariant v = objectForKey(key);
    if (isNumber(v))
        return v.toDouble();
    if (v.typeId() == QMetaType::Bool)
        return v.toBool() ? 1.0 : 0.0;
    if (v.typeId() == QMetaType::QString)
        return leadingNumber(v.toString());
    return 0.0;
}

qint64 Preferences::integerForKey(const QString &key) const {
    const QVariant v = objectForKey(key);
    if (v.typeId() == QMetaType::Double || v.typeId() == QMetaType::Float) {
        const double d = v.toDouble();
        if (!(d == d) || d >= 9.2e18 || d <= -9.2e18)
            return 0;
        return qint64(d);
    }
    if (isNumber(v))
        return v.toLongLong();
    if (v.typeId() == QMetaType::Bool)
        return v.toBool() ? 1 : 0;
    if (v.typeId() == QMetaType::QString) {
        const double d = leadingNumber(v.toString());
        return d >= 9.2e18 || d <= -9.2e18 ? 0 : qint64(d);
    }
    return 0;
}

QVariantList Preferences::arrayForKey(const QString &key) const {
    const QVariant v = objectForKey(key);
    if (v.typeId() == QMetaType::QVariantList || v.typeId() == QMetaType::QStringList)
        return v.toList();
    return {};
}

QVariantMap Preferences::dictionaryForKey(const QString &key) const {
    const QVariant v = objectForKey(key);
    if (v.typeId() == QMetaType::QVariantMap)
        return v.toMap();
    return {};
}

QVariantMap Preferences::dictionaryRepresentation() const {
    std::shared_lock lk(d_->mutex);
    QVariantMap all = d_->registration;
    all.insert(d_->user);
    return all;
}

QVariantMap Preferences::persistentDomain() const {
    std::shared_lock lk(d_->mutex);
    return d_->user;
}

QVariantMap Preferences::registeredDefaults() const {
    std::shared_lock lk(d_->mutex);
    return d_->registration;
}

// --- writes ------------------------------------------------------------------------

void Preferences::setObject(const QVariant &value, const QString &forKey) {
    if (!value.isValid()) {
        removeObjectForKey(forKey);
        return;
    }
    QString why;
    // Refuse now what could not be written later.
    if (PropertyList::dataFromPropertyList(QVariantList{value}, PlistFormat::Binary, &why).isNull()) {
        Logger::setError(kNotPlistValue.arg(forKey, why));
        return;
    }
    {
        std::unique_lock lk(d_->mutex);
        d_->user.insert(forKey, value);
        d_->dirty.insert(forKey, value);
    }
    scheduleSave();
    notify(forKey, value);
}

void Preferences::setBool(bool value, const QString &forKey) { setObject(QVariant(value), forKey); }
void Preferences::setFloat(double value, const QString &forKey) { setObject(QVariant(value), forKey); }
void Preferences::setInteger(qint64 value, const QString &forKey) { setObject(QVariant(qlonglong(value)), forKey); }

void Preferences::removeObjectForKey(const QString &key) {
    QVariant now;
    {
        std::unique_lock lk(d_->mutex);
        d_->user.remove(key);
        d_->dirty.insert(key, std::nullopt);
        now = d_->registration.value(key);
    }
    scheduleSave();
    notify(key, now);
}

void Preferences::registerDefaults(const QVariantMap &defaults) {
    QList<std::pair<QString, QVariant>> changed;
    {
        std::unique_lock lk(d_->mutex);
        for (auto it = defaults.constBegin(); it != defaults.constEnd(); ++it) {
            const QVariant before = d_->effective(it.key());
            d_->registration.insert(it.key(), it.value());
            if (!d_->user.contains(it.key()) && before != it.value())
                changed.append({it.key(), it.value()});
        }
    }
    for (const auto &[key, value] : changed)
        notify(key, value);
}

bool Preferences::registerDefaultsFromFile(const QString &path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    const QVariant value = PropertyList::propertyListFromData(file.readAll(), Mutability::Immutable);
    if (value.typeId() != QMetaType::QVariantMap)
        return false;
    registerDefaults(value.toMap());
    return true;
}

bool Preferences::registerFactoryDefaults() {
    if (!registerDefaultsFromFile(Paths::resourcePath(QLatin1String(kFactoryDefaultsResource))))
        return false;
    synchronize();
    return true;
}

bool Preferences::synchronize() { return save(); }

// --- change signal -----------------------------------------------------------------

void Preferences::notify(const QString &key, const QVariant &value) {
    if (dispatch::isMainThread()) {
        emit valueChanged(key, value);
        return;
    }
    // Dropped by Qt if the store is destroyed before the main loop gets to it.
    QMetaObject::invokeMethod(
        this, [this, key, value] { emit valueChanged(key, value); }, Qt::QueuedConnection);
}

QString Preferences::keyForBindingPath(const QString &path) {
    const QLatin1String prefix(kBindingPrefix);
    return path.startsWith(prefix) ? path.mid(prefix.size()) : path;
}

QMetaObject::Connection Preferences::bind(const QString &path, QObject *context,
                                          std::function<void(const QVariant &)> apply) {
    const QString key = keyForBindingPath(path);
    apply(objectForKey(key));
    return connect(this, &Preferences::valueChanged, context, [key, apply](const QString &k, const QVariant &v) {
        if (k == key)
            apply(v);
    });
}

// --- saving ------------------------------------------------------------------------

void Preferences::scheduleSave() {
    if (d_->saveScheduled.exchange(true))
        return;
    d_->io->async([this] {
        // Cleared first: a write made during this save schedules another one.
        d_->saveScheduled.store(false);
        save();
    });
}

bool Preferences::save() {
    State &s = *d_;
    QList<std::pair<QString, QVariant>> external;
    const bool ok = [&] {
        std::lock_guard guard(s.saveMutex);
        return saveLocked(&external);
    }();
    // Outside the save lock: a listener may well synchronize again.
    for (const auto &[key, value] : external)
        notify(key, value);
    return ok;
}

bool Preferences::saveLocked(QList<std::pair<QString, QVariant>> *externalChanges) {
    State &s = *d_;
    {
        // Nothing of ours to write and nobody else wrote: no need to touch the disk.
        std::shared_lock lk(s.mutex);
        if (s.dirty.isEmpty() && !s.blocked && stampOf(s.path) == s.diskStamp)
            return true;
    }
    QDir().mkpath(QFileInfo(s.path).absolutePath());
    FileLock lock(s.path);

    // Take in what another process wrote since we last looked.
    auto &external = *externalChanges;
    const FileStamp stamp = stampOf(s.path);
    if (!(stamp == s.diskStamp) || s.blocked) {
        QVariantMap onDisk;
        QString why;
        if (loadFile(s.path, &onDisk, &why) == LoadResult::Unreadable) {
            QString aside, moveWhy;
            if (!moveAside(s.path, &aside, &moveWhy)) {
                Logger::setError(kUnreadableKept.arg(s.path, why, moveWhy));
                s.blocked = true;
                return false;
            }
            Logger::setError(kUnreadableMovedAside.arg(s.path, why, aside));
        }
        s.blocked = false;
        std::unique_lock lk(s.mutex);
        QStringList keys = s.disk.keys() + onDisk.keys();
        keys.removeDuplicates();
        for (const QString &key : keys) {
            const QVariant was = s.disk.value(key), now = onDisk.value(key);
            if (was == now && was.isValid() == now.isValid())
                continue;
            if (s.dirty.contains(key))
                continue; // our own newer change wins
            if (now.isValid())
                s.user.insert(key, now);
            else
                s.user.remove(key);
            external.append({key, s.effective(key)});
        }
        s.disk = onDisk;
        s.diskStamp = stampOf(s.path);
    }

    QHash<QString, std::optional<QVariant>> taken;
    {
        std::unique_lock lk(s.mutex);
        taken.swap(s.dirty);
    }
    QVariantMap merged = s.disk;
    for (auto it = taken.constBegin(); it != taken.constEnd(); ++it) {
        if (it.value())
            merged.insert(it.key(), *it.value());
        else
            merged.remove(it.key());
    }

    bool ok = true;
    if (merged != s.disk) {
        QString why;
        const QByteArray xml = PropertyList::dataFromPropertyList(merged, PlistFormat::Xml, &why);
        ok = !xml.isNull() && AtomicFile::write(s.path, xml, &why);
        if (ok) {
            s.disk = merged;
            s.diskStamp = stampOf(s.path);
        } else {
            Logger::setError(kSaveFailed.arg(s.path, why));
            // Keep the changes for the next attempt, unless they were changed again meanwhile.
            std::unique_lock lk(s.mutex);
            for (auto it = taken.constBegin(); it != taken.constEnd(); ++it)
                if (!s.dirty.contains(it.key()))
                    s.dirty.insert(it.key(), it.value());
        }
    }
    return ok;
}

} // namespace brix
