// The shot pipeline of the station, end to end, on the simulated camera:
// object event -> download -> save -> "brixXNotification" seen by a sibling on
// the session bus; against plain write + rename of the same bytes.
//
//   dbus-run-session -- build/default/bench/station_bench [shots] [megabytes] [MB/s,...] [rounds]
//                                                         [shots at each link rate]
//
// The simulated body draws one picture and stamps each shot with its number, so
// firing costs it nothing and it holds one file however many shots wait; its
// buffer is reported apart from the station's memory. With rates, the burst is
// also run with the body's link held to each (35 = USB 2, 300 = USB 3), and the
// time the link stands idle between shots is the station's own added time.
// Each phase runs in a child process of its own, so that its peak memory is its own.
#include "AppDelegate.h"
#include "DistributedNotificationCenter.h"
#include "EdsSdk.h"
#include "InterAppNotifications.h"
#include "Logger.h"
#include "MemoryPolicy.h"
#include "NotificationCenter.h"
#include "OKVA_CanonCamera.h"
#include "Preferences.h"
#include "SimulatorControl.h"
#include "ViewController.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QTimer>

#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <mutex>
#include <vector>

using namespace brix;
using Clock = std::chrono::steady_clock;

namespace {

// MB/s of the last phase, shared with its child: [0] until the last file is
// written (into the page cache), [1] until sync() has put it on the disk.
double *lastRate = nullptr;

double ms(Clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

long peakRssKiB() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return u.ru_maxrss;
}

long currentRssKiB() {
    long pages = 0, resident = 0;
    if (FILE *f = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2)
            resident = 0;
        std::fclose(f);
    }
    return resident * (::sysconf(_SC_PAGESIZE) / 1024);
}

double percentile(std::vector<double> v, double p) {
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, size_t(p * double(v.size())))];
}

// Notes the moment each object event leaves the camera boundary, then passes
// it on untouched.
class ProbeSdk final : public eds::EdsSdk {
public:
    explicit ProbeSdk(std::unique_ptr<eds::EdsSdk> inner) : in_(std::move(inner)) {}
    eds::EdsSdk &inner() { return *in_; }

    std::mutex m;
    std::vector<Clock::time_point> objectEvents;
    std::vector<std::pair<Clock::time_point, Clock::time_point>> transfers; // EdsDownload start, end
    // Where the link's idle time goes: when each shot's download completed
    // (returned), and when the next one's item info was asked for.
    std::vector<Clock::time_point> completed, infoAsked;
    // Time each download spent in the station's progress callback, which
    // hands every report to the main thread and waits for it.
    std::vector<Clock::duration> progressTime;

