// The camera boundary on libgphoto2 (see Gphoto2Sdk.h).
#include "Gphoto2Sdk.h"

#include "ClaimedDevice.h"
#include "Dispatch.h"
#include "Gphoto2Tables.h"
#include "Logger.h"
#include "NotificationCenter.h"
#ifdef BRIX_HAVE_PREFERENCE_STORE
#include "Preferences.h"
#endif

#include <QCoreApplication>
#include <QDateTime>
#include <QProcess>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <unistd.h>

#ifdef BRIX_HAVE_LIBUDEV
#include <libudev.h>
#include <poll.h>
#endif

namespace brix::gphoto2 {

using namespace eds;

namespace {

constexpr EdsError kErrWaitTimeout = 0xF4;
constexpr EdsError kErrFileNotFound = 0x22;
constexpr EdsError kErrFileExists = 0x2B;
constexpr EdsError kErrFileDataCorrupt = 0x2D;
constexpr EdsError kErrDirNotFound = 0x40;
constexpr EdsError kErrMissingSubcomponent = 0x0A;
constexpr EdsError kErrDeviceMemoryFull = 0x84;
constexpr EdsError kErrDeviceInternal = 0x85;

// A subtype other than 0: EOS bodies need no UI lock around property access.
constexpr EdsUInt32 kEosSubtype = 1;

// After this many failed event fetches in a row the camera counts as gone.
constexpr int kEventErrorLimit = 10;
// I/O failures in a row after which a body that detection still lists is
// given up (a timeout or one bad packet is not a pulled cable).
constexpr int kIoFailureLimit = 3;
// More AE-mode choices than any body offers: libgphoto2's whole table (about
// 40 modes in 2.5.30), which it lists when the body sent no list of its own.
constexpr size_t kWholeAeModeTable = 25;
// The folder in which libgphoto2 reports the shots a body sent to the host.
constexpr const char *kHostShotFolder = "/";
// Events handled in one pass of the event loop before other calls get a turn.
constexpr int kEventsPerPass = 16;

constexpr const char *kGenericPtpModel = "USB PTP Class Camera";
constexpr const char *kWidgetCaptureTarget = "capturetarget";
constexpr const char *kWidgetViewfinder = "viewfinder";
constexpr const char *kWidgetRemoteRelease = "eosremoterelease";
constexpr const char *kWidgetBulb = "bulb";
constexpr const char *kWidgetAfDrive = "autofocusdrive";
constexpr const char *kWidgetLensDrive = "manualfocusdrive";
constexpr const char *kWidgetUiLock = "uilock";

constexpr const char *kInUseMessage = "The camera %1 on %2 is in use by another program (%3). Close that "
                                      "program, or unmount the camera in the file "
                                      "manager, then unplug the camera and plug it in again. To let "
                                      "BrixCanonCapture release the desktop's hold on "
                                      "the camera by itself, turn on the preference \"%4\".";

std::mutex gPolicyMutex;
std::function<bool()> gPolicy;

QString hex(uint32_t v) {
    return QStringLiteral("0x%1").arg(v, 0, 16);
}

bool containsNoCase(const std::string &haystack, const char *needle) {
    return QString::fromStdString(haystack).contains(QLatin1String(needle), Qt::CaseInsensitive);
}

// --- counted objects ---------------------------------------------------------

struct CameraCore;

struct Object {
    std::atomic<uint32_t> refs{1};
    virtual ~Object() = default;
};

struct Progress {
    EdsProgressCallback fn = nullptr;
    EdsProgressOption option = kEdsProgressOption_NoReport;
    void *context = nullptr;
};

struct CameraObj : Object {
    std::shared_ptr<CameraCore> core;
};

struct ListObj : Object {
    std::vector<CameraObj *> cameras; // each retained by the list
};

struct ItemObj : Object {
    std::shared_ptr<CameraCore> core;
    std::string folder, name;
    Progress progress;
    // A shot the body sent to the host (capture to RAM): libgphoto2 fetched it
    // with the event and keeps only a few such files, so the backend takes the
    // bytes at once and serves the download from them.
    std::optional<std::string> fetched;
    int64_t mtime = 0;
};

struct StreamObj : Object {
    char *buffer = nullptr;
    uint64_t capacity = 0;
    uint64_t position = 0;
    Progress progress;
};

struct EvfObj : Object {
    StreamObj *stream = nullptr; // retained
};

struct Registration {
    uint32_t event = 0;
    void *handler = nullptr;
    void *context = nullptr;
};

// One camera seen on the bus. Fields marked "device" are touched only on the
// device queue.
struct CameraCore : std::enable_shared_from_this<CameraCore> {
    Gphoto2Sdk::Impl *impl = nullptr;
    DetectedCamera id;
    dispatch::QueuePtr device;
    dispatch::QueuePtr events;

    // device
    Gphoto2Port::Handle handle = 0;
    bool loopScheduled = false;
    uint64_t loopTimer = 0;
    int errorStreak = 0;
    int ioFailures = 0;
    int quietPasses = 0; // event-loop passes in a row that found nothing
    std::set<std::string> widgetNames;
    std::map<EdsPropertyID, std::string> widgetFor;
    std::map<EdsPropertyID, std::vector<std::string>> choices;
    std::optional<std::string> savedCaptureTarget;
    std::string captureTarget;
    uint32_t evfMode = 0;
    uint32_t zoom = 1;
    int pressed = 0; // 0 none, 1 half, 3 full
    bool liveView = false;

    std::atomic<bool> open{false};
    std::atomic<bool> gone{false};
    std::atomic<bool> reannounced{false};

    std::mutex handlersMutex;
    Registration state, property, object;

    EdsError onDevice(const std::function<EdsError()> &f) {
        EdsError r = EDS_ERR_OK;
        device->sync([&] { r = f(); });
        return r;
    }
};

struct Value {
    EdsDataType type = kEdsDataType_Unknown;
    uint32_t number = 0;
    std::string text;
    EdsTime time{};
    uint32_t size() const {
        switch (type) {
        case kEdsDataType_String:
            return uint32_t(text.size() + 1);
        case kEdsDataType_Time:
            return sizeof(EdsTime);
        default:
            return 4;
        }
    }
};

// Waits until every task queued so far has run. On the main thread the event
// loop keeps turning meanwhile: a handler on that queue may be waiting for the
// main thread (a notification posted and waited for), and must get its turn.
void drain(const dispatch::QueuePtr &queue) {
    dispatch::drainPumpingMainLoop(queue);
}

} // namespace

void setDesktopMountReleasePolicy(std::function<bool()> policy) {
    std::lock_guard lock(gPolicyMutex);
    gPolicy = std::move(policy);
}

EdsError edsErrorFor(int r) {
    if (r >= gp::OK)
        return EDS_ERR_OK;
    switch (r) {
    case gp::CameraBusy:
        return EDS_ERR_DEVICE_BUSY;
    case gp::NotSupported:
        return EDS_ERR_NOT_SUPPORTED;
    case gp::Io:
    case gp::IoInit:
    case gp::IoRead:
    case gp::IoWrite:
    case gp::IoUpdate:
    case gp::IoUsbFind:
    case gp::IoUsbClearHalt:
    case gp::UnknownPort:
        return EDS_ERR_COMM_DISCONNECTED;
    case gp::IoUsbClaim:
    case gp::IoLock:
        return EDS_ERR_COMM_PORT_IS_IN_USE;
    case gp::BadParameters:
    case gp::PathNotAbsolute:
        return EDS_ERR_INVALID_PARAMETER;
    case gp::NoMemory:
        return EDS_ERR_MEM_ALLOC_FAILED;
    case gp::Timeout:
        return kErrWaitTimeout;
    case gp::ModelNotFound:
        return EDS_ERR_DEVICE_NOT_FOUND;
    case gp::FileNotFound:
        return kErrFileNotFound;
    case gp::FileExists:
        return kErrFileExists;
    case gp::DirectoryNotFound:
        return kErrDirNotFound;
    case gp::Cancel:
        return EDS_ERR_OPERATION_CANCELLED;
    case gp::NoSpace:
        return kErrDeviceMemoryFull;
    case gp::CameraError:
        return kErrDeviceInternal;
    case gp::CorruptedData:
        return kErrFileDataCorrupt;
    case gp::Library:
        return kErrMissingSubcomponent;
    default:
        return EDS_ERR_INTERNAL_ERROR;
    }
}

struct Gphoto2Sdk::Impl {
    std::shared_ptr<Gphoto2Port> port;
    Gphoto2Options options;

    std::mutex m; // live, byPort, added handler, initialized
    std::set<Object *> live;
    std::map<std::string, CameraObj *> byPort; // each retained by the registry
    EdsCameraAddedHandler added = nullptr;
    void *addedContext = nullptr;
    bool initialized = false;

    dispatch::QueuePtr hotplug = dispatch::makeSerialQueue("com.lumetra.brix.gphoto2.hotplug");
    std::atomic<bool> hotplugRunning{false};
    std::shared_ptr<std::atomic<bool>> pollRun = std::make_shared<std::atomic<bool>>(false);
    std::atomic<uint64_t> pollTimer{0};
    std::set<std::string> knownPorts; // hotplug queue
    bool seeded = false;              // hotplug queue
#ifdef BRIX_HAVE_LIBUDEV
    udev *udevContext = nullptr;
    udev_monitor *monitor = nullptr;
#endif

