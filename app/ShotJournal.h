// The record of which shots the sibling applications have been told about, so
// that a station that died between saving a shot and announcing it makes up
// for it once after its relaunch.
//
// The record is one small file, $XDG_STATE_HOME/Brix/lastAnnouncedShot, that
// holds the file name of the last shot announced. Shot names grow with time,
// so every shot in the save folder named after it was saved but never
// announced. The file is replaced whole by a rename: a kill leaves the old
// name or the new one, never a torn one. The new one is written beside it
// before the announcement goes out, so that all that is left to do once it
// has gone is the rename.
//
// Threads: stage() and commit() on the main queue, around the announcement's
// post; catchUp() once at start-up on the metadata queue, before any shot is
// saved. A mutex keeps them apart all the same.
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

    // `path` (a shot file) is about to be announced: writes the record that
    // names it beside the present one.
    void stage(const QString &path);
    // The staged shot has been announced: its record replaces the present one.
    void commit();

    // Removes the partly written temporary files of shots in `folder` and
    // returns the shots saved after the last announced one, oldest first, for
    // the caller to announce. Without a record yet (the first start), nothing
    // is returned and the newest shot in the folder becomes the record.
    QStringList catchUp(const QString &folder);

    // The file name in the record, empty when there is none.
    QString lastAnnounced() const;

private:
    bool writeStaged(const QString &fileName);
    void rename();
    QString stagedPath() const;

    const QString markerPath_;
    mutable std::mutex mutex_;
    bool staged_ = false; // under mutex_
};

} // namespace brix