    const char *backendName() const override { return in_->backendName(); }
    eds::EdsError EdsInitializeSDK() override { return in_->EdsInitializeSDK(); }
    eds::EdsError EdsTerminateSDK() override { return in_->EdsTerminateSDK(); }
    eds::EdsError EdsSetCameraAddedHandler(eds::EdsCameraAddedHandler h, void *c) override {
        return in_->EdsSetCameraAddedHandler(h, c);
    }
    eds::EdsError EdsGetCameraList(eds::EdsCameraListRef *o) override { return in_->EdsGetCameraList(o); }
    eds::EdsError EdsGetChildCount(eds::EdsBaseRef r, eds::EdsUInt32 *o) override {
        return in_->EdsGetChildCount(r, o);
    }
    eds::EdsError EdsGetChildAtIndex(eds::EdsBaseRef r, eds::EdsInt32 i, eds::EdsBaseRef *o) override {
        return in_->EdsGetChildAtIndex(r, i, o);
    }
    eds::EdsError EdsGetDeviceInfo(eds::EdsCameraRef c, eds::EdsDeviceInfo *o) override {
        return in_->EdsGetDeviceInfo(c, o);
    }
    eds::EdsUInt32 EdsRetain(eds::EdsBaseRef r) override { return in_->EdsRetain(r); }
    eds::EdsUInt32 EdsRelease(eds::EdsBaseRef r) override { return in_->EdsRelease(r); }
    eds::EdsError EdsOpenSession(eds::EdsCameraRef c) override { return in_->EdsOpenSession(c); }
    eds::EdsError EdsCloseSession(eds::EdsCameraRef c) override { return in_->EdsCloseSession(c); }
    eds::EdsError EdsSetCameraStateEventHandler(eds::EdsCameraRef c, eds::EdsStateEvent e,
                                                eds::EdsStateEventHandler h, void *x) override {
        return in_->EdsSetCameraStateEventHandler(c, e, h, x);
    }
    eds::EdsError EdsSetPropertyEventHandler(eds::EdsCameraRef c, eds::EdsPropertyEvent e,
                                             eds::EdsPropertyEventHandler h, void *x) override {
        return in_->EdsSetPropertyEventHandler(c, e, h, x);
    }
    eds::EdsError EdsSetObjectEventHandler(eds::EdsCameraRef c, eds::EdsObjectEvent e,
                                           eds::EdsObjectEventHandler h, void *x) override {
        handler_ = h;
        context_ = x;
        return in_->EdsSetObjectEventHandler(c, e, h ? &ProbeSdk::objectTrampoline : nullptr,
                                             h ? this : nullptr);
    }
    eds::EdsError EdsGetPropertySize(eds::EdsBaseRef r, eds::EdsPropertyID p, eds::EdsInt32 a,
                                     eds::EdsDataType *t, eds::EdsUInt32 *s) override {
        return in_->EdsGetPropertySize(r, p, a, t, s);
    }
    eds::EdsError EdsGetPropertyData(eds::EdsBaseRef r, eds::EdsPropertyID p, eds::EdsInt32 a,
                                     eds::EdsUInt32 s, void *d) override {
        return in_->EdsGetPropertyData(r, p, a, s, d);
    }
    eds::EdsError EdsSetPropertyData(eds::EdsBaseRef r, eds::EdsPropertyID p, eds::EdsInt32 a,
                                     eds::EdsUInt32 s, const void *d) override {
        return in_->EdsSetPropertyData(r, p, a, s, d);
    }
    eds::EdsError EdsGetPropertyDesc(eds::EdsBaseRef r, eds::EdsPropertyID p,
                                     eds::EdsPropertyDesc *d) override {
        return in_->EdsGetPropertyDesc(r, p, d);
    }
    eds::EdsError EdsSendCommand(eds::EdsCameraRef c, eds::EdsCameraCommand k, eds::EdsInt32 p) override {
        return in_->EdsSendCommand(c, k, p);
    }
    eds::EdsError EdsSendStatusCommand(eds::EdsCameraRef c, eds::EdsCameraStatusCommand k,
                                       eds::EdsInt32 p) override {
        return in_->EdsSendStatusCommand(c, k, p);
    }
    eds::EdsError EdsSetCapacity(eds::EdsCameraRef c, eds::EdsCapacity k) override {
        return in_->EdsSetCapacity(c, k);
    }
    eds::EdsError EdsGetDirectoryItemInfo(eds::EdsDirectoryItemRef i, eds::EdsDirectoryItemInfo *o) override {
        {
            std::lock_guard lk(m);
            infoAsked.push_back(Clock::now());
        }
        return in_->EdsGetDirectoryItemInfo(i, o);
    }
    eds::EdsError EdsCreateMemoryStreamFromPointer(void *b, eds::EdsUInt64 n, eds::EdsStreamRef *o) override {
        return in_->EdsCreateMemoryStreamFromPointer(b, n, o);
    }
    eds::EdsError EdsSetProgressCallback(eds::EdsBaseRef r, eds::EdsProgressCallback f,
                                         eds::EdsProgressOption o, void *c) override {
        progress_ = f;
        progressContext_ = c;
        return in_->EdsSetProgressCallback(r, f ? &ProbeSdk::progressTrampoline : nullptr, o,
                                           f ? this : nullptr);
    }
    eds::EdsError EdsDownload(eds::EdsDirectoryItemRef i, eds::EdsUInt64 n, eds::EdsStreamRef s) override {
        inProgress_ = Clock::duration::zero();
        const auto t0 = Clock::now();
        const eds::EdsError e = in_->EdsDownload(i, n, s);
        std::lock_guard lk(m);
        transfers.emplace_back(t0, Clock::now());
        progressTime.push_back(inProgress_);
        return e;
    }
    eds::EdsError EdsDownloadComplete(eds::EdsDirectoryItemRef i) override {
        const eds::EdsError e = in_->EdsDownloadComplete(i);
        std::lock_guard lk(m);
        completed.push_back(Clock::now());
        return e;
    }
    eds::EdsError EdsCreateEvfImageRef(eds::EdsStreamRef s, eds::EdsEvfImageRef *o) override {
        return in_->EdsCreateEvfImageRef(s, o);
    }
    eds::EdsError EdsDownloadEvfImage(eds::EdsCameraRef c, eds::EdsEvfImageRef i) override {
        return in_->EdsDownloadEvfImage(c, i);
    }

private:
    static eds::EdsError objectTrampoline(eds::EdsObjectEvent event, eds::EdsBaseRef ref, void *context) {
        auto *self = static_cast<ProbeSdk *>(context);
        if (event == eds::kEdsObjectEvent_DirItemRequestTransfer) {
            std::lock_guard lk(self->m);
            self->objectEvents.push_back(Clock::now());
        }
        return self->handler_(event, ref, self->context_);
    }