    // --- references -----------------------------------------------------------

    template <class T> T *add(T *object) {
        std::lock_guard lock(m);
        live.insert(object);
        return object;
    }

    template <class T> T *as(EdsBaseRef ref) {
        auto *object = reinterpret_cast<Object *>(ref);
        std::lock_guard lock(m);
        if (!object || !live.count(object))
            return nullptr;
        return dynamic_cast<T *>(object);
    }

    static EdsBaseRef ref(Object *object) {
        return reinterpret_cast<EdsBaseRef>(object);
    }

    uint32_t retain(Object *object) {
        std::lock_guard lock(m);
        if (!object || !live.count(object))
            return 0xFFFFFFFF;
        return ++object->refs;
    }

    uint32_t release(Object *object) {
        uint32_t left;
        {
            std::lock_guard lock(m);
            if (!object || !live.count(object))
                return 0xFFFFFFFF;
            left = --object->refs;
            if (left == 0)
                live.erase(object);
        }
        if (left == 0)
            destroy(object);
        return left;
    }

    void destroy(Object *object) {
        if (auto *list = dynamic_cast<ListObj *>(object))
            for (CameraObj *c : list->cameras)
                release(c);
        if (auto *evf = dynamic_cast<EvfObj *>(object))
            release(evf->stream);
        delete object;
    }

    // --- logging and errors ----------------------------------------------------

    EdsError fail(CameraCore &c, const QString &what, int result) {
        const EdsError e = edsErrorFor(result);
        const std::string text = port->describe(result, c.handle);
        Logger::setError(QStringLiteral("gphoto2: %1 on %2 (%3) failed: %4 [%5], error %6")
                             .arg(what, QString::fromStdString(c.id.model), QString::fromStdString(c.id.port),
                                  QString::fromStdString(text))
                             .arg(result)
                             .arg(hex(e)));
        if (e == EDS_ERR_COMM_DISCONNECTED && (++c.ioFailures >= kIoFailureLimit || !stillAttached(c)))
            markGone(c);
        return e;
    }

    // Device queue. Whether a fresh detection still lists the camera's port.
    bool stillAttached(const CameraCore &c) {
        std::vector<DetectedCamera> found;
        if (port->autodetect(&found) != gp::OK)
            return true; // cannot tell: the failure streak decides
        for (const auto &f : found)
            if (f.port == c.id.port)
                return true;
        return false;
    }

    static EdsError usable(const CameraCore &c) {
        if (c.gone)
            return EDS_ERR_COMM_DISCONNECTED;
        if (!c.open)
            return EDS_ERR_SESSION_NOT_OPEN;
        return EDS_ERR_OK;
    }

    // --- event delivery (events queue) ------------------------------------------

    static Registration registration(CameraCore &c, Registration CameraCore::*which) {
        std::lock_guard lock(c.handlersMutex);
        return c.*which;
    }

    void deliverState(const std::shared_ptr<CameraCore> &c, EdsStateEvent event, EdsUInt32 data) {
        c->events->async([c, event, data] {
            const Registration r = registration(*c, &CameraCore::state);
            if (r.handler && (r.event == kEdsStateEvent_All || r.event == event))
                reinterpret_cast<EdsStateEventHandler>(r.handler)(event, data, r.context);
        });
    }

    void deliverProperty(const std::shared_ptr<CameraCore> &c, EdsPropertyEvent event, EdsPropertyID id) {
        c->events->async([c, event, id] {
            const Registration r = registration(*c, &CameraCore::property);
            if (r.handler && (r.event == kEdsPropertyEvent_All || r.event == event))
                reinterpret_cast<EdsPropertyEventHandler>(r.handler)(event, id, 0, r.context);
        });
    }

    void deliverObject(const std::shared_ptr<CameraCore> &c, const std::string &folder,
                       const std::string &name, std::optional<std::string> fetched = std::nullopt) {
        auto *item = add(new ItemObj);
        item->core = c;
        item->folder = folder;
        item->name = name;
        item->fetched = std::move(fetched);
        item->mtime = QDateTime::currentSecsSinceEpoch();
        c->events->async([this, c, item] {
            const Registration r = registration(*c, &CameraCore::object);
            if (r.handler &&
                (r.event == kEdsObjectEvent_All || r.event == kEdsObjectEvent_DirItemRequestTransfer))
                reinterpret_cast<EdsObjectEventHandler>(r.handler)(kEdsObjectEvent_DirItemRequestTransfer,
                                                                   ref(item), r.context);
            // The handler borrowed the item; it retains it to keep it.
            release(item);
        });
    }

    // Device queue.
    void markGone(CameraCore &c) {
        if (c.gone.exchange(true))
            return;
        Logger::setError(QStringLiteral("gphoto2: camera %1 on %2 is gone")
                             .arg(QString::fromStdString(c.id.model), QString::fromStdString(c.id.port)));
        deliverState(c.shared_from_this(), kEdsStateEvent_Shutdown, 0);
    }

    // --- the event loop (device queue) ----------------------------------------

    // One pass fetches what the body has to say without waiting in
    // libgphoto2, then the next pass is a timer away: between passes the
    // device queue is free, so calls from other threads (a download's next
    // part, a live-view frame) never wait behind a blocking event wait. Each
    // fetch also tells an EOS body to stay awake while it is tethered.
    void scheduleLoop(const std::shared_ptr<CameraCore> &c, bool now = false) {
        if (c->loopScheduled)
            return;
        c->loopScheduled = true;
        auto pass = [this, c] {
            c->loopScheduled = false;
            if (!c->open || c->gone)
                return;
            int handled = 0;
            while (handled < kEventsPerPass && pump(c))
                ++handled;
            c->quietPasses = handled ? 0 : std::min(c->quietPasses + 1, 8);
            scheduleLoop(c);
        };
        if (now)
            c->device->async(std::move(pass));
        else
            c->loopTimer =
                dispatch::after(std::chrono::milliseconds(std::max(
                                    options.eventWaitMs,
                                    std::min(options.eventWaitMaxMs, options.eventWaitMs << c->quietPasses))),
                                c->device, std::move(pass));
    }

    // Handles one event; false when the body had none (or failed).
    // With `pastErrors`, a failed fetch that leaves the body usable also
    // answers true: events libgphoto2 still holds behind it come next.
    bool pump(const std::shared_ptr<CameraCore> &c, bool pastErrors = false) {
        Event ev;
        const int rc = port->waitForEvent(c->handle, 0, &ev);
        if (rc < gp::OK) {
            if (rc == gp::CameraBusy)
                return false;
            const EdsError e = fail(*c, QStringLiteral("waiting for an event"), rc);
            if (e != EDS_ERR_COMM_DISCONNECTED && ++c->errorStreak >= kEventErrorLimit)
                markGone(*c);
            return pastErrors && !c->gone;
        }
        c->errorStreak = 0;
        c->ioFailures = 0;
        switch (ev.type) {
        case Event::Type::FileAdded:
            Logger::setDebug(QStringLiteral("gphoto2: new file %1/%2 on %3")
                                 .arg(QString::fromStdString(ev.folder), QString::fromStdString(ev.name),
                                      QString::fromStdString(c->id.model)));
            if (ev.folder == kHostShotFolder) {
                // Sent to the host: fetched whole now, on this queue, before
                // libgphoto2's small cache of such files lets it go; then
                // dropped from that cache. Both files of a RAW+JPEG shot come
                // as consecutive events and are delivered in that order.
                std::string bytes;
                const int grc = port->getFile(c->handle, ev.folder, ev.name, &bytes);
                if (grc != gp::OK) {
                    fail(*c, QStringLiteral("fetching the new shot %1").arg(ev.name.c_str()), grc);
                    return true;
                }
                port->deleteFile(c->handle, ev.folder, ev.name);
                deliverObject(c, ev.folder, ev.name, std::move(bytes));
            } else {
                deliverObject(c, ev.folder, ev.name);
            }
            return true;
        case Event::Type::Unknown:
            if (auto code = ptpCodeInEventText(ev.text))
                propertyChanged(c, *code);
            else if (!ev.text.empty())
                Logger::setVerbose(
                    QStringLiteral("gphoto2: event \"%1\"").arg(QString::fromStdString(ev.text)));
            return true;
        case Event::Type::CaptureComplete:
            Logger::setVerbose(QStringLiteral("gphoto2: capture complete"));
            return true;
        case Event::Type::FolderAdded:
        case Event::Type::FileChanged:
            return true;
        case Event::Type::Timeout:
            break;
        }
        return false;
    }

    void propertyChanged(const std::shared_ptr<CameraCore> &c, uint32_t ptpCode) {
        const EdsPropertyID id = propertyForPtpCode(ptpCode);
        if (!id)
            return;
        const PropertySpec *spec = propertySpec(id);
        if (spec && (spec->kind == PropertyKind::Table || spec->kind == PropertyKind::ImageQuality)) {
            Widget w;
            if (readWidget(*c, *spec, &w) == gp::OK && c->choices[id] != w.choices) {
                c->choices[id] = w.choices;
                deliverProperty(c, kEdsPropertyEvent_PropertyDescChanged, id);
            }
        }
        deliverProperty(c, kEdsPropertyEvent_PropertyChanged, id);
    }

