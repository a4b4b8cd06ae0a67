// Folder watching: tells its handler which paths changed on disk, without
// interpreting the change.
//
// OKVA_FileEvent watches one or more folders recursively (folders made later
// inside them are joined as they appear), or a single file. Changes that fall
// within the latency are coalesced into one delivery; the first change after a
// quiet period is delivered at once. A folder watch reports the folders whose
// contents changed; a single-file watch reports the file with per-item flags.
// The watch survives its folder being removed and made again, and the file
// being replaced by a rename (as editors save); when the kernel's event queue
// overflows, the handler is told to rescan the observed paths.
//
// Threads: the kernel's events are read on a detached thread per running
// watch ("FileEvent-Reading"). Run, pause and queue switches are tasks on the
// watcher's own serial event queue, so they are ordered with deliveries; the
// handler runs on that queue, never on the main thread. The flags are atomics,
// readable from any thread. Ownership: the caller owns the watcher; queues are shared
// handles; the paths and flags handed to handlers are copies.
#pragma once

#include "Dispatch.h"

#include <QList>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

namespace brix {

// Per-path event flags (the bit values of the event stream this API follows).
namespace file_event_flags {
inline constexpr quint32 kMustScanSubDirs = 0x00000001;
inline constexpr quint32 kKernelDropped = 0x00000004;
inline constexpr quint32 kRootChanged = 0x00000020;
inline constexpr quint32 kItemCreated = 0x00000100;
inline constexpr quint32 kItemRemoved = 0x00000200;
inline constexpr quint32 kItemInodeMetaMod = 0x00000400;
inline constexpr quint32 kItemRenamed = 0x00000800;
inline constexpr quint32 kItemModified = 0x00001000;
inline constexpr quint32 kItemIsFile = 0x00010000;
inline constexpr quint32 kItemIsDir = 0x00020000;
} // namespace file_event_flags

// Stream creation flags: path list as platform objects, no defer, and
// file-level events for a single watched file.
inline constexpr quint32 kFileEventCreateFlagPathObjects = 0x1;
inline constexpr quint32 kFileEventCreateFlagNoDefer = 0x2;
inline constexpr quint32 kFileEventCreateFlagFileEvents = 0x10;

class OKVA_FileEvent {
public:
    // Flags of a delivery: one per path, or none (the first call after a start).
    using EventFlags = std::optional<QList<quint32>>;
    using EventBlock = std::function<void(const QStringList &paths, const EventFlags &flags)>;

    static constexpr double kDefaultLatency = 0.5;

    // The watch is prepared but not started (see setRun).
    explicit OKVA_FileEvent(const QString &observedPath);
    explicit OKVA_FileEvent(const QStringList &observedPaths, double latency = kDefaultLatency);
    ~OKVA_FileEvent();
    OKVA_FileEvent(const OKVA_FileEvent &) = delete;
    OKVA_FileEvent &operator=(const OKVA_FileEvent &) = delete;

    void setEventBlock(EventBlock block);
    EventBlock eventBlock() const;

    // Starting calls the handler once with the observed paths and no flags, so
    // that a caller can do its first load there.
    void setRun(bool run);
    bool isRunning() const;
    // A paused watcher keeps watching and drops what it would have delivered.
    void setPaused(bool paused);
    bool isPaused() const;

    // nullptr = the default serial queue labelled "<class>.<first path>".
    void setEventQueue(dispatch::QueuePtr queue);
    dispatch::QueuePtr eventQueue();

    QStringList observedPaths() const;
    double latency() const;
    // The creation flags chosen for the paths (file-level events or not).
    quint32 createFlags() const;

    // The single entry point through which events reach the handler.
    void handleFileEventpaths(const QStringList &paths, const EventFlags &flags);

    struct Core;

private:
    std::shared_ptr<Core> core_;
};

} // namespace brix
