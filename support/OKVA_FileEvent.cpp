#include "OKVA_FileEvent.h"

#include "Describe.h"
#include "InotifyReader.h"
#include "Logger.h"

#include <QDir>
#include <QFileInfo>
#include <QHash>
#include <QSet>

#include <chrono>
#include <mutex>
#include <sys/inotify.h>

namespace brix {

namespace {

constexpr const char *kClassName = "OKVA_FileEvent";
constexpr const char *kPausedFormat = "%1->%2... will not dispatch eventCallBack... PAUSED....";
constexpr const char *kChangedFormat = "%1->%2... FOLDER CHANGED....FOLDER CHANGED....";
constexpr const char *kPauseFormat = "%1->%2... setting pause = %3...";
constexpr const char *kStartFailedFormat = "FAILED to start monitoring %1";
constexpr const char *kQueueLabelFormat = "%1.%2";

constexpr std::uint32_t kFolderMask = IN_CREATE | IN_DELETE | IN_MODIFY | IN_ATTRIB | IN_MOVED_FROM |
                                      IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_CLOSE_WRITE |
                                      IN_ONLYDIR;

using Clock = std::chrono::steady_clock;

QString trimmed(const QString &path) {
    QString p = QDir::cleanPath(path);
    return p.isEmpty() ? path : p;
}

// One started watch: the inotify watches over the observed paths and the
// coalescing of what they report. Apart from start(), everything here runs on
// the reading thread.
class Session {
public:
    using Deliver = std::function<void(const QStringList &, const QList<quint32> &)>;

    Session(std::shared_ptr<InotifyReader> reader, QStringList roots, bool fileLevel, double latency,
            Deliver deliver)
        : reader_(std::move(reader)), roots_(std::move(roots)), fileLevel_(fileLevel),
          latency_(std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(latency))),
          deliver_(std::move(deliver)) {}

    // Places the watches; false when not a single path could be watched.
    bool watchRoots() {
        for (const QString &root : roots_) {
            const QFileInfo info(root);
            if (info.isDir())
                addTree(root);
            // The parent tells when the root is removed, made again or replaced.
            const QString parent = info.absolutePath();
            if (parent != root) {
                const int wd = reader_->add(parent, kFolderMask);
                if (wd >= 0) {
                    Watch &w = watches_[wd];
                    w.path = parent;
                    w.roots.insert(info.fileName());
                }
            }
        }
        return !watches_.isEmpty();
    }

    int handle(const std::vector<InotifyReader::Event> &events) {
        const auto now = Clock::now();
        for (const auto &e : events)
            take(e);
        if (!pending_.isEmpty() && !deadline_) {
            if (!lastDelivery_ || now - *lastDelivery_ >= latency_)
                deliverNow(now);
            else
                deadline_ = *lastDelivery_ + latency_;
        }
        if (deadline_ && now >= *deadline_)
            deliverNow(now);
        if (!deadline_)
            return -1;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline_ - now).count();
        return int(std::max<long long>(left, 0));
    }

private:
    struct Watch {
        QString path;
        bool tree = false;   // inside a watched folder: every entry counts
        QSet<QString> roots; // names of observed paths in this folder
    };