    // Announces the supported values of every listed property the body has, as
    // a freshly opened camera does.
    void announceDescriptions(const std::shared_ptr<CameraCore> &c) {
        if (!c->open || c->gone)
            return;
        for (const auto &spec : allPropertySpecs()) {
            if (spec.kind != PropertyKind::Table && spec.kind != PropertyKind::ImageQuality)
                continue;
            Widget w;
            if (readWidget(*c, spec, &w) != gp::OK)
                continue;
            c->choices[spec.id] = w.choices;
            deliverProperty(c, kEdsPropertyEvent_PropertyDescChanged, spec.id);
        }
    }

    // --- widgets (device queue) -----------------------------------------------

    bool has(const CameraCore &c, const std::string &widget) const {
        return c.widgetNames.count(widget) != 0;
    }

    int readWidget(CameraCore &c, const PropertySpec &spec, Widget *w) {
        auto known = c.widgetFor.find(spec.id);
        if (known != c.widgetFor.end())
            return port->getWidget(c.handle, known->second, w);
        for (const auto &name : spec.widgets) {
            if (!has(c, name))
                continue;
            const int rc = port->getWidget(c.handle, name, w);
            if (rc == gp::OK)
                c.widgetFor[spec.id] = name;
            return rc;
        }
        return gp::NotSupported;
    }

    int writeWidget(CameraCore &c, const std::string &name, const Widget &value) {
        if (!has(c, name))
            return gp::NotSupported;
        return port->setWidget(c.handle, name, value);
    }

    static Widget textValue(const std::string &text) {
        Widget w;
        w.text = text;
        return w;
    }
    static Widget intValue(int v) {
        Widget w;
        w.integer = v;
        return w;
    }

    // --- properties (device queue) ---------------------------------------------

    EdsError readProperty(CameraCore &c, EdsPropertyID id, Value *out) {
        if (EdsError e = usable(c))
            return e;
        const PropertySpec *spec = propertySpec(id);
        if (!spec)
            return EDS_ERR_PROPERTIES_UNAVAILABLE;
        out->type = spec->dataType;
        switch (spec->kind) {
        case PropertyKind::EvfMode:
            out->number = c.evfMode;
            if (has(c, spec->widgets.front())) {
                Widget w;
                if (readWidget(c, *spec, &w) == gp::OK)
                    out->number = w.text == "1" ? 1 : 0;
            }
            return EDS_ERR_OK;
        case PropertyKind::EvfZoom:
            // The body's zoom control is write-only: report what was set.
            out->number = c.zoom;
            return EDS_ERR_OK;
        case PropertyKind::SaveTo: {
            Widget w;
            if (int rc = readWidget(c, *spec, &w); rc != gp::OK)
                return rc == gp::NotSupported ? EDS_ERR_PROPERTIES_UNAVAILABLE
                                              : fail(c, QStringLiteral("reading capturetarget"), rc);
            c.captureTarget = w.text;
            out->number = w.text == kCaptureTargetHost ? kEdsSaveTo_Host : kEdsSaveTo_Camera;
            return EDS_ERR_OK;
        }
        case PropertyKind::OutputDevice: {
            // The body's own outputs when it tells them; only a body without
            // that setting is taken to show on the host while live view runs.
            Widget w;
            std::optional<uint32_t> bits;
            if (has(c, spec->widgets.front()) && readWidget(c, *spec, &w) == gp::OK)
                bits = valueForLabel(id, w.text, w.choices);
            out->number = bits ? *bits : (c.liveView ? kEdsEvfOutputDevice_PC : 0);
            return EDS_ERR_OK;
        }
        default:
            break;
        }
        Widget w;
        const int rc = readWidget(c, *spec, &w);
        if (rc == gp::NotSupported) {
            if (spec->fromModelName) {
                out->text = c.id.model;
                return EDS_ERR_OK;
            }
            return EDS_ERR_PROPERTIES_UNAVAILABLE;
        }
        if (rc != gp::OK)
            return fail(c, QStringLiteral("reading %1").arg(QString::fromStdString(c.widgetFor[id])), rc);
        switch (spec->kind) {
        case PropertyKind::Text:
            out->text = w.text;
            return EDS_ERR_OK;
        case PropertyKind::Time: {
            const time_t t = time_t(w.integer);
            std::tm tm{};
            localtime_r(&t, &tm);
            out->time = EdsTime{uint32_t(tm.tm_year + 1900),
                                uint32_t(tm.tm_mon + 1),
                                uint32_t(tm.tm_mday),
                                uint32_t(tm.tm_hour),
                                uint32_t(tm.tm_min),
                                uint32_t(tm.tm_sec),
                                0};
            return EDS_ERR_OK;
        }
        case PropertyKind::Battery:
            if (auto percent = batteryPercentForLabel(w.text)) {
                out->number = *percent;
                return EDS_ERR_OK;
            }
            Logger::setDebug(QStringLiteral("gphoto2: battery level \"%1\" has no percentage")
                                 .arg(QString::fromStdString(w.text)));
            return EDS_ERR_PROPERTIES_UNAVAILABLE;
        case PropertyKind::Table:
        case PropertyKind::ImageQuality:
            if (auto v = valueForLabel(id, w.text, w.choices)) {
                out->number = *v;
                return EDS_ERR_OK;
            }
            Logger::setError(QStringLiteral("gphoto2: no value for the label \"%1\" of %2")
                                 .arg(QString::fromStdString(w.text), QString::fromStdString(w.name)));
            return EDS_ERR_PROPERTIES_UNAVAILABLE;
        default:
            return EDS_ERR_PROPERTIES_UNAVAILABLE;
        }
    }

    EdsError writeProperty(const std::shared_ptr<CameraCore> &cp, EdsPropertyID id, const Value &in) {
        CameraCore &c = *cp;
        if (EdsError e = usable(c))
            return e;
        const PropertySpec *spec = propertySpec(id);
        if (!spec)
            return EDS_ERR_PROPERTIES_UNAVAILABLE;
        const std::string widget = c.widgetFor.count(id) ? c.widgetFor[id] : spec->widgets.front();
        int rc = gp::OK;
        switch (spec->kind) {
        case PropertyKind::Text:
            if (spec->readOnly)
                return EDS_ERR_NOT_SUPPORTED;
            rc = writeWidget(c, widget, textValue(in.text));
            break;
        case PropertyKind::Time: {
            std::tm tm{};
            tm.tm_year = int(in.time.year) - 1900;
            tm.tm_mon = int(in.time.month) - 1;
            tm.tm_mday = int(in.time.day);
            tm.tm_hour = int(in.time.hour);
            tm.tm_min = int(in.time.minute);
            tm.tm_sec = int(in.time.second);
            tm.tm_isdst = -1;
            const time_t t = mktime(&tm);
            if (t == time_t(-1))
                return EDS_ERR_INVALID_PARAMETER;
            rc = writeWidget(c, widget, intValue(int(t)));
            break;
        }
        case PropertyKind::Battery:
            return EDS_ERR_NOT_SUPPORTED;
        case PropertyKind::Table:
        case PropertyKind::ImageQuality: {
            // Resolve the body's widget name first (imageformat or imageformatsd).
            Widget current;
            if (int r = readWidget(c, *spec, &current); r != gp::OK)
                return r == gp::NotSupported ? EDS_ERR_PROPERTIES_UNAVAILABLE
                                             : fail(c, QStringLiteral("reading %1").arg(widget.c_str()), r);
            auto label = labelForValue(id, in.number);
            if (!label)
                return EDS_ERR_INVALID_PARAMETER;
            if (!current.choices.empty() &&
                std::find(current.choices.begin(), current.choices.end(), *label) == current.choices.end()) {
                Logger::setDebug(QStringLiteral("gphoto2: %1 does not offer \"%2\" for %3")
                                     .arg(QString::fromStdString(c.id.model), QString::fromStdString(*label),
                                          QString::fromStdString(current.name)));
                return EDS_ERR_INVALID_PARAMETER;
            }
            rc = writeWidget(c, c.widgetFor[id], textValue(*label));
            break;
        }
        case PropertyKind::SaveTo: {
            const char *label = nullptr;
            if (in.number == kEdsSaveTo_Host)
                label = kCaptureTargetHost;
            else if (in.number == kEdsSaveTo_Camera || in.number == kEdsSaveTo_Both)
                label = kCaptureTargetCard; // new shots are announced from the card as well
            else
                return EDS_ERR_INVALID_PARAMETER;
            rc = writeWidget(c, kWidgetCaptureTarget, textValue(label));
            if (rc == gp::OK)
                c.captureTarget = label;
            break;
        }
        case PropertyKind::OutputDevice: {
            const bool wantLive = (in.number & kEdsEvfOutputDevice_PC) != 0;
            if (has(c, widget)) {
                if (auto label = labelForValue(id, in.number))
                    rc = writeWidget(c, widget, textValue(*label));
            }
            if (rc == gp::OK && has(c, kWidgetViewfinder))
                rc = writeWidget(c, kWidgetViewfinder, intValue(wantLive ? 1 : 0));
            else if (rc == gp::OK && !has(c, widget))
                rc = gp::NotSupported;
            if (rc == gp::OK) {
                c.liveView = wantLive;
                // The live-view loop follows this property's change event.
                deliverProperty(cp, kEdsPropertyEvent_PropertyChanged, id);
            }
            break;
        }
        case PropertyKind::EvfMode:
            if (in.number > 1)
                return EDS_ERR_INVALID_PARAMETER;
            if (has(c, widget))
                rc = writeWidget(c, widget, textValue(in.number ? "1" : "0"));
            if (rc == gp::OK)
                c.evfMode = in.number;
            break;
        case PropertyKind::EvfZoom:
            rc = writeWidget(c, widget, textValue(std::to_string(in.number)));
            if (rc == gp::OK)
                c.zoom = in.number;
            break;
        }
        if (rc == gp::NotSupported)
            return EDS_ERR_NOT_SUPPORTED;
        if (rc != gp::OK)
            return fail(c, QStringLiteral("writing %1").arg(QString::fromStdString(widget)), rc);
        return EDS_ERR_OK;
    }