    static eds::EdsError progressTrampoline(eds::EdsUInt32 percent, void *context, eds::EdsBool *cancel) {
        auto *self = static_cast<ProbeSdk *>(context);
        const auto t0 = Clock::now();
        const eds::EdsError e = self->progress_(percent, self->progressContext_, cancel);
        self->inProgress_ += Clock::now() - t0; // on the downloading thread only
        return e;
    }

    std::unique_ptr<eds::EdsSdk> in_;
    eds::EdsObjectEventHandler handler_ = nullptr;
    void *context_ = nullptr;
    eds::EdsProgressCallback progress_ = nullptr;
    void *progressContext_ = nullptr;
    Clock::duration inProgress_{};
};

// Plain write + rename of the same bytes: the disk's limit for this work. With
// `preallocate`, each file is first given its room in one call, as the station
// does, which spares the file system reserving blocks page by page.
int baseline(int shots, qint64 bytes, bool preallocate) {
    QTemporaryDir dir(QDir::currentPath() + "/station-bench-XXXXXX");
    QByteArray data(bytes, '\x5a');
    ::sync(); // nothing an earlier phase wrote is flushed on this one's time
    std::vector<double> perShot;
    auto start = Clock::now();
    for (int i = 0; i < shots; ++i) {
        auto t0 = Clock::now();
        const QByteArray tmp = QFile::encodeName(dir.path() + QStringLiteral("/.tmp%1").arg(i));
        const QByteArray dst =
            QFile::encodeName(dir.path() + QStringLiteral("/%1.jpg").arg(i, 17, 10, QChar('0')));
        int fd = ::open(tmp.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (preallocate && ::fallocate(fd, 0, 0, off_t(bytes)) != 0)
            return 1;
        qint64 done = 0;
        while (done < bytes) {
            ssize_t n = ::write(fd, data.constData() + done, size_t(bytes - done));
            if (n <= 0)
                return 1;
            done += n;
        }
        ::close(fd);
        ::rename(tmp.constData(), dst.constData());
        perShot.push_back(ms(Clock::now() - t0));
    }
    const double total = ms(Clock::now() - start);
    ::sync();
    const double onDisk = ms(Clock::now() - start);
    lastRate[0] = double(shots) * double(bytes) / 1e6 / (total / 1000.0);
    lastRate[1] = double(shots) * double(bytes) / 1e6 / (onDisk / 1000.0);
    std::printf(
        "baseline %swrite+rename: %d x %.1f MB in %.0f ms = %.0f MB/s, on the disk after %.0f ms = %.0f "
        "MB/s; per shot median %.2f ms, p99 %.2f ms; peak RSS %.0f MB\n",
        preallocate ? "preallocated " : "", shots, double(bytes) / 1e6, total, lastRate[0], onDisk,
        lastRate[1], percentile(perShot, 0.5), percentile(perShot, 0.99), double(peakRssKiB()) / 1024.0);
    return 0;
}

int station(int argc, char **argv, int shots, qint64 bytes, bool sequential, double rateMBps = 0) {
    QCoreApplication app(argc, argv);
    QTemporaryDir home(QDir::currentPath() + "/station-bench-home-XXXXXX");
    qputenv("HOME", home.path().toUtf8());
    qputenv("XDG_CONFIG_HOME", (home.path() + "/.config").toUtf8());
    qputenv("XDG_STATE_HOME", (home.path() + "/.local/state").toUtf8());
    qputenv("BRIX_SIM_CAMERAS", "1");
    // The station logs into its file as it does in service.
    Logger::setLogFile(Logger::defaultLogFileWithinSubdirectory(QStringLiteral("Brix")));

    auto probe = std::make_shared<ProbeSdk>(eds::createSimulatorSdk());
    eds::SimulatorControl *sim = eds::simulatorControl(probe->inner());
    sim->setShotFormat("JPG", uint64_t(bytes));
    sim->setStampedShots(true);
    sim->setTransferRate(rateMBps * 1e6);

    AppDelegate delegate;
    delegate.awakeFromNib();
    ViewController vc;
    vc.createSavePhotosFolder();
    vc.setupNotifications();
    QObject::connect(
        &vc, &ViewController::photoSaved, &vc,
        [](const QString &path) {
            interapp::mySendBrixXNotification2(path);
            interapp::mySendPreviewerAppNotificationWithFilePath(path);
        },
        Qt::DirectConnection);

    std::mutex m;
    std::vector<Clock::time_point> photoData;
    NotificationCenter::defaultCenter().addObserver(kOKVA_CanonCameraPhotoDataAvailable, {},
                                                    [&](const Notification &) {
                                                        std::lock_guard lk(m);
                                                        photoData.push_back(Clock::now());
                                                    });
    QDBusConnection siblingBus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, "bench-sibling");
    DistributedNotificationCenter sibling(siblingBus);
    std::vector<Clock::time_point> announced;
    sibling.addObserver("brixXNotification", [&](const DistributedNotificationCenter::Message &msg) {
        if (msg.userInfo.contains("filePath"))
            announced.push_back(Clock::now());
    });

    OKVA_CanonCamera::initialize(probe);
    eds::SimulatorControl::ShotBuffer body; // the most the body held
    // The loop sleeps between events as the station's does; the tick wakes it
    // to look at the body's buffer, which takes the body's lock, so not more
    // often than that.
    QTimer tick;
    tick.start(5);
    auto until = [&](auto done, int seconds) {
        QElapsedTimer t;
        t.start();
        while (!done() && t.elapsed() < seconds * 1000) {
            QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
            const auto now = sim->shotBuffer();
            body.shots = std::max(body.shots, now.shots);
            body.bytes = std::max(body.bytes, now.bytes);
        }
        return done();
    };
    if (!until([&] { return delegate.currentCamera() && delegate.currentCamera()->isLoaded(); }, 20)) {
        std::fprintf(stderr, "camera did not load\n");
        return 1;
    }
    ::sync();
    const long rssBefore = currentRssKiB();
    auto start = Clock::now();
    for (int i = 0; i < shots; ++i) {
        sim->pressShutter();
        if (sequential && !until([&] { return int(announced.size()) > i; }, 60))
            break;
    }
    until([&] { return int(announced.size()) >= shots; }, 1200);
    const double total = ms(Clock::now() - start);
    ::sync();
    const double onDisk = ms(Clock::now() - start);
    lastRate[0] = double(shots) * double(bytes) / 1e6 / (total / 1000.0);
    lastRate[1] = double(shots) * double(bytes) / 1e6 / (onDisk / 1000.0);
    if (int(announced.size()) < shots || int(probe->objectEvents.size()) < shots) {
        std::fprintf(stderr, "only %zu of %d shots announced\n", announced.size(), shots);
        return 1;
    }
    std::vector<double> eventToAnnounce, dataToAnnounce, transfer, inProgress, idle, completing, handing,
        preparing, posting;
    const bool traced = int(probe->completed.size()) == shots && int(probe->infoAsked.size()) == shots;
    for (int i = 0; i < shots; ++i) {
        const size_t k = size_t(i);
        eventToAnnounce.push_back(ms(announced[k] - probe->objectEvents[k]));
        dataToAnnounce.push_back(ms(announced[k] - photoData[k]));
        transfer.push_back(ms(probe->transfers[k].second - probe->transfers[k].first));
        if (k < probe->progressTime.size())
            inProgress.push_back(ms(probe->progressTime[k]));
        // The link stands idle from the end of one transfer (or the shot's
        // arrival, if later) to the start of the next: time the station added.
        if (i > 0)
            idle.push_back(ms(probe->transfers[k].first -
                              std::max(probe->transfers[k - 1].second, probe->objectEvents[k])));
        if (i > 0 && traced && probe->objectEvents[k] <= probe->transfers[k - 1].second) {
            completing.push_back(ms(probe->completed[k - 1] - probe->transfers[k - 1].second));
            handing.push_back(ms(probe->infoAsked[k] - probe->completed[k - 1]));
            posting.push_back(ms(photoData[k - 1] - probe->completed[k - 1]));
            preparing.push_back(ms(probe->transfers[k].first - probe->infoAsked[k]));
        }
    }
    const double peakMB = double(peakRssKiB()) / 1024.0, beforeMB = double(rssBefore) / 1024.0;
    const double bodyMB = double(body.bytes) / (1024.0 * 1024.0);
    char title[64];
    std::snprintf(title, sizeof title, "%s%s", sequential ? "one shot at a time" : "burst",
                  rateMBps > 0 ? QStringLiteral(", link %1 MB/s").arg(rateMBps).toUtf8().constData() : "");
    std::fprintf(
        stdout,
        "station %s: %d x %.1f MB in %.0f ms = %.0f MB/s, on the disk after %.0f ms = %.0f MB/s\n"
        "  object event -> brixXNotification median %.2f ms, p99 %.2f ms; photo data -> brixXNotification "
        "(save + announce) median %.2f ms, p99 %.2f ms\n"
        "  transfer median %.2f ms; link idle between shots (station's added time) median %.3f ms, "
        "p99 %.3f ms, max %.3f ms (before shot %d)\n"
        "  peak RSS %.0f MB (%.0f MB before the shots); body's buffer at most %u shots waiting, %.0f MB "
        "held; "
        "station's share %.0f MB = %.2f shots\n",
        title, shots, double(bytes) / 1e6, total, lastRate[0], onDisk, lastRate[1],
        percentile(eventToAnnounce, 0.5), percentile(eventToAnnounce, 0.99), percentile(dataToAnnounce, 0.5),
        percentile(dataToAnnounce, 0.99), percentile(transfer, 0.5), percentile(idle, 0.5),
        percentile(idle, 0.99), idle.empty() ? 0.0 : *std::max_element(idle.begin(), idle.end()),
        idle.empty() ? 0 : int(std::max_element(idle.begin(), idle.end()) - idle.begin()) + 2, peakMB,
        beforeMB, body.shots, bodyMB, peakMB - beforeMB - bodyMB,
        (peakMB - beforeMB - bodyMB) * 1024.0 * 1024.0 / double(bytes));
    if (!completing.empty())
        std::printf("  idle link, median / p99 ms: completing the download %.3f / %.3f; handing the shot on "
                    "until the next is asked for %.3f / %.3f; preparing the next download %.3f / %.3f\n",
                    percentile(completing, 0.5), percentile(completing, 0.99), percentile(handing, 0.5),
                    percentile(handing, 0.99), percentile(preparing, 0.5), percentile(preparing, 0.99));
    std::printf(
        "  transfer p90 %.2f ms, p99 %.2f ms; of each transfer, in the progress reports (each handed to "
        "the main thread and waited for) median %.3f ms, p90 %.3f ms, p99 %.3f ms\n",
        percentile(transfer, 0.9), percentile(transfer, 0.99), percentile(inProgress, 0.5),
        percentile(inProgress, 0.9), percentile(inProgress, 0.99));
    if (!posting.empty())
        std::printf("  of the handing on, the station taking the shot: %.3f / %.3f\n",
                    percentile(posting, 0.5), percentile(posting, 0.99));
    ViewController::metadataQueue()->sync([] {});
    OKVA_CanonCamera::applicationWillTerminate(QStringLiteral("bench done"));
    return 0;
}

