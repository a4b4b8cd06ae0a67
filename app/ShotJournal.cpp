#include "ShotJournal.h"

#include "Logger.h"
#include "Paths.h"
#include "ViewController.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <cstdio>

namespace brix {

namespace {

// A shot as the station names it, and the hidden temporary file of one being
// written beside it.
const QRegularExpression kShot(QStringLiteral("^(\\d{17})\\.[a-z0-9]+$"));
const QRegularExpression
    kPartial(QStringLiteral("^\\.\\d{17}\\.[a-z0-9]+") +
             QRegularExpression::escape(QLatin1String(ViewController::kTemporarySuffix)) + QLatin1Char('$'));

QString stem(const QString &fileName) {
    return fileName.left(17);
}

} // namespace

ShotJournal::ShotJournal(QString markerPath) : markerPath_(std::move(markerPath)) {}

QString ShotJournal::defaultMarkerPath() {
    return Paths::libraryFolder() + QStringLiteral("/Brix/lastAnnouncedShot");
}

QString ShotJournal::lastAnnounced() const {
    std::lock_guard lk(mutex_);
    QFile f(markerPath_);
    if (!f.open(QIODevice::ReadOnly))
        return {};
    const QString name = QString::fromUtf8(f.read(256)).trimmed();
    return kShot.match(name).hasMatch() ? name : QString();
}

void ShotJournal::stage(const QString &path) {
    std::lock_guard lk(mutex_);
    staged_ = writeStaged(QFileInfo(path).fileName());
}

void ShotJournal::commit() {
    std::lock_guard lk(mutex_);
    if (staged_) // a staging that failed has said so already
        rename();
    staged_ = false;
}

QString ShotJournal::stagedPath() const {
    return markerPath_ + QStringLiteral(".new");
}

bool ShotJournal::writeStaged(const QString &fileName) {
    // No fsync: it would cost every shot a disk flush, and what this guards
    // against is the process dying, which the page cache survives.
    QDir().mkpath(QFileInfo(markerPath_).path());
    QFile f(stagedPath());
    if (!f.open(QIODevice::WriteOnly | QIODevice::Truncate) || f.write(fileName.toUtf8() + '\n') < 0) {
        Logger::setError(QStringLiteral("could not record the announced shot in %1: %2")
                             .arg(markerPath_, f.errorString()));
        f.remove();
        return false;
    }
    return true;
}

void ShotJournal::rename() {
    const QByteArray staged = QFile::encodeName(stagedPath());
    if (std::rename(staged.constData(), QFile::encodeName(markerPath_).constData()) != 0)
        Logger::setError(QStringLiteral("could not record the announced shot in %1").arg(markerPath_));
}

QStringList ShotJournal::catchUp(const QString &folder) {
    if (folder.isEmpty())
        return {};
    const QString last = lastAnnounced();
    QStringList shots;
    const QDir dir(folder);
    for (const QString &name : dir.entryList(QDir::Files | QDir::Hidden, QDir::Name)) {
        if (kPartial.match(name).hasMatch()) {
            // A write the last run did not finish: the shot was never announced
            // and its bytes are incomplete.
            if (QFile::remove(dir.filePath(name)))
                Logger::setError(
                    QStringLiteral("removed the partly written shot %1").arg(dir.filePath(name)));
        } else if (kShot.match(name).hasMatch()) {
            shots << name;
        }
    }
    if (last.isEmpty()) {
        if (!shots.isEmpty()) {
            std::lock_guard lk(mutex_);
            if (writeStaged(shots.last()))
                rename();
        }
        return {};
    }
    QStringList missed;
    for (const QString &name : shots)
        if (stem(name) > stem(last))
            missed << dir.filePath(name);
    for (const QString &path : missed)
        Logger::setError(QStringLiteral("announcing %1, saved before the last run ended").arg(path));
    return missed;
}

} // namespace brix