    // --- sessions (device queue) ------------------------------------------------

    bool mayReleaseDesktopMount() {
        if (options.mayReleaseDesktopMount)
            return options.mayReleaseDesktopMount();
        {
            std::lock_guard lock(gPolicyMutex);
            if (gPolicy)
                return gPolicy();
        }
#ifdef BRIX_HAVE_PREFERENCE_STORE
        return Preferences::standard().boolForKey(QString::fromLatin1(kPrefReleaseCameraFromDesktop));
#else
        return false;
#endif
    }

    int gio(const QStringList &arguments, QString *output) {
        if (options.runGio)
            return options.runGio(arguments, output);
        QProcess p;
        p.start(QStringLiteral("gio"), arguments);
        if (!p.waitForStarted(5000))
            return -1;
        p.waitForFinished(15000);
        if (output)
            *output = QString::fromUtf8(p.readAllStandardOutput());
        return p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    }

    // Opens the camera; when another program holds it, says who, releases the
    // desktop's mount when allowed and tries again.
    int openCamera(CameraCore &c) {
        int rc = port->openCamera(c.id, &c.handle);
        if (rc != gp::IoUsbClaim)
            return rc;
        const QString portName = QString::fromStdString(c.id.port);
        const auto node = usbDeviceNode(c.id.port);
        const std::vector<Holder> holders =
            node ? processesHolding(*node, options.procRoot) : std::vector<Holder>{};
        const QString who =
            holders.empty() ? QStringLiteral("a program this user cannot see") : describeHolders(holders);
        Logger::setError(
            QStringLiteral("gphoto2: could not claim the USB device of %1 on %2 (%3): held by %4")
                .arg(QString::fromStdString(c.id.model), portName, node.value_or(QStringLiteral("?")), who));
        const bool desktop = std::any_of(holders.begin(), holders.end(), isDesktopMounter);
        if (desktop && mayReleaseDesktopMount()) {
            QString listing;
            gio({QStringLiteral("mount"), QStringLiteral("-l")}, &listing);
            const QStringList mounts = gphotoMountsFor(listing, c.id.port);
            for (const QString &mount : mounts) {
                Logger::setError(QStringLiteral("gphoto2: releasing the desktop's mount %1").arg(mount));
                const int status = gio({QStringLiteral("mount"), QStringLiteral("-u"), mount}, nullptr);
                if (status != 0)
                    Logger::setError(
                        QStringLiteral("gphoto2: \"gio mount -u %1\" ended with %2").arg(mount).arg(status));
            }
            for (int attempt = 0; attempt < options.claimRetries && rc == gp::IoUsbClaim; ++attempt) {
                if (options.claimRetryDelay.count() > 0)
                    std::this_thread::sleep_for(options.claimRetryDelay);
                rc = port->openCamera(c.id, &c.handle);
            }
            if (rc == gp::OK) {
                Logger::setError(QStringLiteral("gphoto2: claimed %1 after releasing the desktop's mount")
                                     .arg(QString::fromStdString(c.id.model)));
                return rc;
            }
        }
        if (rc == gp::IoUsbClaim) {
            const QString message = QString::fromLatin1(kInUseMessage)
                                        .arg(QString::fromStdString(c.id.model), portName, who,
                                             QString::fromLatin1(kPrefReleaseCameraFromDesktop));
            Logger::setError(message);
            Notification n;
            n.name = QString::fromLatin1(kCameraInUseNotification);
            n.userInfo.insert(QStringLiteral("message"), message);
            n.userInfo.insert(QStringLiteral("port"), portName);
            n.userInfoOrder = {QStringLiteral("message"), QStringLiteral("port")};
            NotificationCenter::defaultCenter().postOnMainNoWait(n);
        }
        return rc;
    }

    EdsError openSession(const std::shared_ptr<CameraCore> &c) {
        if (c->open)
            return EDS_ERR_OK;
        if (c->gone)
            return EDS_ERR_DEVICE_NOT_FOUND;
        const int rc = openCamera(*c);
        if (rc != gp::OK) {
            Logger::setError(QStringLiteral("gphoto2: opening %1 on %2 failed: %3 [%4]")
                                 .arg(QString::fromStdString(c->id.model), QString::fromStdString(c->id.port),
                                      QString::fromStdString(port->describe(rc, 0)))
                                 .arg(rc));
            c->handle = 0;
            return edsErrorFor(rc);
        }
        std::vector<Widget> widgets;
        if (int lrc = port->listWidgets(c->handle, &widgets); lrc != gp::OK)
            Logger::setError(QStringLiteral("gphoto2: reading the settings of %1 failed: %2")
                                 .arg(QString::fromStdString(c->id.model),
                                      QString::fromStdString(port->describe(lrc, c->handle))));
        c->widgetNames.clear();
        c->widgetFor.clear();
        c->choices.clear();
        c->savedCaptureTarget.reset();
        c->captureTarget.clear();
        for (const auto &w : widgets) {
            c->widgetNames.insert(w.name);
            if (w.name == kWidgetCaptureTarget) {
                c->savedCaptureTarget = w.text;
                c->captureTarget = w.text;
            }
        }
        c->liveView = false;
        c->pressed = 0;
        c->zoom = 1;
        c->evfMode = 0;
        c->errorStreak = 0;
        c->open = true;
        Logger::setDebug(QStringLiteral("gphoto2: opened %1 on %2 (%3 settings)")
                             .arg(QString::fromStdString(c->id.model), QString::fromStdString(c->id.port))
                             .arg(widgets.size()));
        scheduleLoop(c, true);
        if (registration(*c, &CameraCore::property).handler)
            c->device->async([this, c] { announceDescriptions(c); });
        return EDS_ERR_OK;
    }

    EdsError closeSession(CameraCore &c) {
        if (!c.open)
            return EDS_ERR_SESSION_NOT_OPEN;
        if (!c.gone) {
            if (c.liveView && has(c, kWidgetViewfinder))
                port->setWidget(c.handle, kWidgetViewfinder, intValue(0));
            // Other gphoto2 programs read the capture target from the shared
            // settings file: put back what they saw.
            if (c.savedCaptureTarget && has(c, kWidgetCaptureTarget)) {
                const int rc =
                    port->setWidget(c.handle, kWidgetCaptureTarget, textValue(*c.savedCaptureTarget));
                if (rc != gp::OK)
                    fail(c, QStringLiteral("restoring capturetarget"), rc);
            }
        }
        if (dispatch::cancelTimer(c.loopTimer))
            c.loopScheduled = false;
        port->closeCamera(c.handle);
        c.handle = 0;
        c.open = false;
        c.liveView = false;
        Logger::setDebug(QStringLiteral("gphoto2: closed %1").arg(QString::fromStdString(c.id.model)));
        return EDS_ERR_OK;
    }

    // --- commands (device queue) ------------------------------------------------