// A virtual machine that reports freed memory to its host gets it back only
// through a fault per page on next use: a phase that writes into page cache
// the phase before it freed runs at a third of the speed or at full speed,
// depending on how much of it was reported in between.
void warnOfPageReporting() {
    QFile order(QStringLiteral("/sys/module/page_reporting/parameters/page_reporting_order"));
    if (!order.open(QIODevice::ReadOnly))
        return;
    const int value = order.readAll().trimmed().toInt();
    if (value <= 10)
        std::printf(
            "free page reporting is on (order %d): the rates swing with the host; hold it off for the "
            "run with 11 in %s\n",
            value, qPrintable(order.fileName()));
}

template <class F> int inChild(F f) {
    lastRate[0] = lastRate[1] = 0;
    std::fflush(stdout);
    pid_t pid = ::fork();
    if (pid == 0) {
        int r = f();
        std::fflush(stdout);
        ::_exit(r);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

} // namespace

int main(int argc, char **argv) {
    keepShotBuffersInTheHeap(); // as the station does
    const int shots = argc > 1 ? std::atoi(argv[1]) : 100;
    const qint64 bytes = qint64((argc > 2 ? std::atof(argv[2]) : 25.0) * 1e6);
    // A p99 of the link's idle time needs a few hundred shots.
    const int linkShots = argc > 5 ? std::max(2, std::atoi(argv[5])) : shots;
    const int rounds = argc > 4 ? std::max(1, std::atoi(argv[4])) : 9;
    if (qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS")) {
        std::fprintf(stderr, "run under dbus-run-session\n");
        return 2;
    }
    // Each phase runs in a child; its rate comes back through this page.
    lastRate = static_cast<double *>(
        ::mmap(nullptr, 2 * sizeof(double), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    if (lastRate == MAP_FAILED)
        return 2;
    warnOfPageReporting();
    int rc = inChild([&] { return station(argc, argv, 30, bytes, true); });
    // The disk's rate moves with whatever else the machine writes, so the burst
    // is compared with a baseline run right beside it, many times over, and
    // the median of the ratios is the result. The rounds alternate which of
    // the two goes first, so that neither always meets the page cache the
    // other just left. A first pair, not counted, touches the memory both
    // write into: a virtual machine backs it on first use, at a third of the
    // speed.
    // [k][j]: k 0 into the page cache, 1 onto the disk; j 0 against plain
    // write+rename, 1 against write+rename that preallocates.
    std::vector<double> ratios[2][2];
    for (int round = 0; round <= rounds; ++round) {
        double rate[3][2] = {}; // plain, preallocated, burst
        auto phase = [&](int which) {
            rc |= inChild([&] {
                return which == 2 ? station(argc, argv, shots, bytes, false)
                                  : baseline(shots, bytes, which == 1);
            });
            rate[which][0] = lastRate[0], rate[which][1] = lastRate[1];
        };
        for (int i = 0; i < 3; ++i)
            phase(round % 2 == 0 ? i : 2 - i);
        if (round == 0) {
            std::printf("warm-up round, not counted\n");
            continue;
        }
        for (int k = 0; k < 2; ++k)
            for (int j = 0; j < 2; ++j)
                ratios[k][j].push_back(rate[j][k] > 0 ? rate[2][k] / rate[j][k] : 0);
        std::printf("round %d: burst / write+rename = %.3f into the page cache, %.3f onto the disk; burst / "
                    "preallocated write+rename = %.3f, %.3f\n",
                    round, ratios[0][0].back(), ratios[1][0].back(), ratios[0][1].back(),
                    ratios[1][1].back());
    }
    for (int j = 0; j < 2; ++j)
        for (int k = 0; k < 2; ++k) {
            const auto &r = ratios[k][j];
            std::printf("burst / %swrite+rename %s over %d rounds: median %.3f, quartiles %.3f - %.3f, min "
                        "%.3f, max %.3f\n",
                        j ? "preallocated " : "", k == 0 ? "into the page cache" : "onto the disk", rounds,
                        percentile(r, 0.5), percentile(r, 0.25), percentile(r, 0.75),
                        *std::min_element(r.begin(), r.end()), *std::max_element(r.begin(), r.end()));
        }
    for (const QByteArray &rate : QByteArray(argc > 3 ? argv[3] : "").split(','))
        if (rate.toDouble() > 0)
            rc |= inChild([&] { return station(argc, argv, linkShots, bytes, false, rate.toDouble()); });
    return rc;
}
