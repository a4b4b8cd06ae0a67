// brix_soak: the real station, headless on the simulated body and under its
// watchdog, driven only from outside (the simulator's bus control and the
// siblings' notifications) through a random mix of bursts, unplugs mid-download,
// injected SDK and command errors, busy storms, live view, a save folder on a
// small file system that fills up and frees up, and SIGKILLs of the station.
// At the end it prints one table and fails on any crash other than its own
// kills, any duplicate, and any shot lost without a logged reason.
//
//   brix_soak [--no-kill] [--shots N] [--seed S] [--disk-wait SECONDS]
//   brix_soak --short        # what the test command runs: 200 shots, seed 19
//
// The save folder is a tmpfs in a private mount namespace: the program runs
// itself again under `unshare -rm` and skips (exit 77) where that is refused.
#include "DistributedNotificationCenter.h"
#include "TestSupport.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusInterface>
#include <QDBusReply>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QProcess>
#include <QRegularExpression>
#include <QSet>
#include <QStorageInfo>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <vector>

#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace brix;
using namespace std::chrono_literals;
using Message = DistributedNotificationCenter::Message;

namespace {

constexpr int kSkip = 77;
const QString kStationBus = QStringLiteral("com.lumetra.BrixCanonCapture");
const QString kSimBus = QStringLiteral("com.lumetra.BrixCanonCapture.Simulator");
constexpr uint kShotBytes = 200000;
// The watchdog gives up after four launches within 30 s: kills stay further apart.
constexpr qint64 kKillSpacingMs = 9000;

struct Options {
    int shots = 2000;
    unsigned seed = 0;
    double diskWait = 15;
    bool shortRun = false;
    bool kills = true;
    int tmpfsMiB = 8;
};

enum class Fault { Burst, Unplug, DownloadErrors, CommandErrors, BusyStorm, LiveView, DiskFull, Kill };
const char *faultName(Fault f) {
    static const char *names[] = {"burst",      "unplug mid-download", "download errors", "command errors",
                                  "busy storm", "live view on/off",    "disk full",       "SIGKILL"};
    return names[int(f)];
}

struct Code {
    uint value;
    const char *name;
};
const Code kDownloadCodes[] = {{0x81, "DEVICE_BUSY"},         {0x02, "INTERNAL_ERROR"},
                               {0xA8, "STREAM_WRITE_ERROR"},  {0xC1, "COMM_DISCONNECTED"},
                               {0x05, "OPERATION_CANCELLED"}, {0xAC, "STREAM_END_OF_STREAM"}};
const char *kDownloadOps[] = {"EdsDownload", "EdsDownloadComplete", "EdsGetDirectoryItemInfo",
                              "EdsCreateMemoryStreamFromPointer", "EdsSetProgressCallback"};
const Code kCommandCodes[] = {
    {0x81, "DEVICE_BUSY"}, {0x8D01, "TAKE_PICTURE_AF_NG"}, {0x02, "INTERNAL_ERROR"}};
const char *kCommandOps[] = {"EdsSendCommand", "TakePicture", "PressShutterButton"};

// One shot the body took: which station process (epoch) and its file number there.
struct Shot {
    int epoch;
    unsigned number;
    qint64 firedMs;
    bool unplugAfter = false; // the body was unplugged after it was taken
};

// New lines of the station's log, across its rotation.
class LogTail {
public:
    explicit LogTail(QString path) : path_(std::move(path)) {}
    QStringList read() {
        QStringList lines;
        struct stat st {};
        if (::stat(QFile::encodeName(path_).constData(), &st) == 0 && st.st_ino != inode_) {
            if (file_.isOpen())
                take(lines); // the rest of the generation that was rotated away
            file_.close();
            file_.setFileName(path_);
            if (file_.open(QIODevice::ReadOnly))
                inode_ = st.st_ino;
            partial_.clear();
        }
        if (file_.isOpen())
            take(lines);
        return lines;
    }

private:
    void take(QStringList &lines) {
        partial_ += file_.readAll();
        qsizetype nl;
        while ((nl = partial_.indexOf('\n')) >= 0) {
            lines << QString::fromUtf8(partial_.left(nl));
            partial_.remove(0, nl + 1);
        }
    }
    QString path_;
    QFile file_;
    ino_t inode_ = 0;
    QByteArray partial_;
};

class Soak {
public:
    Soak(const Options &o, QString home) : o_(o), home_(std::move(home)), rng_(o.seed), log_(logPath()) {}

