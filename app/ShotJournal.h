// The record of which shots the sibling applications have been told about, so
// that a station that died between saving a shot and announcing it makes up
// for it once after its relaunch.
//
// The record is one small file, $XDG_STATE_HOME/Brix/lastAnnouncedShot, that
// holds the file name of the last shot announced. Shot names grow with time,
// so every shot in the save folder named after it was saved but never
// announced. The file is replaced whole by a rename: a kill leaves the old
// name or the new one, never a torn one.
//
// Threads: markAnnounced() on the main queue, just before the announcement is
// posted; catchUp() once at start-up on the metadata queue, before any shot is
// saved. A mutex keeps the two apart all the same.
// Ownership: plain values; nothing is shared.
#pragma once

#include <QString>
#include <QStringList>

#include <mutex>

namespace brix {

class ShotJournal {
public:
    explicit ShotJournal(QString markerPath = defaultMarkerPath());

    static QString defaultMarkerPath();

    // `path` (a shot file) is about to be announced.
    void markAnnounced(const QString &path);

    // Removes the partly written temporary files of shots in `folder` and
    // returns the shots saved after the last announced one, oldest first, for
    // the caller to announce. Without a record yet (the first start), nothing
    // is returned and the newest shot in the folder becomes the record.
    QStringList catchUp(const QString &folder);

    // The file name in the record, empty when there is none.
    QString lastAnnounced() const;

private:
    void write(const QString &fileName);

    const QString markerPath_;
    mutable std::mutex mutex_;
};

} // namespace brix