    void addTree(const QString &dir) {
        const int wd = reader_->add(dir, kFolderMask);
        if (wd < 0) {
            Logger::setError(QStringLiteral("OKVA_FileEvent cannot watch %1: %2")
                                 .arg(dir, QString::fromLocal8Bit(std::strerror(errno))));
            return;
        }
        Watch &w = watches_[wd];
        w.path = dir;
        w.tree = true;
        const QFileInfoList subs =
            QDir(dir).entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden | QDir::NoSymLinks);
        for (const QFileInfo &sub : subs)
            addTree(sub.filePath());
    }

    // Entries already inside a folder that appeared before its watch did.
    void noteContents(const QString &dir) {
        const QFileInfoList all =
            QDir(dir).entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
        for (const QFileInfo &item : all) {
            note(item.filePath(),
                 file_event_flags::kItemCreated |
                     (item.isDir() ? file_event_flags::kItemIsDir : file_event_flags::kItemIsFile));
            if (item.isDir() && !item.isSymLink())
                noteContents(item.filePath());
        }
    }

    // Folder-level: the folder and the folders inside it may hold entries
    // that no event told of.
    void noteFolders(const QString &dir) {
        note(dir, 0);
        const QFileInfoList subs =
            QDir(dir).entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden | QDir::NoSymLinks);
        for (const QFileInfo &sub : subs)
            noteFolders(sub.filePath());
    }

    void removeTree(const QString &dir) {
        const QString prefix = dir + '/';
        for (auto it = watches_.begin(); it != watches_.end();) {
            if (it->tree && (it->path == dir || it->path.startsWith(prefix))) {
                reader_->remove(it.key());
                it = watches_.erase(it);
            } else {
                ++it;
            }
        }
    }

    static quint32 itemFlags(std::uint32_t mask) {
        using namespace file_event_flags;
        quint32 f = (mask & IN_ISDIR) ? kItemIsDir : kItemIsFile;
        if (mask & IN_CREATE)
            f |= kItemCreated;
        if (mask & (IN_DELETE | IN_DELETE_SELF))
            f |= kItemRemoved;
        if (mask & (IN_MODIFY | IN_CLOSE_WRITE))
            f |= kItemModified;
        if (mask & IN_ATTRIB)
            f |= kItemInodeMetaMod;
        if (mask & (IN_MOVED_FROM | IN_MOVED_TO | IN_MOVE_SELF))
            f |= kItemRenamed;
        return f;
    }

    void take(const InotifyReader::Event &e) {
        using namespace file_event_flags;
        if (e.mask & IN_Q_OVERFLOW) {
            // Events were lost: every observed path must be looked at again.
            for (const QString &root : roots_)
                note(root, kMustScanSubDirs | kKernelDropped);
            return;
        }
        auto it = watches_.find(e.wd);
        if (it == watches_.end())
            return;
        if (e.mask & IN_IGNORED) {
            watches_.erase(it);
            return;
        }
        const Watch w = *it;
        if (e.name.isEmpty()) {
            // The watched folder itself went away or moved (its parent's event
            // reports it too); its descendants are gone with it.
            if ((e.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT)) && w.tree) {
                if (roots_.contains(w.path))
                    note(w.path, kRootChanged);
                removeTree(w.path);
            }
            return;
        }
        const QString full = w.path + '/' + e.name;
        const bool isRoot = w.roots.contains(e.name);
        const bool dirArrived = (e.mask & IN_ISDIR) && (e.mask & (IN_CREATE | IN_MOVED_TO));
        if (dirArrived && (w.tree || isRoot)) {
            addTree(full);
            // What was made in it before its watch was placed has no events of
            // its own: a file written into a folder the moment it was made.
            if (fileLevel_)
                noteContents(full);
            else
                noteFolders(full);
        }
        if ((e.mask & IN_ISDIR) && (e.mask & IN_MOVED_FROM) && (w.tree || isRoot))
            removeTree(full);
        if (isRoot) {
            const bool gone = e.mask & (IN_DELETE | IN_MOVED_FROM);
            const bool came = e.mask & (IN_CREATE | IN_MOVED_TO);
            quint32 f = fileLevel_ ? itemFlags(e.mask) : 0;
            if (gone || came)
                f |= kRootChanged;
            note(full, f);
        } else if (w.tree) {
            if (fileLevel_)
                note(full, itemFlags(e.mask));
            else
                note(w.path, 0);
        }
    }

    void note(const QString &path, quint32 flags) {
        auto it = pendingFlags_.find(path);
        if (it == pendingFlags_.end()) {
            pending_ << path;
            pendingFlags_.insert(path, flags);
        } else {
            *it |= flags;
        }
    }

    void deliverNow(Clock::time_point now) {
        deadline_.reset();
        if (pending_.isEmpty())
            return;
        lastDelivery_ = now;
        QList<quint32> flags;
        flags.reserve(pending_.size());
        for (const QString &p : std::as_const(pending_))
            flags << pendingFlags_.value(p);
        deliver_(pending_, flags);
        pending_.clear();
        pendingFlags_.clear();
    }

    std::shared_ptr<InotifyReader> reader_;
    QStringList roots_;
    bool fileLevel_;
    Clock::duration latency_;
    Deliver deliver_;
    QHash<int, Watch> watches_;
    QStringList pending_;
    QHash<QString, quint32> pendingFlags_;
    std::optional<Clock::time_point> lastDelivery_;
    std::optional<Clock::time_point> deadline_;
};

} // namespace