    int run();

private:
    QString logPath() const { return home_ + "/.local/state/Logs/Brix/BrixCanonCapture.log"; }
    QString folder() const { return home_ + "/Users/Shared/CanonFolder"; }
    int pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }
    QDBusInterface sim() {
        return QDBusInterface(kSimBus, "/com/lumetra/brix/Simulator", "com.lumetra.brix.Simulator");
    }
    pid_t owner() const {
        QDBusReply<uint> pid = QDBusConnection::sessionBus().interface()->servicePid(kStationBus);
        return pid.isValid() ? pid_t(pid.value()) : 0;
    }

    // Turns the event loop for `ms`, taking announcements, log lines and memory.
    // It sleeps between events (the tick wakes it at least every 5 ms), so the
    // soak's own spinning does not take the cores the station runs on.
    void pump(qint64 ms) {
        if (!tick_.isActive())
            tick_.start(5);
        QElapsedTimer t;
        t.start();
        do {
            QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
            sample();
        } while (t.elapsed() < ms);
    }
    bool pumpUntil(const std::function<bool()> &done, qint64 ms) {
        QElapsedTimer t;
        t.start();
        while (!done()) {
            if (t.elapsed() > ms)
                return false;
            pump(5);
        }
        return true;
    }
    void sample() {
        if (sampleClock_.isValid() && sampleClock_.elapsed() < 100)
            return;
        sampleClock_.start();
        for (const QString &line : log_.read())
            takeLine(line);
        if (station_ > 0) {
            QFile status(QStringLiteral("/proc/%1/status").arg(station_));
            if (status.open(QIODevice::ReadOnly))
                for (const QByteArray &l : status.readAll().split('\n'))
                    if (l.startsWith("VmRSS:")) {
                        const qint64 kb = l.mid(6).trimmed().split(' ').value(0).toLongLong();
                        if (kb > peakRssKb_)
                            peakAtMs_ = clock_.elapsed();
                        peakRssKb_ = std::max(peakRssKb_, kb);
                        // Per station, once warm: its memory against its shots.
                        if (counted_ >= 20)
                            rss_[epoch_].push_back({double(counted_), double(kb)});
                    }
        }
    }

    void takeLine(const QString &line);
    void announced(const Message &m);
    bool waitForStation(pid_t previous);
    void fire(int count, int gapMs);
    void settle(unsigned outstanding);
    void syncShotCount();
    void grab(int count);
    void fault(Fault f);
    void kill();
    void finish();
    int report();
    bool lostToAFreedDisk(const std::pair<int, QString> &key) const;
    QString key(int epoch, const QString &name);

    const Options o_;
    const QString home_;
    std::mt19937 rng_;
    LogTail log_;
    QElapsedTimer clock_, sampleClock_, sinceKill_;
    QTimer tick_;
    std::unique_ptr<QDBusConnection> connection_;
    std::unique_ptr<DistributedNotificationCenter> center_;
    QProcess first_;
    pid_t station_ = 0, firstPid_ = 0;
    int epoch_ = 0;        // station processes the harness has driven
    int logEpoch_ = 0;     // station processes the log has shown starting
    unsigned counted_ = 0; // shots of this epoch the harness knows of
    qint64 grabAt_ = 0;
    int cameraUps_ = 0;
    std::vector<Shot> shots_;
    std::map<int, unsigned> firedPerEpoch_;
    QSet<int> killedEpochs_;
    QSet<pid_t> killedPids_;
    std::map<Fault, int> faults_;
    // From the log, per epoch and camera file name.
    std::map<std::pair<int, QString>, QString> savedAs_;
    std::map<std::pair<int, QString>, QString> lostWhy_;
    std::map<std::pair<int, QString>, qint64> lostAt_;
    // From filling the disk to freeing it, where the freeing came after the
    // station's wait: the only times a shot may be lost to a full disk.
    std::vector<std::pair<qint64, qint64>> outlastedWaits_;
    std::set<std::pair<int, QString>> offered_;
    std::map<int, int> unnamedLost_;
    // Per epoch: the round of the body's file numbers the log is in, and the
    // highest number seen in that round.
    std::map<int, std::pair<int, unsigned>> rounds_;
    std::map<int, unsigned> resolved_; // shots saved or given up, per epoch
    int caughtUp_ = 0, partialRemoved_ = 0;
    int relaunches_ = 0, unexpectedEnds_ = 0, waitedForSpace_ = 0;
    // From the wire.
    QMap<QString, qint64> announcedAt_;
    int announcements_ = 0, duplicateAnnouncements_ = 0, duplicateFiles_ = 0, missingFiles_ = 0;
    QSet<QByteArray> hashes_;
    qint64 peakAtMs_ = 0;
    std::map<int, std::vector<std::pair<double, double>>> rss_; // (shots so far, RSS in KB)
    qint64 peakRssKb_ = 0;
    QString filler_;
};

