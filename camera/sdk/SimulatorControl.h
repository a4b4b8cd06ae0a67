// Control of the simulated camera from outside the SDK interface: plugging and
// unplugging bodies, the shutter button on the body, settings changed on the
// body, error injection, the shot format, and reference accounting for tests.
// Implemented by the simulator backend (camera/simulator); code above the
// boundary reaches it only through this header.
//
// Threads: every operation may be called from any thread. Events that an
// operation causes (camera added, property, state and object events) are
// delivered later on the simulator's event thread.
// Ownership: simulatorControl() returns a view of the sdk, owned by it.
#pragma once

#include "EdsSdk.h"

#include <QObject>
#include <QString>
#include <QVariant>

#include <memory>
#include <string>
#include <vector>

namespace brix::eds {

// Model of a simulated body when none is named.
inline constexpr const char *kSimulatorDefaultModel = "Canon EOS 5D Mark IV";
// Label of the simulator's event queue; all callbacks but progress run there.
inline constexpr const char *kSimulatorEventQueueLabel = "com.lumetra.brix.simulator.events";

// D-Bus names under which the control is exported.
inline constexpr const char *kSimulatorBusName = "com.lumetra.BrixCanonCapture.Simulator";
inline constexpr const char *kSimulatorObjectPath = "/com/lumetra/brix/Simulator";
inline constexpr const char *kSimulatorInterface = "com.lumetra.brix.Simulator";

class SimulatorControl {
public:
    virtual ~SimulatorControl() = default;

    // Attaches a body. An empty model takes $BRIX_SIM_MODEL, else the default.
    // Legacy models (subtype 0, they need the UI lock for property access and
    // commands) are the older bodies in isLegacyModelName(); `subtype` -1
    // derives it from the name. Returns the number of attached bodies.
    virtual int plug(const std::string &model = {}, int subtype = -1) = 0;
    // Detaches the body plugged last; a body with an open session reports
    // shutdown (0x301). False when none was attached.
    virtual bool unplug() = 0;
    virtual int attachedCount() const = 0;

    // The shutter button pressed fully on the body of the active camera (the
    // one with an open session, else the first attached). False without a body.
    virtual bool pressShutter() = 0;
    // A value changed on the body: property event 0x101, and 0x102 for the
    // descriptions that depend on it. Returns the SDK code.
    virtual EdsError setProperty(EdsPropertyID propertyID, EdsUInt32 value) = 0;
    virtual EdsError setStringProperty(EdsPropertyID propertyID, const std::string &value) = 0;
    // Replaces the supported values of a property (event 0x102).
    virtual EdsError setSupportedValues(EdsPropertyID propertyID, const std::vector<EdsInt32> &values) = 0;
    // The current value: an unsigned number, a string or, for DateTime, a
    // "yyyy-MM-dd HH:mm:ss" string. Invalid when there is no such property/body.
    virtual QVariant property(EdsPropertyID propertyID) const = 0;

    // The next `count` calls of the operation fail with `code`. Operations are
    // named like the SDK's ("EdsSendCommand", "EdsDownload", ...; the "Eds"
    // prefix may be left out); the camera commands may also be named alone
    // ("TakePicture", "PressShutterButton", "BulbStart", "BulbEnd",
    // "ExtendShutDownTimer", "DoEvfAf", "DriveLensEvf", "DoClickWBEvf").
    // A count of 0 removes the injection. False for an unknown name.
    virtual bool injectError(const std::string &operation, EdsError code, unsigned count) = 0;
    // Format of the next shots: "JPG" or "CR2", and their size in bytes (0 =
    // the natural size of the rendered image; a size below it gives the
    // natural size). False for an unknown extension.
    virtual bool setShotFormat(const std::string &extension, uint64_t bytes) = 0;
    // Live-view frames per second (default 10, or $BRIX_SIM_EVF_FPS).
    virtual void setLiveViewRate(double framesPerSecond) = 0;
    // On: the body draws one picture for the current format, size and model
    // and every shot is that file with the shot's number written into a part
    // no viewer shows (a JPEG's padding segment, a CR2's sensor data). Firing
    // then costs next to nothing and the body keeps one file however many
    // shots wait, so a benchmark measures the host, not the body. Off (the
    // default): each shot is drawn with its own number and time.
    virtual void setStampedShots(bool on) = 0;
    // The body's link held to this many bytes a second during EdsDownload, as
    // a USB 2 or USB 3 body would be; 0 (the default) moves bytes at memory speed.
    virtual void setTransferRate(double bytesPerSecond) = 0;
    // The body's own buffer: shots offered to the host and not yet downloaded,
    // and the bytes of memory the body holds for shots (each distinct file
    // once, the stamped shots' picture included).
    struct ShotBuffer {
        unsigned shots = 0;
        uint64_t bytes = 0;
    };
    virtual ShotBuffer shotBuffer() const = 0;

    // Shots taken by all bodies since the simulator was made.
    virtual unsigned shotCount() const = 0;
    // Counts of references that callers of the SDK interface hold now; 0 when
    // every retain and creation has been paired with a release.
    virtual long callerReferenceCount() const = 0;
    // Objects alive in the simulator (bodies, pending shots, streams, ...).
    virtual long liveObjectCount() const = 0;

    static bool isLegacyModelName(const std::string &model);
};

// The control of `sdk` when it is the simulator, else null.
SimulatorControl *simulatorControl(EdsSdk &sdk);

// Owns the session-bus name kSimulatorBusName and exports the control of `sdk`
// at kSimulatorObjectPath, until the returned object is destroyed (which must
// happen before `sdk` goes). Null, with the reason in `why`, when `sdk` is not
// the simulator or the bus cannot be had. Call on the main thread.
std::unique_ptr<QObject> exportSimulatorControl(EdsSdk &sdk, QString *why = nullptr);

} // namespace brix::eds