struct OKVA_FileEvent::Core : std::enable_shared_from_this<Core> {
    QStringList paths;
    double latency = kDefaultLatency;
    quint32 createFlags = kFileEventCreateFlagPathObjects | kFileEventCreateFlagNoDefer;
    std::atomic<bool> running{false};
    std::atomic<bool> paused{false};

    mutable std::mutex mutex;
    EventBlock block;
    dispatch::QueuePtr queue;
    // The stream: started or not, and the queue it delivers on.
    std::shared_ptr<InotifyReader> reader;
    dispatch::QueuePtr streamQueue;

    void handle(const QStringList &changed, const EventFlags &flags) {
        if (paused.load()) {
            Logger::setError(QString::fromLatin1(kPausedFormat).arg(kClassName, "handleFileEventpaths"));
            return;
        }
        EventBlock copy;
        dispatch::QueuePtr q;
        {
            std::lock_guard lock(mutex);
            copy = block;
            q = queue;
        }
        if (!copy || !q)
            return;
        Logger::setError(QString::fromLatin1(kChangedFormat).arg(kClassName, "handleFileEventpaths"));
        q->async([copy = std::move(copy), changed, flags] { copy(changed, flags); });
    }

    bool startStream() {
        std::lock_guard lock(mutex);
        if (reader)
            return true;
        if (!streamQueue)
            return false;
        QString error;
        auto r = InotifyReader::create(&error);
        if (!r) {
            Logger::setError(QStringLiteral("OKVA_FileEvent: no inotify instance: %1").arg(error));
            return false;
        }
        std::weak_ptr<Core> weak = weak_from_this();
        dispatch::QueuePtr q = streamQueue;
        std::weak_ptr<InotifyReader> weakReader = r;
        auto deliver = [weak, q, weakReader](const QStringList &changed, const QList<quint32> &flags) {
            q->async([weak, weakReader, changed, flags] {
                auto core = weak.lock();
                auto reader = weakReader.lock();
                // A delivery made before the stream stopped is dropped.
                if (core && reader && !reader->isStopped())
                    core->handle(changed, flags);
            });
        };
        auto session = std::make_shared<Session>(r, paths, createFlags & kFileEventCreateFlagFileEvents,
                                                 latency, std::move(deliver));
        if (!session->watchRoots())
            return false;
        r->start("FileEvent-Reading", [session](const std::vector<InotifyReader::Event> &events) {
            return session->handle(events);
        });
        reader = std::move(r);
        return true;
    }

    void stopStream() {
        std::shared_ptr<InotifyReader> r;
        {
            std::lock_guard lock(mutex);
            r = std::move(reader);
        }
        if (r)
            r->stop();
    }

    void setStreamQueue(dispatch::QueuePtr q) {
        std::lock_guard lock(mutex);
        streamQueue = std::move(q);
    }

    QString defaultLabel() const {
        return QString::fromLatin1(kQueueLabelFormat)
            .arg(kClassName, paths.isEmpty() ? QString() : paths.first());
    }

    dispatch::QueuePtr currentQueue() const {
        std::lock_guard lock(mutex);
        return queue;
    }
};

OKVA_FileEvent::OKVA_FileEvent(const QString &observedPath) : OKVA_FileEvent(QStringList{observedPath}) {}

