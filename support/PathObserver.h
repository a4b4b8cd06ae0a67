// Watches one file or folder and hands its handler the event bits of the seven
// kinds of change below; after a delete the watch ends, since a deleted item is
// never watched again.
//
// Threads: the kernel's events are read on a detached thread per observer
// ("PathObserver"); the handler runs on the queue given at construction. The
// caller owns the observer; destroying it ends the watch, and a handler task
// already queued then finds no observer and does nothing.
#pragma once

#include "Dispatch.h"

#include <QUrl>

#include <functional>
#include <memory>

namespace brix {

class PathObserver {
public:
    // Event bits. On Linux: delete = IN_DELETE_SELF, write and extend =
    // IN_MODIFY, attribute and link = IN_ATTRIB, rename = IN_MOVE_SELF,
    // revoke = IN_UNMOUNT.
    static constexpr unsigned long kDelete = 0x1;
    static constexpr unsigned long kWrite = 0x2;
    static constexpr unsigned long kExtend = 0x4;
    static constexpr unsigned long kAttrib = 0x8;
    static constexpr unsigned long kLink = 0x10;
    static constexpr unsigned long kRename = 0x20;
    static constexpr unsigned long kRevoke = 0x40;
    static constexpr unsigned long kAllEvents = 0x7f;
    static constexpr unsigned long kContentsModified = 0xe;

    using Handler = std::function<void(unsigned long events)>;

    // nullptr (after a log line) when the URL is not a file URL or the path
    // cannot be watched. The handler runs on `queue` (nullptr = default global).
    static std::unique_ptr<PathObserver> initWithURL(const QUrl &url, unsigned long forEvents,
                                                     dispatch::QueuePtr onQueue, Handler handler);
    ~PathObserver();
    PathObserver(const PathObserver &) = delete;
    PathObserver &operator=(const PathObserver &) = delete;

    const QUrl &URL() const { return url_; }
    Handler handler() const;
    void setHandler(Handler handler);
    dispatch::QueuePtr queue() const { return queue_; }
    // False once the watch has ended (after a delete).
    bool isWatching() const;

    struct Source;

private:
    PathObserver(QUrl url, dispatch::QueuePtr queue, std::shared_ptr<Source> source);
    QUrl url_;
    dispatch::QueuePtr queue_;
    std::shared_ptr<Source> source_;
};

} // namespace brix