    EdsError command(const std::shared_ptr<CameraCore> &cp, EdsCameraCommand cmd, EdsInt32 param) {
        CameraCore &c = *cp;
        if (EdsError e = usable(c))
            return e;
        auto widgetCommand = [&](const char *widget, const Widget &value, const QString &what) -> EdsError {
            if (!has(c, widget)) {
                Logger::setDebug(
                    QStringLiteral("gphoto2: %1 has no %2 control").arg(c.id.model.c_str(), widget));
                return EDS_ERR_NOT_SUPPORTED;
            }
            const int rc = port->setWidget(c.handle, widget, value);
            return rc == gp::OK ? EDS_ERR_OK : fail(c, what, rc);
        };
        switch (cmd) {
        case kEdsCameraCommand_TakePicture: {
            // libgphoto2 fetches and throws away the body's pending events
            // before it releases the shutter: an earlier shot announced there
            // would be lost, so they are taken first.
            for (int i = 0; i < kEventsPerPass && pump(cp, true); ++i) {
            }
            if (c.gone)
                return EDS_ERR_COMM_DISCONNECTED;
            const int rc = port->triggerCapture(c.handle);
            if (rc == gp::OK) {
                // The shot is announced within a few polls: ask at once
                // rather than after a quiet loop's long pause.
                c.quietPasses = 0;
                if (dispatch::cancelTimer(c.loopTimer)) {
                    c.loopScheduled = false;
                    scheduleLoop(cp, true);
                }
                return EDS_ERR_OK;
            }
            const std::string text = port->describe(rc, c.handle);
            const EdsError e = edsErrorFor(rc);
            if (e == EDS_ERR_INTERNAL_ERROR && containsNoCase(text, "focus")) {
                Logger::setError(
                    QStringLiteral("gphoto2: taking a picture failed: %1").arg(QString::fromStdString(text)));
                return EDS_ERR_TAKE_PICTURE_AF_NG;
            }
            Logger::setError(QStringLiteral("gphoto2: taking a picture on %1 failed: %2 [%3], error %4")
                                 .arg(QString::fromStdString(c.id.model), QString::fromStdString(text))
                                 .arg(rc)
                                 .arg(hex(e)));
            if (e == EDS_ERR_COMM_DISCONNECTED && (++c.ioFailures >= kIoFailureLimit || !stillAttached(c)))
                markGone(c);
            return e;
        }
        case kEdsCameraCommand_ExtendShutDownTimer:
            // Fetching events sends the body its keep-awake request.
            pump(cp);
            return EDS_ERR_OK;
        case kEdsCameraCommand_BulbStart:
            return widgetCommand(kWidgetBulb, intValue(1), QStringLiteral("starting bulb"));
        case kEdsCameraCommand_BulbEnd:
            return widgetCommand(kWidgetBulb, intValue(0), QStringLiteral("ending bulb"));
        case kEdsCameraCommand_PressShutterButton:
            return shutter(c, param, widgetCommand);
        case kEdsCameraCommand_DoEvfAf:
            return widgetCommand(kWidgetAfDrive, intValue(param ? 1 : 0),
                                 QStringLiteral("live-view autofocus"));
        case kEdsCameraCommand_DriveLensEvf: {
            const uint32_t p = uint32_t(param);
            const uint32_t step = p & 0x7fff;
            if (step < 1 || step > 3 || (p & ~0x8003u) != 0)
                return EDS_ERR_INVALID_PARAMETER;
            const std::string label = ((p & 0x8000) ? "Far " : "Near ") + std::to_string(step);
            return widgetCommand(kWidgetLensDrive, textValue(label), QStringLiteral("driving the lens"));
        }
        case kEdsCameraCommand_DoClickWBEvf:
            Logger::setDebug(QStringLiteral("gphoto2: libgphoto2 offers no live-view white-balance click"));
            return EDS_ERR_NOT_SUPPORTED;
        default:
            return EDS_ERR_NOT_SUPPORTED;
        }
    }

    template <class F> EdsError shutter(CameraCore &c, EdsInt32 param, F &widgetCommand) {
        // Remote release: button 1 = half, 3 = full; the "Press Half/Full"
        // choices press without autofocus, "Press 1/3" with it.
        const char *label = nullptr;
        int pressed = c.pressed;
        switch (param) {
        case kEdsCameraCommand_ShutterButton_Halfway:
            label = "Press 1";
            pressed = 1;
            break;
        case kEdsCameraCommand_ShutterButton_Completely:
            label = "Press 3";
            pressed = 3;
            break;
        case kEdsCameraCommand_ShutterButton_Halfway_NonAF:
            label = "Press Half";
            pressed = 1;
            break;
        case kEdsCameraCommand_ShutterButton_Completely_NonAF:
            label = "Press Full";
            pressed = 3;
            break;
        case kEdsCameraCommand_ShutterButton_OFF: {
            EdsError e = EDS_ERR_OK;
            if (c.pressed == 3)
                e = widgetCommand(kWidgetRemoteRelease, textValue("Release Full"),
                                  QStringLiteral("releasing"));
            if (e == EDS_ERR_OK)
                e = widgetCommand(kWidgetRemoteRelease, textValue("Release Half"),
                                  QStringLiteral("releasing"));
            if (e == EDS_ERR_OK)
                c.pressed = 0;
            return e;
        }
        default:
            return EDS_ERR_INVALID_PARAMETER;
        }
        const EdsError e = widgetCommand(kWidgetRemoteRelease, textValue(label), QStringLiteral("pressing"));
        if (e == EDS_ERR_OK)
            c.pressed = pressed;
        return e;
    }

    // --- hotplug (hotplug queue) ------------------------------------------------

    void cameraAdded() {
        EdsCameraAddedHandler handler;
        void *context;
        {
            std::lock_guard lock(m);
            handler = added;
            context = addedContext;
        }
        Logger::setDebug(QStringLiteral("gphoto2: a camera was plugged in"));
        if (handler)
            handler(context);
    }

    // A Canon body by its driver's model name, or a body newer than the
    // installed libgphoto2 knows (shown as a generic PTP camera) with Canon's
    // USB vendor ID.
    bool isCanon(const DetectedCamera &c) const {
        if (containsNoCase(c.model, "canon"))
            return true;
        return c.model == kGenericPtpModel && usbVendorId(c.port, options.sysUsbRoot) == kCanonUsbVendor;
    }

    // A body left the bus: a listed camera on that port reports shutdown, even
    // without a session (an open session's event loop would notice as well).
    void cameraRemoved(const std::string &portName) {
        std::shared_ptr<CameraCore> core;
        {
            std::lock_guard lock(m);
            auto it = byPort.find(portName);
            if (it != byPort.end())
                core = it->second->core;
        }
        if (core)
            markGone(*core);
    }

    void pollOnce() {
        std::vector<DetectedCamera> found;
        if (port->autodetect(&found) != gp::OK)
            return;
        std::set<std::string> ports;
        for (const auto &c : found)
            if (isCanon(c))
                ports.insert(c.port);
        bool fresh = false;
        for (const auto &p : ports)
            if (!knownPorts.count(p) || givenUpAndNotAnnounced(p))
                fresh = true;
        for (const auto &p : knownPorts)
            if (!ports.count(p))
                cameraRemoved(p);
        knownPorts = ports;
        if (fresh && seeded)
            cameraAdded();
        seeded = true;
    }

    // Hotplug queue. A camera on the port was given up while still attached
    // (I/O failures): announced once as arriving again.
    bool givenUpAndNotAnnounced(const std::string &portName) {
        std::lock_guard lock(m);
        auto it = byPort.find(portName);
        return it != byPort.end() && it->second->core->gone && !it->second->core->reannounced.exchange(true);
    }

    void armPoll() {
        if (!hotplugRunning)
            return;
        // A timer that fired just as detection stopped may still hand its
        // task to the queue after the drain: it then finds its run ended
        // without touching the backend, which may be gone by then.
        pollTimer =
            dispatch::after(dispatch::secondsToNanos(options.pollSeconds), hotplug, [this, run = pollRun] {
                if (!*run)
                    return;
                pollOnce();
                armPoll();
            });
    }

#ifdef BRIX_HAVE_LIBUDEV
    bool startUdev() {
        udevContext = udev_new();
        if (!udevContext)
            return false;
        monitor = udev_monitor_new_from_netlink(udevContext, "udev");
        if (!monitor || udev_monitor_filter_add_match_subsystem_devtype(monitor, "usb", "usb_device") < 0 ||
            udev_monitor_enable_receiving(monitor) < 0) {
            stopUdev();
            return false;
        }
        return true;
    }
    void stopUdev() {
        if (monitor)
            udev_monitor_unref(monitor);
        if (udevContext)
            udev_unref(udevContext);
        monitor = nullptr;
        udevContext = nullptr;
    }
    void udevLoop() {
        if (!hotplugRunning)
            return;
        pollfd pfd{udev_monitor_get_fd(monitor), POLLIN, 0};
        if (::poll(&pfd, 1, 200) > 0 && (pfd.revents & POLLIN)) {
            if (udev_device *dev = udev_monitor_receive_device(monitor)) {
                const char *action = udev_device_get_action(dev);
                const char *gphoto = udev_device_get_property_value(dev, "ID_GPHOTO2");
                if (action && gphoto && std::strcmp(gphoto, "1") == 0 && std::strcmp(action, "add") == 0)
                    cameraAdded();
                const char *bus = udev_device_get_property_value(dev, "BUSNUM");
                const char *devnum = udev_device_get_property_value(dev, "DEVNUM");
                if (action && std::strcmp(action, "remove") == 0 && bus && devnum)
                    cameraRemoved("usb:" + std::string(bus) + "," + std::string(devnum));
                udev_device_unref(dev);
            }
        }
        hotplug->async([this] { udevLoop(); });
    }
#endif

    void startHotplug() {
        if (hotplugRunning.exchange(true))
            return;
        auto mode = options.hotplug;
        if (mode == Gphoto2Options::Hotplug::Off) {
            hotplugRunning = false;
            return;
        }
#ifdef BRIX_HAVE_LIBUDEV
        if (mode == Gphoto2Options::Hotplug::Auto)
            mode = ::access("/run/udev/control", F_OK) == 0 ? Gphoto2Options::Hotplug::Udev
                                                            : Gphoto2Options::Hotplug::Polling;
        if (mode == Gphoto2Options::Hotplug::Udev && startUdev()) {
            Logger::setDebug(QStringLiteral("gphoto2: watching udev for cameras (ID_GPHOTO2=1)"));
            hotplug->async([this] { udevLoop(); });
            return;
        }
#endif
        Logger::setDebug(QStringLiteral("gphoto2: polling for cameras every %1 s").arg(options.pollSeconds));
        pollRun = std::make_shared<std::atomic<bool>>(true);
        hotplug->async([this] { pollOnce(); });
        armPoll();
    }