OKVA_FileEvent::OKVA_FileEvent(const QStringList &observedPaths, double latency)
    : core_(std::make_shared<Core>()) {
    core_->latency = latency;
    for (const QString &p : observedPaths)
        core_->paths << trimmed(p);
    // A single watched file gets per-item events; folders get folder events.
    for (const QString &p : std::as_const(core_->paths)) {
        const QFileInfo info(p);
        if (info.exists() && !info.isDir()) {
            core_->createFlags |= kFileEventCreateFlagFileEvents;
            break;
        }
    }
}

OKVA_FileEvent::~OKVA_FileEvent() {
    core_->stopStream();
}

void OKVA_FileEvent::setEventBlock(EventBlock block) {
    std::lock_guard lock(core_->mutex);
    core_->block = std::move(block);
}

OKVA_FileEvent::EventBlock OKVA_FileEvent::eventBlock() const {
    std::lock_guard lock(core_->mutex);
    return core_->block;
}

void OKVA_FileEvent::setRun(bool run) {
    eventQueue()->async([weak = std::weak_ptr<Core>(core_), run] {
        auto core = weak.lock();
        if (!core)
            return;
        if (!run) {
            if (core->running.load())
                core->stopStream();
        } else if (core->startStream()) {
            core->handle(core->paths, std::nullopt);
        } else {
            Logger::setError(QString::fromLatin1(kStartFailedFormat).arg(describe(QVariant(core->paths))));
        }
        core->running.store(run);
    });
}

bool OKVA_FileEvent::isRunning() const {
    return core_->running.load();
}

void OKVA_FileEvent::setPaused(bool paused) {
    eventQueue()->async([weak = std::weak_ptr<Core>(core_), paused] {
        auto core = weak.lock();
        if (!core)
            return;
        Logger::setError(
            QString::fromLatin1(kPauseFormat)
                .arg(kClassName, "setPaused", paused ? QStringLiteral("TRUE") : QStringLiteral("FALSE")));
        core->paused.store(paused);
    });
}

bool OKVA_FileEvent::isPaused() const {
    return core_->paused.load();
}

void OKVA_FileEvent::setEventQueue(dispatch::QueuePtr queue) {
    std::shared_ptr<Core> core = core_;
    const dispatch::QueuePtr old = core->currentQueue();
    auto switchTo = [weak = std::weak_ptr<Core>(core)](dispatch::QueuePtr q) {
        auto c = weak.lock();
        if (!c)
            return;
        {
            std::lock_guard lock(c->mutex);
            c->queue = q;
        }
        c->setStreamQueue(q);
        if (c->running.load())
            c->startStream();
    };
    if (!queue) {
        const QString label = core->defaultLabel();
        if (old && QString::fromStdString(old->label()) == label)
            return;
        if (!old) {
            dispatch::QueuePtr q = dispatch::makeSerialQueue(label.toStdString());
            std::lock_guard lock(core->mutex);
            core->queue = q;
            core->streamQueue = q;
            return;
        }
        if (core->running.load())
            core->stopStream();
        old->async([switchTo, label] { switchTo(dispatch::makeSerialQueue(label.toStdString())); });
        return;
    }
    if (core->running.load())
        core->stopStream();
    if (old)
        old->async([switchTo, queue] { switchTo(queue); });
    else
        switchTo(queue);
}

dispatch::QueuePtr OKVA_FileEvent::eventQueue() {
    if (dispatch::QueuePtr q = core_->currentQueue())
        return q;
    setEventQueue(nullptr);
    return core_->currentQueue();
}

QStringList OKVA_FileEvent::observedPaths() const {
    return core_->paths;
}

double OKVA_FileEvent::latency() const {
    return core_->latency;
}

quint32 OKVA_FileEvent::createFlags() const {
    return core_->createFlags;
}

void OKVA_FileEvent::handleFileEventpaths(const QStringList &paths, const EventFlags &flags) {
    core_->handle(paths, flags);
}

} // namespace brix