void Soak::takeLine(const QString &line) {
    static const QRegularExpression starting(QStringLiteral("BrixCanonCapture \\S+ starting \\("));
    static const QRegularExpression saving(
        QStringLiteral("saving camera image  \"([^\"]*)\" to \"([^\"]*)\""));
    static const QRegularExpression lost(QStringLiteral("shot \"([^\"]*)\" not saved: (.*)$"));
    static const QRegularExpression offered(
        QStringLiteral("starting download of \\d+ byte file named \"([^\"]*)\""));
    static const QRegularExpression ended(
        QStringLiteral("pid (\\d+) ended without a normal quit; relaunched"));
    QRegularExpressionMatch m;
    if (starting.match(line).hasMatch()) {
        ++logEpoch_;
    } else if ((m = saving.match(line)).hasMatch()) {
        savedAs_[{logEpoch_, key(logEpoch_, m.captured(1))}] = m.captured(2);
        ++resolved_[logEpoch_];
    } else if ((m = offered.match(line)).hasMatch()) {
        offered_.insert({logEpoch_, key(logEpoch_, m.captured(1))});
    } else if ((m = lost.match(line)).hasMatch()) {
        ++resolved_[logEpoch_];
        if (m.captured(1) == QLatin1String("(unnamed)"))
            ++unnamedLost_[logEpoch_];
        else {
            const QString name = key(logEpoch_, m.captured(1));
            lostWhy_[{logEpoch_, name}] = m.captured(2);
            lostAt_[{logEpoch_, name}] = clock_.elapsed();
        }
    } else if ((m = ended.match(line)).hasMatch()) {
        ++relaunches_;
        if (!killedPids_.contains(pid_t(m.captured(1).toInt())))
            ++unexpectedEnds_;
    } else if (line.contains(QLatin1String("saved before the last run ended"))) {
        ++caughtUp_;
    } else if (line.contains(QLatin1String("removed the partly written shot"))) {
        ++partialRemoved_;
    } else if (line.contains(QLatin1String("waiting up to"))) {
        ++waitedForSpace_;
    }
}

void Soak::announced(const Message &m) {
    if (m.userInfo.contains(QStringLiteral("cameraStatus"))) {
        cameraUps_ += m.userInfo.value(QStringLiteral("cameraStatus")).toUInt() == 1 ? 1 : 0;
        return;
    }
    const QString path = m.userInfo.value(QStringLiteral("filePath")).toString();
    if (path.isEmpty())
        return;
    ++announcements_;
    if (announcedAt_.contains(path)) {
        ++duplicateAnnouncements_;
        std::printf("DUPLICATE announcement of %s\n", qPrintable(path));
        return;
    }
    announcedAt_.insert(path, clock_.elapsed());
    // A sibling takes each announced shot away, which is also what frees the disk.
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly)) {
        ++missingFiles_;
        std::printf("announced file missing: %s\n", qPrintable(path));
        return;
    }
    const QByteArray hash = QCryptographicHash::hash(f.readAll(), QCryptographicHash::Sha1);
    f.close();
    if (hashes_.contains(hash)) {
        ++duplicateFiles_;
        std::printf("DUPLICATE file content: %s\n", qPrintable(path));
    }
    hashes_.insert(hash);
    QFile::remove(path);
}

// The station that owns the bus name now, once it is not `previous`, with its
// simulated body connected and the shot size set.
bool Soak::waitForStation(pid_t previous) {
    const int ups = cameraUps_;
    const bool up = pumpUntil(
        [&] {
            const pid_t p = owner();
            return p > 0 && p != previous && cameraUps_ > ups &&
                   QDBusConnection::sessionBus().interface()->isServiceRegistered(kSimBus);
        },
        90000);
    if (!up)
        return false;
    station_ = owner();
    ++epoch_;
    counted_ = 0;
    return sim().call("SetShotFormat", QString("JPG"), kShotBytes).errorName().isEmpty();
}

