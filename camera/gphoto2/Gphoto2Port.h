// The one adapter between the gphoto2 backend and libgphoto2: camera
// detection, opening a camera on a port, the configuration widget tree, events,
// capture, chunked file reads and live-view previews. Everything above this
// interface speaks in plain values (names, labels, numbers, bytes), so a test
// double can replay an EOS body's widget tree and event sequence.
//
// Threads: autodetect/openCamera/closeCamera may be called from any thread (the
// real adapter serialises them). Every call that takes a handle must come from
// the one thread that owns that camera: libgphoto2 is not thread-safe per camera.
// Ownership: a handle is owned by whoever opened it and is given back with
// closeCamera. Results are libgphoto2 codes (GP_OK = 0, negative = error).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace brix::gphoto2 {

// libgphoto2 result codes the backend tells apart (from gphoto2-result.h and
// gphoto2-port-result.h; repeated here so that the backend and its tests do not
// need the library headers).
namespace gp {
inline constexpr int OK = 0;
inline constexpr int Error = -1;
inline constexpr int BadParameters = -2;
inline constexpr int NoMemory = -3;
inline constexpr int Library = -4;
inline constexpr int UnknownPort = -5;
inline constexpr int NotSupported = -6;
inline constexpr int Io = -7;
inline constexpr int FixedLimitExceeded = -8;
inline constexpr int Timeout = -10;
inline constexpr int IoSupportedSerial = -20;
inline constexpr int IoSupportedUsb = -21;
inline constexpr int IoInit = -31;
inline constexpr int IoRead = -34;
inline constexpr int IoWrite = -35;
inline constexpr int IoUpdate = -37;
inline constexpr int IoSerialSpeed = -41;
inline constexpr int IoUsbClearHalt = -51;
inline constexpr int IoUsbFind = -52;
inline constexpr int IoUsbClaim = -53;
inline constexpr int IoLock = -60;
inline constexpr int Hal = -70;
inline constexpr int CorruptedData = -102;
inline constexpr int FileExists = -103;
inline constexpr int ModelNotFound = -105;
inline constexpr int DirectoryNotFound = -107;
inline constexpr int FileNotFound = -108;
inline constexpr int DirectoryExists = -109;
inline constexpr int CameraBusy = -110;
inline constexpr int PathNotAbsolute = -111;
inline constexpr int Cancel = -112;
inline constexpr int CameraError = -113;
inline constexpr int OsFailure = -114;
inline constexpr int NoSpace = -115;
} // namespace gp

// One camera found by autodetect: the driver's model name and the port path
// ("usb:001,005", "disk:/media/card").
struct DetectedCamera {
    std::string model;
    std::string port;
    bool operator==(const DetectedCamera &) const = default;
};

// One leaf of the configuration tree, read or to be written.
struct Widget {
    enum class Type { Text, Range, Toggle, Radio, Menu, Date, Button, Section };
    std::string name;  // "aperture"
    std::string label; // "Aperture"
    Type type = Type::Text;
    bool readOnly = false;
    std::string text;                 // Text, Radio, Menu: the current label
    float number = 0;                 // Range
    int integer = 0;                  // Toggle (0/1/2), Date (seconds since the epoch)
    std::vector<std::string> choices; // Radio, Menu
    float rangeMin = 0, rangeMax = 0, rangeStep = 0;
};

struct Event {
    enum class Type { Timeout, Unknown, FileAdded, FolderAdded, CaptureComplete, FileChanged };
    Type type = Type::Timeout;
    std::string text;   // Unknown: the driver's text ("PTP Property d101 changed, ...")
    std::string folder; // FileAdded/FileChanged/FolderAdded
    std::string name;
};

struct FileInfo {
    uint64_t size = 0;
    int64_t mtime = 0; // seconds since the epoch, 0 when unknown
    std::string mimeType;
};

class Gphoto2Port {
public:
    using Handle = uint64_t;

    virtual ~Gphoto2Port() = default;

    // Number of camera drivers the library loaded; 0 means it cannot work here.
    virtual int driverCount() = 0;
    virtual int autodetect(std::vector<DetectedCamera> *cameras) = 0;
    // Opens (initialises) the camera on that port with the driver of that model.
    virtual int openCamera(const DetectedCamera &camera, Handle *handle) = 0;
    virtual void closeCamera(Handle handle) = 0;

    // All leaves of the configuration tree, in tree order.
    virtual int listWidgets(Handle handle, std::vector<Widget> *widgets) = 0;
    virtual int getWidget(Handle handle, const std::string &name, Widget *widget) = 0;
    // Writes the value fields of `value` that fit the widget's type.
    virtual int setWidget(Handle handle, const std::string &name, const Widget &value) = 0;

    virtual int waitForEvent(Handle handle, int timeoutMs, Event *event) = 0;
    virtual int triggerCapture(Handle handle) = 0;
    virtual int fileInfo(Handle handle, const std::string &folder, const std::string &name,
                         FileInfo *info) = 0;
    // Reads up to *size bytes at offset; *size receives the count read.
    virtual int readFile(Handle handle, const std::string &folder, const std::string &name, uint64_t offset,
                         char *buffer, uint64_t *size) = 0;
    // The whole file at once, for drivers that cannot read parts of a file.
    virtual int getFile(Handle handle, const std::string &folder, const std::string &name,
                        std::string *data) = 0;
    virtual int deleteFile(Handle handle, const std::string &folder, const std::string &name) = 0;
    // One live-view frame (JPEG bytes).
    virtual int capturePreview(Handle handle, std::string *jpeg) = 0;

    // Text of a result code, with the driver's own message of the last failed
    // call on that handle when there was one (0 = no handle).
    virtual std::string describe(int result, Handle handle) = 0;
};

// The adapter on the installed libgphoto2.
std::shared_ptr<Gphoto2Port> makeLibGphoto2Port();
// Path of the loaded libgphoto2 library image; empty when it cannot be told.
const std::string &libgphoto2Path();

} // namespace brix::gphoto2
