#include "PathObserver.h"

#include "InotifyReader.h"
#include "Logger.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <sys/inotify.h>

namespace brix {

namespace {
constexpr const char *kNotAFileURL =
    "OOPS! %1 is NOT a file URL. Nothing will be watched (because there is nothing TO be watched)";
constexpr const char *kNoDescriptor = "Failed to get a file descriptor";

unsigned long eventBits(std::uint32_t mask) {
    unsigned long bits = 0;
    if (mask & IN_DELETE_SELF)
        bits |= PathObserver::kDelete;
    if (mask & IN_MODIFY)
        bits |= PathObserver::kWrite | PathObserver::kExtend;
    if (mask & IN_ATTRIB)
        bits |= PathObserver::kAttrib | PathObserver::kLink;
    if (mask & IN_MOVE_SELF)
        bits |= PathObserver::kRename;
    if (mask & IN_UNMOUNT)
        bits |= PathObserver::kRevoke;
    return bits;
}

std::uint32_t inotifyMask(unsigned long events) {
    std::uint32_t mask = 0;
    if (events & PathObserver::kDelete)
        mask |= IN_DELETE_SELF;
    if (events & (PathObserver::kWrite | PathObserver::kExtend))
        mask |= IN_MODIFY;
    if (events & (PathObserver::kAttrib | PathObserver::kLink))
        mask |= IN_ATTRIB;
    if (events & PathObserver::kRename)
        mask |= IN_MOVE_SELF;
    // The kernel always reports an unmount; revoke is filtered below.
    return mask;
}
} // namespace

// The watch itself; shared with the reading thread and with queued handler tasks.
struct PathObserver::Source {
    std::shared_ptr<InotifyReader> reader;
    unsigned long mask = 0;
    std::mutex mutex;
    Handler handler;
    bool cancelled = false;

    void cancel() {
        {
            std::lock_guard lock(mutex);
            cancelled = true;
        }
        reader->stop();
    }
};

std::unique_ptr<PathObserver> PathObserver::initWithURL(const QUrl &url, unsigned long forEvents,
                                                        dispatch::QueuePtr onQueue, Handler handler) {
    if (!url.isLocalFile()) {
        Logger::setError(QString::fromLatin1(kNotAFileURL).arg(url.toString()));
        return nullptr;
    }
    QString error;
    auto reader = InotifyReader::create(&error);
    const int wd = reader ? reader->add(url.toLocalFile(), inotifyMask(forEvents)) : -1;
    if (wd < 0) {
        // perror() style on the error stream: the text, then the system's reason.
        const QString why = reader ? QString::fromLocal8Bit(std::strerror(errno)) : error;
        std::fprintf(stderr, "%s: %s\n", kNoDescriptor, why.toLocal8Bit().constData());
        std::fflush(stderr);
        return nullptr;
    }
    if (!onQueue)
        onQueue = dispatch::globalQueue();
    auto source = std::make_shared<Source>();
    source->reader = reader;
    source->mask = forEvents;
    source->handler = std::move(handler);
    std::weak_ptr<Source> weak = source;
    reader->start("PathObserver", [weak, onQueue](const std::vector<InotifyReader::Event> &events) {
        auto s = weak.lock();
        if (!s)
            return -1;
        unsigned long bits = 0;
        for (const auto &e : events)
            bits |= eventBits(e.mask);
        bits &= s->mask;
        if (bits == 0)
            return -1;
        onQueue->async([weak, bits] {
            auto src = weak.lock();
            if (!src)
                return;
            Handler h;
            {
                std::lock_guard lock(src->mutex);
                if (src->cancelled && !(bits & kDelete))
                    return;
                h = src->handler;
            }
            if (h)
                h(bits);
        });
        // A deleted item is never watched again.
        if (bits & kDelete) {
            std::lock_guard lock(s->mutex);
            s->cancelled = true;
            s->reader->stop();
        }
        return -1;
    });
    return std::unique_ptr<PathObserver>(new PathObserver(url, std::move(onQueue), std::move(source)));
}

PathObserver::PathObserver(QUrl url, dispatch::QueuePtr queue, std::shared_ptr<Source> source)
    : url_(std::move(url)), queue_(std::move(queue)), source_(std::move(source)) {}

PathObserver::~PathObserver() {
    source_->cancel();
}

PathObserver::Handler PathObserver::handler() const {
    std::lock_guard lock(source_->mutex);
    return source_->handler;
}

void PathObserver::setHandler(Handler handler) {
    std::lock_guard lock(source_->mutex);
    source_->handler = std::move(handler);
}

bool PathObserver::isWatching() const {
    std::lock_guard lock(source_->mutex);
    return !source_->cancelled;
}

} // namespace brix