// Shots the body took that the harness has not seen yet (taken by a grab).
void Soak::syncShotCount() {
    QDBusReply<uint> n = sim().call("ShotCount");
    if (!n.isValid())
        return;
    for (; counted_ < n.value(); ++counted_)
        shots_.push_back({epoch_, counted_ + 1, grabAt_ ? grabAt_ : clock_.elapsed()});
    firedPerEpoch_[epoch_] = counted_;
}

void Soak::fire(int count, int gapMs) {
    for (int i = 0; i < count; ++i) {
        syncShotCount();
        const qint64 t = clock_.elapsed();
        if (sim().call("PressShutter").errorName().isEmpty()) {
            ++counted_;
            shots_.push_back({epoch_, counted_, t});
            firedPerEpoch_[epoch_] = counted_;
        }
        pump(gapMs);
    }
}

// A booth's pace: the next event waits while more than `outstanding` shots of
// this station are neither saved nor given up (or nothing moves for a while).
void Soak::settle(unsigned outstanding) {
    unsigned last = resolved_[epoch_];
    QElapsedTimer still;
    still.start();
    pumpUntil(
        [&] {
            if (resolved_[epoch_] != last) {
                last = resolved_[epoch_];
                still.start();
            }
            // Shots a body dropped at an unplug never resolve: a pause ends it too.
            return counted_ <= last + outstanding || still.elapsed() > 2000;
        },
        120000);
}

void Soak::grab(int count) {
    grabAt_ = clock_.elapsed();
    for (int i = 0; i < count; ++i)
        center_->post("BrixNikonAppNotification", "soak",
                      {{"action", "grabimage"}, {"senderApp", "SoakSibling"}});
    // A grab's shot shows in the body's count once the command went through.
    const unsigned before = counted_;
    pumpUntil(
        [&] {
            syncShotCount();
            return counted_ >= before + unsigned(count);
        },
        3000);
    grabAt_ = 0;
}

void Soak::kill() {
    syncShotCount();
    const pid_t victim = station_;
    killedPids_.insert(victim);
    killedEpochs_.insert(epoch_);
    ::kill(victim, SIGKILL);
    sinceKill_.start();
    if (!waitForStation(victim)) {
        std::printf("the station did not come back after SIGKILL of pid %d\n", int(victim));
        ::exit(1);
    }
}

void Soak::fault(Fault f) {
    ++faults_[f];
    auto inject = [&](const char *op, uint code, uint count) {
        sim().call("InjectError", QString(op), code, count);
    };
    switch (f) {
    case Fault::Burst:
        fire(pick(1, 20), pick(0, 1) ? 0 : pick(1, 30));
        break;
    case Fault::Unplug: {
        fire(pick(2, 8), 0);
        pump(pick(0, 60));
        for (Shot &s : shots_)
            if (s.epoch == epoch_)
                s.unplugAfter = true;
        sim().call("Unplug");
        pump(pick(50, 400));
        const int ups = cameraUps_;
        sim().call("Plug", QString());
        pumpUntil([&] { return cameraUps_ > ups; }, 30000);
        break;
    }
    case Fault::DownloadErrors: {
        // Fewer than the station's tries are recovered; more are a logged loss.
        const Code c = kDownloadCodes[pick(0, int(std::size(kDownloadCodes)) - 1)];
        inject(kDownloadOps[pick(0, int(std::size(kDownloadOps)) - 1)], c.value, uint(pick(1, 6)));
        fire(pick(2, 6), pick(0, 20));
        break;
    }
    case Fault::CommandErrors: {
        const Code c = kCommandCodes[pick(0, int(std::size(kCommandCodes)) - 1)];
        inject(kCommandOps[pick(0, int(std::size(kCommandOps)) - 1)], c.value, uint(pick(1, 3)));
        grab(pick(1, 3));
        break;
    }
    case Fault::BusyStorm:
        inject("EdsDownload", 0x81, uint(pick(3, 12)));
        inject("EdsSendCommand", 0x81, uint(pick(3, 10)));
        inject("EdsGetPropertyData", 0x81, uint(pick(3, 10)));
        grab(pick(1, 2));
        fire(pick(3, 10), 0);
        break;
    case Fault::LiveView:
        sim().call("SetProperty", 0x500u, 2u);
        fire(pick(2, 8), pick(5, 40));
        sim().call("SetProperty", 0x500u, 0u);
        break;
    case Fault::DiskFull: {
        // Fill all but less than a shot, fire, then free it either within the
        // station's wait or after it.
        const qint64 filledAt = clock_.elapsed();
        const qint64 room = QStorageInfo(folder()).bytesAvailable() - kShotBytes / 4;
        QFile filler(filler_);
        if (room > 0 && filler.open(QIODevice::WriteOnly)) {
            const QByteArray block(1 << 20, '\0');
            for (qint64 left = room; left > 0;)
                left -= std::max<qint64>(
                    filler.write(block.constData(), std::min<qint64>(left, block.size())), 1);
            filler.close();
        }
        fire(pick(1, 3), 0);
        const bool beyond = faults_[f] % 2 == 0; // every other one outlasts the wait
        pump(beyond ? qint64(o_.diskWait * 1000) + 1500 : pick(200, int(o_.diskWait * 500)));
        QFile::remove(filler_);
        if (beyond)
            outlastedWaits_.emplace_back(filledAt, clock_.elapsed());
        break;
    }
    case Fault::Kill:
        fire(pick(1, 8), 0);
        pump(pick(0, 400));
        kill();
        break;
    }
}