    void stopHotplug() {
        if (!hotplugRunning.exchange(false))
            return;
        *pollRun = false;
        dispatch::cancelTimer(pollTimer);
        drain(hotplug);
#ifdef BRIX_HAVE_LIBUDEV
        stopUdev();
#endif
    }

    std::vector<std::shared_ptr<CameraCore>> allCores() {
        std::vector<std::shared_ptr<CameraCore>> out;
        std::lock_guard lock(m);
        for (Object *o : live)
            if (auto *cam = dynamic_cast<CameraObj *>(o))
                out.push_back(cam->core);
        return out;
    }
};

// --- the interface -------------------------------------------------------------

Gphoto2Sdk::Gphoto2Sdk(std::shared_ptr<Gphoto2Port> port, Gphoto2Options options)
    : d(std::make_unique<Impl>()) {
    d->port = std::move(port);
    d->options = std::move(options);
}

Gphoto2Sdk::~Gphoto2Sdk() {
    EdsTerminateSDK();
    // Let every queued task that refers to this backend finish.
    for (const auto &c : d->allCores()) {
        drain(c->device);
        drain(c->events);
        drain(c->device);
    }
    std::vector<Object *> left;
    {
        std::lock_guard lock(d->m);
        left.assign(d->live.begin(), d->live.end());
        d->live.clear();
        d->byPort.clear();
    }
    for (Object *o : left)
        delete o;
}

const char *Gphoto2Sdk::libraryPath() const {
    return libgphoto2Path().c_str();
}

EdsError Gphoto2Sdk::EdsInitializeSDK() {
    {
        std::lock_guard lock(d->m);
        if (d->initialized)
            return EDS_ERR_OK;
        d->initialized = true;
    }
    d->startHotplug();
    return EDS_ERR_OK;
}

EdsError Gphoto2Sdk::EdsTerminateSDK() {
    {
        std::lock_guard lock(d->m);
        d->initialized = false;
    }
    d->stopHotplug();
    for (const auto &c : d->allCores())
        c->onDevice([&] { return c->open ? d->closeSession(*c) : EDS_ERR_OK; });
    return EDS_ERR_OK;
}

EdsError Gphoto2Sdk::EdsSetCameraAddedHandler(EdsCameraAddedHandler handler, EdsVoid *context) {
    std::lock_guard lock(d->m);
    d->added = handler;
    d->addedContext = context;
    return EDS_ERR_OK;
}

EdsError Gphoto2Sdk::EdsGetCameraList(EdsCameraListRef *out) {
    if (!out)
        return EDS_ERR_INVALID_POINTER;
    std::vector<DetectedCamera> found;
    const int rc = d->port->autodetect(&found);
    if (rc != gp::OK) {
        Logger::setError(QStringLiteral("gphoto2: camera detection failed: %1")
                             .arg(QString::fromStdString(d->port->describe(rc, 0))));
        return edsErrorFor(rc);
    }
    auto *list = new ListObj;
    std::vector<CameraObj *> dropped;
    {
        std::lock_guard lock(d->m);
        std::set<std::string> present;
        for (const auto &cam : found) {
            if (!d->isCanon(cam) || present.count(cam.port))
                continue;
            present.insert(cam.port);
            CameraObj *&obj = d->byPort[cam.port];
            // A body given up (I/O failures) that detection lists again gets a
            // fresh camera object, which can be opened again.
            if (!obj || obj->core->id.model != cam.model || obj->core->gone) {
                if (obj)
                    dropped.push_back(obj);
                obj = new CameraObj;
                obj->core = std::make_shared<CameraCore>();
                obj->core->impl = d.get();
                obj->core->id = cam;
                obj->core->device = dispatch::makeSerialQueue("com.lumetra.brix.gphoto2.device");
                obj->core->events = dispatch::makeSerialQueue("com.lumetra.brix.gphoto2.events");
                d->live.insert(obj);
            }
            ++obj->refs; // the list's
            list->cameras.push_back(obj);
        }
        for (auto it = d->byPort.begin(); it != d->byPort.end();) {
            if (!present.count(it->first)) {
                dropped.push_back(it->second);
                it = d->byPort.erase(it);
            } else {
                ++it;
            }
        }
        d->live.insert(list);
    }
    for (CameraObj *obj : dropped)
        d->release(obj);
    *out = Impl::ref(list);
    return EDS_ERR_OK;
}

EdsError Gphoto2Sdk::EdsGetChildCount(EdsBaseRef ref, EdsUInt32 *count) {
    auto *list = d->as<ListObj>(ref);
    if (!list)
        return EDS_ERR_INVALID_HANDLE;
    if (!count)
        return EDS_ERR_INVALID_POINTER;
    *count = EdsUInt32(list->cameras.size());
    return EDS_ERR_OK;
}

EdsError Gphoto2Sdk::EdsGetChildAtIndex(EdsBaseRef ref, EdsInt32 index, EdsBaseRef *out) {
    auto *list = d->as<ListObj>(ref);
    if (!list)
        return EDS_ERR_INVALID_HANDLE;
    if (!out)
        return EDS_ERR_INVALID_POINTER;
    if (index < 0 || size_t(index) >= list->cameras.size())
        return EDS_ERR_INVALID_INDEX;
    CameraObj *cam = list->cameras[size_t(index)];
    d->retain(cam);
    *out = Impl::ref(cam);
    return EDS_ERR_OK;
}

EdsError Gphoto2Sdk::EdsGetDeviceInfo(EdsCameraRef ref, EdsDeviceInfo *info) {
    auto *cam = d->as<CameraObj>(ref);
    if (!cam)
        return EDS_ERR_INVALID_HANDLE;
    if (!info)
        return EDS_ERR_INVALID_POINTER;
    std::memset(info, 0, sizeof *info);
    std::strncpy(info->szPortName, cam->core->id.port.c_str(), EDS_MAX_NAME - 1);
    std::strncpy(info->szDeviceDescription, cam->core->id.model.c_str(), EDS_MAX_NAME - 1);
    info->deviceSubType = kEosSubtype;
    return EDS_ERR_OK;
}

EdsUInt32 Gphoto2Sdk::EdsRetain(EdsBaseRef ref) {
    return d->retain(reinterpret_cast<Object *>(ref));
}

EdsUInt32 Gphoto2Sdk::EdsRelease(EdsBaseRef ref) {
    return d->release(reinterpret_cast<Object *>(ref));
}

EdsError Gphoto2Sdk::EdsOpenSession(EdsCameraRef ref) {
    auto *cam = d->as<CameraObj>(ref);
    if (!cam)
        return EDS_ERR_INVALID_HANDLE;
    auto core = cam->core;
    return core->onDevice([&] { return d->openSession(core); });
}

EdsError Gphoto2Sdk::EdsCloseSession(EdsCameraRef ref) {
    auto *cam = d->as<CameraObj>(ref);
    if (!cam)
        return EDS_ERR_INVALID_HANDLE;
    auto core = cam->core;
    return core->onDevice([&] { return d->closeSession(*core); });
}

namespace {
EdsError setRegistration(Gphoto2Sdk::Impl *, CameraCore &c, Registration CameraCore::*which, uint32_t event,
                         void *handler, void *context) {
    std::lock_guard lock(c.handlersMutex);
    c.*which = handler ? Registration{event, handler, context} : Registration{};
    return EDS_ERR_OK;
}
} // namespace

EdsError Gphoto2Sdk::EdsSetCameraStateEventHandler(EdsCameraRef ref, EdsStateEvent event,
                                                   EdsStateEventHandler handler, EdsVoid *context) {
    auto *cam = d->as<CameraObj>(ref);
    if (!cam)
        return EDS_ERR_INVALID_HANDLE;
    return setRegistration(d.get(), *cam->core, &CameraCore::state, event, reinterpret_cast<void *>(handler),
                           context);
}

EdsError Gphoto2Sdk::EdsSetPropertyEventHandler(EdsCameraRef ref, EdsPropertyEvent event,
                                                EdsPropertyEventHandler handler, EdsVoid *context) {
    auto *cam = d->as<CameraObj>(ref);
    if (!cam)
        return EDS_ERR_INVALID_HANDLE;
    auto core = cam->core;
    bool fresh;
    {
        std::lock_guard lock(core->handlersMutex);
        fresh = handler && !core->property.handler;
    }
    setRegistration(d.get(), *core, &CameraCore::property, event, reinterpret_cast<void *>(handler), context);
    if (fresh && core->open)
        core->device->async([impl = d.get(), core] { impl->announceDescriptions(core); });
    return EDS_ERR_OK;
}

EdsError Gphoto2Sdk::EdsSetObjectEventHandler(EdsCameraRef ref, EdsObjectEvent event,
                                              EdsObjectEventHandler handler, EdsVoid *context) {
    auto *cam = d->as<CameraObj>(ref);
    if (!cam)
        return EDS_ERR_INVALID_HANDLE;
    return setRegistration(d.get(), *cam->core, &CameraCore::object, event, reinterpret_cast<void *>(handler),
                           context);
}

EdsError Gphoto2Sdk::EdsGetPropertySize(EdsBaseRef ref, EdsPropertyID id, EdsInt32, EdsDataType *type,
                                        EdsUInt32 *size) {
    auto *cam = d->as<CameraObj>(ref);
    if (!cam)
        return EDS_ERR_INVALID_HANDLE;
    if (!type || !size)
        return EDS_ERR_INVALID_POINTER;
    auto core = cam->core;
    Value v;
    const EdsError e = core->onDevice([&] { return d->readProperty(*core, id, &v); });
    if (e != EDS_ERR_OK)
        return e;
    *type = v.type;
    *size = v.size();
    return EDS_ERR_OK;
}

EdsError Gphoto2Sdk::EdsGetPropertyData(EdsBaseRef ref, EdsPropertyID id, EdsInt32, EdsUInt32 size,
                                        EdsVoid *data) {
    auto *cam = d->as<CameraObj>(ref);
    if (!cam)
        return EDS_ERR_INVALID_HANDLE;
    if (!data)
        return EDS_ERR_INVALID_POINTER;
    auto core = cam->core;
    Value v;
    const EdsError e = core->onDevice([&] { return d->readProperty(*core, id, &v); });
    if (e != EDS_ERR_OK)
        return e;
    auto *out = static_cast<char *>(data);
    switch (v.type) {
    case kEdsDataType_String: {
        if (size == 0)
            return EDS_ERR_INVALID_LENGTH;
        const size_t n = std::min<size_t>(v.text.size(), size - 1);
        std::memcpy(out, v.text.data(), n);
        out[n] = '\0';
        return EDS_ERR_OK;
    }
    case kEdsDataType_Time:
        if (size < sizeof(EdsTime))
            return EDS_ERR_INVALID_LENGTH;
        std::memcpy(out, &v.time, sizeof(EdsTime));
        return EDS_ERR_OK;
    default:
        if (size < 4)
            return EDS_ERR_INVALID_LENGTH;
        std::memcpy(out, &v.number, 4);
        return EDS_ERR_OK;
    }
}

EdsError Gphoto2Sdk::EdsSetPropertyData(EdsBaseRef ref, EdsPropertyID id, EdsInt32, EdsUInt32 size,
                                        const EdsVoid *data) {
    auto *cam = d->as<CameraObj>(ref);
    if (!cam)
        return EDS_ERR_INVALID_HANDLE;
    if (!data)
        return EDS_ERR_INVALID_POINTER;
    const PropertySpec *spec = propertySpec(id);
    if (!spec)
        return EDS_ERR_PROPERTIES_UNAVAILABLE;
    const auto *in = static_cast<const char *>(data);
    Value v;
    v.type = spec->dataType;
    switch (v.type) {
    case kEdsDataType_String:
        v.text.assign(in, strnlen(in, size));
        break;
    case kEdsDataType_Time:
        if (size < sizeof(EdsTime))
            return EDS_ERR_INVALID_LENGTH;
        std::memcpy(&v.time, in, sizeof(EdsTime));
        break;
    default:
        if (size < 4)
            return EDS_ERR_INVALID_LENGTH;
        std::memcpy(&v.number, in, 4);
        break;
    }
    auto core = cam->core;
    return core->onDevice([&] { return d->writeProperty(core, id, v); });
}

EdsError Gphoto2Sdk::EdsGetPropertyDesc(EdsBaseRef ref, EdsPropertyID id, EdsPropertyDesc *desc) {
    auto *cam = d->as<CameraObj>(ref);
    if (!cam)
        return EDS_ERR_INVALID_HANDLE;
    if (!desc)
        return EDS_ERR_INVALID_POINTER;
    const PropertySpec *spec = propertySpec(id);
    if (!spec)
        return EDS_ERR_PROPERTIES_UNAVAILABLE;
    auto core = cam->core;
    return core->onDevice([&]() -> EdsError {
        if (EdsError e = Impl::usable(*core))
            return e;
        std::memset(desc, 0, sizeof *desc);
        desc->access = 1;
        if (spec->kind == PropertyKind::SaveTo) {
            if (!d->has(*core, kWidgetCaptureTarget))
                return EDS_ERR_PROPERTIES_UNAVAILABLE;
            desc->numElements = 2;
            desc->propDesc[0] = EdsInt32(kEdsSaveTo_Camera);
            desc->propDesc[1] = EdsInt32(kEdsSaveTo_Host);
            return EDS_ERR_OK;
        }
        if (spec->kind != PropertyKind::Table && spec->kind != PropertyKind::ImageQuality)
            return EDS_ERR_OK; // no list of values
        Widget w;
        const int rc = d->readWidget(*core, *spec, &w);
        if (rc == gp::NotSupported)
            return EDS_ERR_PROPERTIES_UNAVAILABLE;
        if (rc != gp::OK)
            return d->fail(*core, QStringLiteral("reading %1").arg(QString::fromStdString(w.name)), rc);
        desc->access = w.readOnly ? 0 : 1;
        std::vector<uint32_t> values;
        for (const auto &choice : w.choices) {
            auto v = valueForLabel(id, choice, w.choices);
            if (!v) {
                Logger::setDebug(QStringLiteral("gphoto2: no value for the choice \"%1\" of %2")
                                     .arg(QString::fromStdString(choice), QString::fromStdString(w.name)));
                continue;
            }
            if (std::find(values.begin(), values.end(), *v) == values.end())
                values.push_back(*v);
        }
        if (id == kEdsPropID_AEMode && w.choices.size() > kWholeAeModeTable) {
            // The body sent no list of modes (a body with a mode dial does
            // not), and libgphoto2 then offers every mode it knows of. Only
            // the dial's mode can be had.
            values.clear();
            if (auto current = valueForLabel(id, w.text, w.choices))
                values.push_back(*current);
        }
        const size_t n = std::min<size_t>(values.size(), std::size(desc->propDesc));
        for (size_t i = 0; i < n; ++i)
            desc->propDesc[i] = EdsInt32(values[i]);
        desc->numElements = EdsInt32(n);
        return EDS_ERR_OK;
    });
}

EdsError Gphoto2Sdk::EdsSendCommand(EdsCameraRef ref, EdsCameraCommand command, EdsInt32 param) {
    auto *cam = d->as<CameraObj>(ref);
    if (!cam)
        return EDS_ERR_INVALID_HANDLE;
    auto core = cam->core;
    return core->onDevice([&] { return d->command(core, command, param); });
}

EdsError Gphoto2Sdk::EdsSendStatusCommand(EdsCameraRef ref, EdsCameraStatusCommand command, EdsInt32) {
    auto *cam = d->as<CameraObj>(ref);
    if (!cam)
        return EDS_ERR_INVALID_HANDLE;
    if (command != kEdsCameraStatusCommand_UILock && command != kEdsCameraStatusCommand_UIUnLock)
        return EDS_ERR_NOT_SUPPORTED;
    auto core = cam->core;
    return core->onDevice([&]() -> EdsError {
        if (EdsError e = Impl::usable(*core))
            return e;
        if (!d->has(*core, kWidgetUiLock))
            return EDS_ERR_NOT_SUPPORTED;
        const int rc = d->port->setWidget(core->handle, kWidgetUiLock,
                                          Impl::intValue(command == kEdsCameraStatusCommand_UILock ? 1 : 0));
        return rc == gp::OK ? EDS_ERR_OK : d->fail(*core, QStringLiteral("setting the UI lock"), rc);
    });
}

EdsError Gphoto2Sdk::EdsSetCapacity(EdsCameraRef ref, EdsCapacity capacity) {
    auto *cam = d->as<CameraObj>(ref);
    if (!cam)
        return EDS_ERR_INVALID_HANDLE;
    if (EdsError e = Impl::usable(*cam->core))
        return e;
    // libgphoto2 tells an EOS body the host's free space itself whenever the
    // capture target becomes the host; nothing to forward.
    Logger::setVerbose(
        QStringLiteral("gphoto2: host capacity %1 clusters of %2 bytes (reported by libgphoto2)")
            .arg(capacity.numberOfFreeClusters)
            .arg(capacity.bytesPerSector));
    return EDS_ERR_OK;
}

EdsError Gphoto2Sdk::EdsGetDirectoryItemInfo(EdsDirectoryItemRef ref, EdsDirectoryItemInfo *info) {
    auto *item = d->as<ItemObj>(ref);
    if (!item)
        return EDS_ERR_INVALID_HANDLE;
    if (!info)
        return EDS_ERR_INVALID_POINTER;
    std::memset(info, 0, sizeof *info);
    std::strncpy(info->szFileName, item->name.c_str(), EDS_MAX_NAME - 1);
    if (item->fetched) {
        info->size = item->fetched->size();
        info->dateTime = EdsUInt32(item->mtime);
        return EDS_ERR_OK;
    }
    auto core = item->core;
    return core->onDevice([&]() -> EdsError {
        if (EdsError e = Impl::usable(*core))
            return e;
        FileInfo fi;
        const int rc = d->port->fileInfo(core->handle, item->folder, item->name, &fi);
        if (rc != gp::OK)
            return d->fail(*core, QStringLiteral("reading the size of %1").arg(item->name.c_str()), rc);
        info->size = fi.size;
        info->dateTime = EdsUInt32(fi.mtime);
        return EDS_ERR_OK;
    });
}

EdsError Gphoto2Sdk::EdsCreateMemoryStreamFromPointer(EdsVoid *buffer, EdsUInt64 size, EdsStreamRef *out) {
    if (!out || (!buffer && size > 0))
        return EDS_ERR_INVALID_POINTER;
    auto *stream = new StreamObj;
    stream->buffer = static_cast<char *>(buffer);
    stream->capacity = size;
    *out = Impl::ref(d->add(stream));
    return EDS_ERR_OK;
}

EdsError Gphoto2Sdk::EdsSetProgressCallback(EdsBaseRef ref, EdsProgressCallback fn, EdsProgressOption option,
                                            EdsVoid *context) {
    const Progress p{fn, option, context};
    if (auto *stream = d->as<StreamObj>(ref)) {
        stream->progress = p;
        return EDS_ERR_OK;
    }
    if (auto *item = d->as<ItemObj>(ref)) {
        item->progress = p;
        return EDS_ERR_OK;
    }
    return EDS_ERR_INVALID_HANDLE;
}

EdsError Gphoto2Sdk::EdsDownload(EdsDirectoryItemRef itemRef, EdsUInt64 readSize, EdsStreamRef streamRef) {
    auto *item = d->as<ItemObj>(itemRef);
    auto *stream = d->as<StreamObj>(streamRef);
    if (!item || !stream)
        return EDS_ERR_INVALID_HANDLE;
    if (readSize > stream->capacity - stream->position)
        return EDS_ERR_STREAM_WRITE_ERROR;
    const Progress progress = stream->progress.fn ? stream->progress : item->progress;
    auto core = item->core;
    auto report = [&](uint64_t done) -> bool {
        if (!progress.fn || progress.option == kEdsProgressOption_NoReport)
            return false;
        if (progress.option == kEdsProgressOption_Done && done < readSize)
            return false;
        EdsBool cancel = 0;
        const EdsUInt32 percent = readSize ? EdsUInt32(done * 100 / readSize) : 100;
        progress.fn(percent, progress.context, &cancel);
        return cancel != 0;
    };
    uint64_t done = 0;
    while (done < readSize) {
        uint64_t got = std::min<uint64_t>(d->options.downloadChunk, readSize - done);
        int rc = gp::OK;
        if (item->fetched) {
            got = std::min<uint64_t>(got,
                                     item->fetched->size() - std::min<uint64_t>(done, item->fetched->size()));
            std::memcpy(stream->buffer + stream->position, item->fetched->data() + done, got);
        }
        EdsError e = item->fetched ? EDS_ERR_OK : core->onDevice([&]() -> EdsError {
            if (EdsError u = Impl::usable(*core))
                return u;
            rc = d->port->readFile(core->handle, item->folder, item->name, done,
                                   stream->buffer + stream->position, &got);
            if (rc == gp::NotSupported && done == 0) {
                // The driver reads whole files only: one transfer, one report.
                std::string whole;
                rc = d->port->getFile(core->handle, item->folder, item->name, &whole);
                if (rc == gp::OK) {
                    got = std::min<uint64_t>(whole.size(), readSize);
                    std::memcpy(stream->buffer + stream->position, whole.data(), got);
                }
            }
            return rc == gp::OK
                       ? EDS_ERR_OK
                       : d->fail(*core, QStringLiteral("downloading %1").arg(item->name.c_str()), rc);
        });
        if (e != EDS_ERR_OK)
            return e;
        if (got == 0) {
            Logger::setError(QStringLiteral("gphoto2: %1 ended after %2 of %3 bytes")
                                 .arg(QString::fromStdString(item->name))
                                 .arg(done)
                                 .arg(readSize));
            return EDS_ERR_STREAM_END_OF_STREAM;
        }
        done += got;
        stream->position += got;
        if (report(done)) {
            Logger::setDebug(QStringLiteral("gphoto2: download of %1 cancelled at %2 bytes")
                                 .arg(QString::fromStdString(item->name))
                                 .arg(done));
            return EDS_ERR_OPERATION_CANCELLED;
        }
    }
    return EDS_ERR_OK;
}

EdsError Gphoto2Sdk::EdsDownloadComplete(EdsDirectoryItemRef ref) {
    auto *item = d->as<ItemObj>(ref);
    if (!item)
        return EDS_ERR_INVALID_HANDLE;
    if (item->fetched) // already let go when it was fetched
        return EDS_ERR_OK;
    auto core = item->core;
    return core->onDevice([&]() -> EdsError {
        if (EdsError e = Impl::usable(*core))
            return e;
        // A shot kept in the camera's memory (capture target "Internal RAM")
        // stays there until the host lets it go.
        if (core->captureTarget == kCaptureTargetHost) {
            const int rc = d->port->deleteFile(core->handle, item->folder, item->name);
            if (rc != gp::OK && rc != gp::NotSupported)
                Logger::setDebug(QStringLiteral("gphoto2: releasing %1 from the camera's memory: %2")
                                     .arg(QString::fromStdString(item->name),
                                          QString::fromStdString(d->port->describe(rc, core->handle))));
        }
        return EDS_ERR_OK;
    });
}

EdsError Gphoto2Sdk::EdsCreateEvfImageRef(EdsStreamRef ref, EdsEvfImageRef *out) {
    auto *stream = d->as<StreamObj>(ref);
    if (!stream)
        return EDS_ERR_INVALID_HANDLE;
    if (!out)
        return EDS_ERR_INVALID_POINTER;
    d->retain(stream);
    auto *evf = new EvfObj;
    evf->stream = stream;
    *out = Impl::ref(d->add(evf));
    return EDS_ERR_OK;
}

EdsError Gphoto2Sdk::EdsDownloadEvfImage(EdsCameraRef ref, EdsEvfImageRef evfRef) {
    auto *cam = d->as<CameraObj>(ref);
    auto *evf = d->as<EvfObj>(evfRef);
    if (!cam || !evf)
        return EDS_ERR_INVALID_HANDLE;
    auto core = cam->core;
    return core->onDevice([&]() -> EdsError {
        if (EdsError e = Impl::usable(*core))
            return e;
        if (!core->liveView)
            return EDS_ERR_OBJECT_NOTREADY;
        std::string jpeg;
        const int rc = d->port->capturePreview(core->handle, &jpeg);
        if (rc == gp::CameraBusy)
            return EDS_ERR_OBJECT_NOTREADY;
        if (rc == gp::Error) {
            // An EOS body answers "not ready" while it refocuses or writes a
            // shot; libgphoto2 asks again for 3 s and then gives up with a
            // plain error. A stall, not the end of live view: the next frame
            // is asked for as usual.
            Logger::setVerbose(QStringLiteral("gphoto2: no live-view frame from %1: %2")
                                   .arg(QString::fromStdString(core->id.model),
                                        QString::fromStdString(d->port->describe(rc, core->handle))));
            return EDS_ERR_OBJECT_NOTREADY;
        }
        if (rc != gp::OK)
            return d->fail(*core, QStringLiteral("reading a live-view frame"), rc);
        if (jpeg.empty())
            return EDS_ERR_OBJECT_NOTREADY;
        StreamObj *stream = evf->stream;
        if (jpeg.size() > stream->capacity)
            return EDS_ERR_STREAM_WRITE_ERROR;
        std::memcpy(stream->buffer, jpeg.data(), jpeg.size());
        stream->position = jpeg.size();
        return EDS_ERR_OK;
    });
}

long Gphoto2Sdk::callerReferences() {
    std::lock_guard lock(d->m);
    long total = 0;
    for (Object *o : d->live) {
        total += long(o->refs.load());
        // A list's and an image's holds on what they contain are the backend's.
        if (auto *list = dynamic_cast<ListObj *>(o))
            total -= long(list->cameras.size());
        if (dynamic_cast<EvfObj *>(o))
            total -= 1;
    }
    return total - long(d->byPort.size());
}

dispatch::QueuePtr Gphoto2Sdk::hotplugQueue() const {
    return d->hotplug;
}

EdsUInt64 Gphoto2Sdk::streamPosition(EdsStreamRef ref) {
    auto *stream = d->as<StreamObj>(ref);
    return stream ? stream->position : ~EdsUInt64(0);
}

} // namespace brix::gphoto2

namespace brix::eds {

std::unique_ptr<EdsSdk> createGphoto2Sdk(std::string *why) {
    auto port = gphoto2::makeLibGphoto2Port();
    if (port->driverCount() <= 0) {
        if (why)
            *why = "libgphoto2 found no camera drivers (is the libgphoto2-6 package complete?)";
        return nullptr;
    }
    return std::make_unique<gphoto2::Gphoto2Sdk>(std::move(port));
}

} // namespace brix::eds
