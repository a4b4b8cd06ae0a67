// One inotify instance and the detached thread that reads it, shared by the
// folder and path watchers.
//
// Threads: add() and remove() may be called from any thread; the handler runs
// on the reading thread, one call per batch of events and once more whenever
// the timeout it asked for has passed. Ownership: shared; the reading thread
// holds a reference until it ends, and the descriptors close with the last one.
#pragma once

#include <QByteArray>
#include <QString>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace brix {

class InotifyReader : public std::enable_shared_from_this<InotifyReader> {
public:
    struct Event {
        int wd = -1;
        std::uint32_t mask = 0;
        std::uint32_t cookie = 0;
        QString name;
    };
    // Called with the events read (empty after a timeout); answers how many
    // milliseconds to wait at most for the next events (-1 = no limit).
    using Handler = std::function<int(const std::vector<Event> &events)>;

    // nullptr when the kernel refuses an instance; *error says why.
    static std::shared_ptr<InotifyReader> create(QString *error);
    ~InotifyReader();
    InotifyReader(const InotifyReader &) = delete;
    InotifyReader &operator=(const InotifyReader &) = delete;

    // The watch descriptor, or -1 with errno set.
    int add(const QString &path, std::uint32_t mask);
    void remove(int wd);

    // Starts the reading thread; `firstTimeout` as the handler's answers.
    void start(const std::string &threadName, Handler handler, int firstTimeout = -1);
    // Ends the reading; no handler call begins after this returns, though one
    // already running on the reading thread finishes.
    void stop();
    bool isStopped() const { return stopped_.load(); }

private:
    InotifyReader(int fd, int wake) : fd_(fd), wake_(wake) {}
    void loop(Handler handler, int timeout);

    int fd_;
    int wake_;
    std::atomic<bool> stopped_{false};
    std::mutex callMutex_;
    std::atomic<std::thread::id> readerThread_{};
};

} // namespace brix