void Soak::finish() {
    // Quiet: every fired shot has had its chance to arrive.
    qint64 lastChange = clock_.elapsed();
    int seen = announcements_;
    size_t lost = lostWhy_.size();
    pumpUntil(
        [&] {
            if (announcements_ != seen || lostWhy_.size() != lost) {
                seen = announcements_;
                lost = lostWhy_.size();
                lastChange = clock_.elapsed();
            }
            return clock_.elapsed() - lastChange > 3000 + qint64(o_.diskWait * 1000);
        },
        120000);
    syncShotCount();
    ::kill(station_, SIGTERM);
    pumpUntil([&] { return owner() == 0; }, 60000);
    first_.waitForFinished(1000);
    pump(300);
}

// A shot given up for lack of space outside a fill that outlasted the
// station's wait (with the log's polling as slack) should have been saved.
bool Soak::lostToAFreedDisk(const std::pair<int, QString> &key) const {
    if (!lostWhy_.at(key).contains(QLatin1String("No space left")))
        return false;
    const qint64 at = lostAt_.at(key);
    return std::none_of(outlastedWaits_.begin(), outlastedWaits_.end(),
                        [&](const auto &w) { return at >= w.first && at <= w.second + 2000; });
}

// The body numbers its files IMG_0001 to IMG_9999 and then starts again, as a
// Canon body does, so a station that lives through more than 9,999 shots sees
// each name twice. The second round's names carry "#1", and so on; a line
// about a last shot of the round before, logged after the new round began,
// keeps its round.
QString Soak::key(int epoch, const QString &name) {
    static const QRegularExpression numbered(QStringLiteral("^IMG_(\\d+)\\."));
    const QRegularExpressionMatch m = numbered.match(name);
    if (!m.hasMatch())
        return name;
    const unsigned n = m.captured(1).toUInt();
    auto &[round, top] = rounds_[epoch];
    int of = round;
    if (n <= 1000 && top >= 9000) {
        of = ++round;
        top = n;
    } else if (round > 0 && n >= 9000 && top < 5000) {
        of = round - 1;
    } else {
        top = std::max(top, n);
    }
    return of == 0 ? name : name + QLatin1Char('#') + QString::number(of);
}

