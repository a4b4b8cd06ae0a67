#include "InotifyReader.h"

#include "Dispatch.h"

#include <cerrno>
#include <cstring>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace brix {

std::shared_ptr<InotifyReader> InotifyReader::create(QString *error) {
    const int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd < 0) {
        if (error)
            *error = QString::fromLocal8Bit(std::strerror(errno));
        return nullptr;
    }
    const int wake = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wake < 0) {
        if (error)
            *error = QString::fromLocal8Bit(std::strerror(errno));
        ::close(fd);
        return nullptr;
    }
    return std::shared_ptr<InotifyReader>(new InotifyReader(fd, wake));
}

InotifyReader::~InotifyReader() {
    ::close(fd_);
    ::close(wake_);
}

int InotifyReader::add(const QString &path, std::uint32_t mask) {
    return ::inotify_add_watch(fd_, path.toLocal8Bit().constData(), mask);
}

void InotifyReader::remove(int wd) {
    ::inotify_rm_watch(fd_, wd);
}

void InotifyReader::start(const std::string &threadName, Handler handler, int firstTimeout) {
    dispatch::detachThread(threadName, [self = shared_from_this(), handler = std::move(handler),
                                        firstTimeout] { self->loop(handler, firstTimeout); });
}

void InotifyReader::stop() {
    {
        // Waits out a handler call in progress, unless called from within it.
        std::unique_lock lock(callMutex_, std::defer_lock);
        if (readerThread_.load() != std::this_thread::get_id())
            lock.lock();
        stopped_.store(true);
    }
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = ::write(wake_, &one, sizeof one);
}

void InotifyReader::loop(Handler handler, int timeout) {
    // Room for many events per read; each is at most a header and NAME_MAX + 1.
    alignas(struct inotify_event) char buffer[64 * 1024];
    readerThread_.store(std::this_thread::get_id());
    while (!stopped_.load()) {
        pollfd fds[2] = {{fd_, POLLIN, 0}, {wake_, POLLIN, 0}};
        const int ready = ::poll(fds, 2, timeout);
        if (stopped_.load())
            return;
        if (ready < 0 && errno != EINTR)
            return;
        std::vector<Event> events;
        if (ready > 0 && (fds[0].revents & POLLIN)) {
            for (;;) {
                const ssize_t n = ::read(fd_, buffer, sizeof buffer);
                if (n <= 0)
                    break;
                for (ssize_t at = 0; at < n;) {
                    const auto *e = reinterpret_cast<const inotify_event *>(buffer + at);
                    Event event;
                    event.wd = e->wd;
                    event.mask = e->mask;
                    event.cookie = e->cookie;
                    if (e->len > 0)
                        event.name = QString::fromLocal8Bit(e->name, qsizetype(::strnlen(e->name, e->len)));
                    events.push_back(std::move(event));
                    at += ssize_t(sizeof(inotify_event) + e->len);
                }
            }
        }
        std::lock_guard lock(callMutex_);
        if (stopped_.load())
            return;
        timeout = handler(events);
    }
}

} // namespace brix