int Soak::report() {
    // Each fired shot: announced, lost with the station's reason, or lost to a
    // cause the harness made (a kill, an unplug before the body offered it).
    std::map<QString, int> reasons;
    std::vector<qint64> latencies;
    int saved = 0, unexplained = 0;
    for (const Shot &s : shots_) {
        const unsigned round = (s.number - 1) / 9999, number = (s.number - 1) % 9999 + 1;
        QString name = QStringLiteral("IMG_%1.JPG").arg(number, 4, 10, QLatin1Char('0'));
        if (round > 0)
            name += QLatin1Char('#') + QString::number(round);
        const auto key = std::make_pair(s.epoch, name);
        const auto path = savedAs_.find(key);
        if (path != savedAs_.end() && announcedAt_.contains(path->second)) {
            ++saved;
            latencies.push_back(announcedAt_.value(path->second) - s.firedMs);
        } else if (lostWhy_.count(key) && lostToAFreedDisk(key)) {
            ++unexplained;
            std::printf("LOST THOUGH THE DISK WAS FREED IN TIME: epoch %d %s: %s\n", s.epoch,
                        qPrintable(name), qPrintable(lostWhy_.at(key)));
        } else if (lostWhy_.count(key)) {
            QString why = lostWhy_.at(key);
            why.replace(QRegularExpression(QStringLiteral("writing /\\S+")),
                        QStringLiteral("writing <path>"));
            ++reasons[QStringLiteral("station: ") + why];
        } else if (unnamedLost_[s.epoch] > 0) {
            --unnamedLost_[s.epoch];
            ++reasons[QStringLiteral("station: unnamed shot (its size could not be read)")];
        } else if (killedEpochs_.contains(s.epoch)) {
            ++reasons[QStringLiteral("in flight when the station was killed")];
        } else if (s.unplugAfter && !offered_.count(key)) {
            ++reasons[QStringLiteral("dropped by the body at an unplug, never offered")];
        } else {
            ++unexplained;
            std::printf("UNEXPLAINED: epoch %d %s\n", s.epoch, qPrintable(name));
        }
    }
    // Announced files whose log lines died with a killed station still count.
    const int savedFiles = int(announcedAt_.size());
    const QStringList left = QDir(folder()).entryList(QDir::Files | QDir::Hidden);
    int unannounced = 0, partial = 0;
    for (const QString &f : left) {
        if (f == QFileInfo(filler_).fileName())
            continue;
        if (f.count('.') > 1)
            ++partial;
        else
            ++unannounced;
        std::printf("left in the save folder: %s\n", qPrintable(f));
    }
    QFile out(home_ + "/station.out");
    int sanitizer = 0;
    if (out.open(QIODevice::ReadOnly)) {
        const QByteArray text = out.readAll();
        for (const char *s : {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error:"})
            sanitizer += int(text.count(s));
    }
    const int crashes =
        unexpectedEnds_ + sanitizer +
        (first_.exitStatus() == QProcess::CrashExit && !killedPids_.contains(firstPid_) ? 1 : 0);
    std::sort(latencies.begin(), latencies.end());
    auto pct = [&](double p) {
        return latencies.empty()
                   ? 0
                   : latencies[std::min(latencies.size() - 1, size_t(p * double(latencies.size())))];
    };
    int fired = 0;
    for (const auto &[e, n] : firedPerEpoch_)
        fired += int(n);
    const int duplicates = duplicateAnnouncements_ + duplicateFiles_;

    std::printf("\nsoak: seed %u, %d station processes, %.0f s, disk-full wait %.1f s\n", o_.seed, epoch_,
                double(clock_.elapsed()) / 1000.0, o_.diskWait);
    std::printf("faults:");
    for (const auto &[f, n] : faults_)
        std::printf(" %s %d,", faultName(f), n);
    std::printf(" waits for space %d\n", waitedForSpace_);
    std::printf("| %-46s | %10s |\n|%s|%s|\n", "measure", "value", QByteArray(48, '-').constData(),
                QByteArray(12, '-').constData());
    auto row = [](const QString &k, const QString &v) {
        std::printf("| %-46s | %10s |\n", qPrintable(k), qPrintable(v));
    };
    row("shots fired by the body", QString::number(fired));
    row("files saved", QString::number(savedFiles));
    row("announcements", QString::number(announcements_));
    row("shots saved and announced", QString::number(saved));
    row("duplicates (files or announcements)", QString::number(duplicates));
    for (const auto &[why, n] : reasons)
        row("lost: " + why.left(40), QString::number(n));
    row("lost without a reason", QString::number(unexplained));
    row("saved but never announced", QString::number(unannounced));
    row("partly written files left", QString::number(partial));
    row("announced files missing", QString::number(missingFiles_));
    row("crashes (besides the kills)", QString::number(crashes));
    row("SIGKILLs / relaunches", QStringLiteral("%1 / %2").arg(killedPids_.size()).arg(relaunches_));
    row("peak station memory (RSS, MB)",
        QStringLiteral("%1 at %2 s").arg(double(peakRssKb_) / 1024.0, 0, 'f', 1).arg(peakAtMs_ / 1000));
    // Memory growth per shot in the station that took the most shots once
    // warm: the least-squares slope of its RSS against its shots, so that
    // neither a burst at the last sample nor one at the first decides it.
    double growth = 0;
    unsigned most = 0;
    for (const auto &[e, samples] : rss_) {
        const unsigned shots = unsigned(samples.back().first - samples.front().first);
        if (shots <= most)
            continue;
        most = shots;
        double sx = 0, sy = 0, sxx = 0, sxy = 0;
        for (const auto &[x, y] : samples)
            sx += x, sy += y, sxx += x * x, sxy += x * y;
        const double n = double(samples.size());
        growth = (n * sxy - sx * sy) / (n * sxx - sx * sx);
    }
    row("RSS growth per shot, longest station run (KB)",
        QStringLiteral("%1 (%2)").arg(growth, 0, 'f', 1).arg(most));
    row("announced late, after a relaunch", QString::number(caughtUp_));
    row("partly written files removed at start", QString::number(partialRemoved_));
    row("shot to announcement, median (ms)", QString::number(pct(0.5)));
    row("shot to announcement, p99 (ms)", QString::number(pct(0.99)));
    row("shot to announcement, max (ms)", QString::number(latencies.empty() ? 0 : latencies.back()));
    for (const auto &[why, n] : reasons)
        if (why.size() > 40)
            std::printf("  lost: %s: %d\n", qPrintable(why), n);
    // A station that grows by a kilobyte a shot has grown by ten megabytes by
    // the end of a day's event; short runs are too noisy to tell.
    const bool growing = most >= 1000 && growth > 1.0;
    if (growing)
        std::printf("  memory grew %.1f KB per shot over %u shots\n", growth, most);
    const bool ok = crashes == 0 && duplicates == 0 && unexplained == 0 && unannounced == 0 && partial == 0 &&
                    missingFiles_ == 0 && saved > 0 && !growing;
    std::printf("%s\n", ok ? "soak passed" : "SOAK FAILED");
    std::fflush(stdout);
    return ok ? 0 : 1;
}

int Soak::run() {
    clock_.start();
    filler_ = folder() + "/filler";
    connection_ = std::make_unique<QDBusConnection>(
        QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("soak-sibling")));
    center_ = std::make_unique<DistributedNotificationCenter>(*connection_);
    center_->addObserver(QStringLiteral("brixXNotification"), [this](const Message &m) { announced(m); });

    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("HOME", home_);
    env.insert("XDG_CONFIG_HOME", home_ + "/.config");
    env.insert("XDG_STATE_HOME", home_ + "/.local/state");
    env.insert("XDG_RUNTIME_DIR", home_ + "/run");
    env.insert("BRIX_CAMERA_BACKEND", "simulator");
    env.insert("BRIX_DISK_FULL_WAIT_SECONDS", QString::number(o_.diskWait));
    first_.setProcessEnvironment(env);
    // The relaunched stations inherit these descriptors from the watchdog.
    first_.setStandardOutputFile(home_ + "/station.out");
    first_.setStandardErrorFile(home_ + "/station.out", QIODevice::Append);
    first_.start(BRIX_EXECUTABLE, {"--headless"});
    if (!first_.waitForStarted(10000))
        return 1;
    firstPid_ = pid_t(first_.processId());
    if (!waitForStation(0)) {
        std::printf("the station did not come up\n");
        return 1;
    }
    sinceKill_.start();

    // The short run takes every fault at least once, in a seeded order.
    std::vector<Fault> plan;
    if (o_.shortRun) {
        plan = {Fault::Unplug,        Fault::DownloadErrors, Fault::DownloadErrors,
                Fault::CommandErrors, Fault::BusyStorm,      Fault::LiveView,
                Fault::DiskFull,      Fault::DiskFull,       Fault::Kill,
                Fault::Kill};
        std::shuffle(plan.begin(), plan.end(), rng_);
    }
    size_t next = 0;
    while (int(shots_.size()) < o_.shots) {
        Fault f = Fault::Burst;
        if (next < plan.size() && pick(0, 2) == 0) {
            f = plan[next];
            if (f == Fault::Kill && sinceKill_.elapsed() < kKillSpacingMs)
                f = Fault::Burst;
            else
                ++next;
        } else if (!o_.shortRun && pick(0, 3) == 0) {
            f = Fault(pick(1, o_.kills ? 7 : 6));
        }
        if (f == Fault::Kill && sinceKill_.elapsed() < kKillSpacingMs)
            f = Fault::Burst;
        settle(8);
        fault(f);
    }
    // Whatever of the plan is left still runs.
    for (; next < plan.size(); ++next) {
        while (plan[next] == Fault::Kill && sinceKill_.elapsed() < kKillSpacingMs) {
            settle(8);
            fault(Fault::Burst);
        }
        settle(8);
        fault(plan[next]);
    }
    finish();
    return report();
}

int runInNamespace(const Options &o) {
    QTemporaryDir dir(QDir::tempPath() + "/brix-soak-XXXXXX");
    // BRIX_SOAK_KEEP=1 keeps the station's home (log, output) for a look afterwards.
    dir.setAutoRemove(qEnvironmentVariableIsEmpty("BRIX_SOAK_KEEP"));
    const QString home = dir.path();
    if (!dir.autoRemove())
        std::printf("soak: station home %s\n", qPrintable(home));
    for (const char *sub : {".config", ".local/state", "run", "Users/Shared/CanonFolder"})
        QDir(home).mkpath(sub);
    ::chmod(QFile::encodeName(home + "/run").constData(), 0700);
    const QByteArray mountPoint = QFile::encodeName(home + "/Users/Shared/CanonFolder");
    const QByteArray size = "size=" + QByteArray::number(o.tmpfsMiB) + "m";
    if (::mount("tmpfs", mountPoint.constData(), "tmpfs", 0, size.constData()) != 0) {
        std::printf("soak skipped: cannot mount a tmpfs in the private namespace\n");
        return kSkip;
    }
    test::PrivateBus bus;
    if (!bus.start()) {
        std::printf("soak: no private dbus-daemon\n");
        return 1;
    }
    int rc = 1;
    {
        Soak soak(o, home);
        rc = soak.run();
    }
    ::umount(mountPoint.constData());
    if (rc != 0 && dir.autoRemove()) {
        dir.setAutoRemove(false); // the station's log, to see what went wrong
        std::printf("soak: station home kept in %s\n", qPrintable(home));
    }
    return rc;
}

} // namespace

int main(int argc, char **argv) {
    Options o;
    o.seed = unsigned(std::random_device{}());
    for (int i = 1; i < argc; ++i) {
        const QByteArray a = argv[i];
        const QByteArray v = i + 1 < argc ? QByteArray(argv[i + 1]) : QByteArray();
        if (a == "--short") {
            o.shortRun = true;
            o.shots = 200;
            o.seed = 19;
            o.diskWait = 2;
        } else if (a == "--no-kill") {
            o.kills = false;
        } else if (a == "--shots" && !v.isEmpty()) {
            o.shots = v.toInt(), ++i;
        } else if (a == "--seed" && !v.isEmpty()) {
            o.seed = v.toUInt(), ++i;
        } else if (a == "--disk-wait" && !v.isEmpty()) {
            o.diskWait = v.toDouble(), ++i;
        } else {
            std::fprintf(stderr,
                         "usage: %s [--short] [--no-kill] [--shots N] [--seed S] [--disk-wait SECONDS]\n",
                         argv[0]);
            return 2;
        }
    }
    if (qEnvironmentVariableIsEmpty("BRIX_SOAK_IN_NAMESPACE")) {
        if (std::system("unshare -rm true >/dev/null 2>&1") != 0) {
            std::printf("soak skipped: no private mount namespace here (unshare -rm refused)\n");
            return kSkip;
        }
        // Again, in a user and mount namespace of its own, where it may mount
        // the small file system; seed fixed here so both runs agree.
        std::fflush(stdout);
        const pid_t child = ::fork();
        if (child == 0) {
            ::setenv("BRIX_SOAK_IN_NAMESPACE", "1", 1);
            const QByteArray seed = QByteArray::number(o.seed), shots = QByteArray::number(o.shots),
                             wait = QByteArray::number(o.diskWait);
            std::vector<const char *> args{"unshare",         "-rm",    argv[0],          "--shots",
                                           shots.constData(), "--seed", seed.constData(), "--disk-wait",
                                           wait.constData()};
            if (o.shortRun)
                args.insert(args.begin() + 3, "--short");
            if (!o.kills)
                args.insert(args.begin() + 3, "--no-kill");
            args.push_back(nullptr);
            ::execvp("unshare", const_cast<char **>(args.data()));
            ::_exit(127);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
    }
    dispatch::setMainThread();
    QCoreApplication app(argc, argv);
    return runInNamespace(o);
}
