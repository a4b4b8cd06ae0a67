#include "EosBody.h"

#include "SimulatorImages.h"

#include <libusb.h>

#include <QDateTime>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <fcntl.h>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <thread>
#include <unistd.h>
#include <vector>

namespace brix::eosbody {

namespace {

using Clock = std::chrono::steady_clock;

// PTP container types, response codes, operations and event records (the
// numbers are those of the PTP standard and of Canon's EOS extension).
constexpr uint16_t kCommand = 1, kData = 2, kResponse = 3;
constexpr uint16_t kOk = 0x2001, kGeneralError = 0x2002, kSessionNotOpen = 0x2003,
                   kInvalidObjectHandle = 0x2009, kNotSupported = 0x2005, kDeviceBusy = 0x2019,
                   kNotReady = 0xA102;
enum Op : uint16_t {
    GetDeviceInfo = 0x1001,
    OpenSession = 0x1002,
    CloseSession = 0x1003,
    GetStorageIDs = 0x1004,
    GetObjectHandles = 0x1007,
    GetPartialObject = 0x101B,
    EosGetStorageIDs = 0x9101,
    EosGetStorageInfo = 0x9102,
    EosSetDevicePropValueEx = 0x9110,
    EosSetRemoteMode = 0x9114,
    EosSetEventMode = 0x9115,
    EosGetEvent = 0x9116,
    EosTransferComplete = 0x9117,
    EosPCHDDCapacity = 0x911A,
    EosSetUILock = 0x911B,
    EosResetUILock = 0x911C,
    EosKeepDeviceOn = 0x911D,
    EosRequestDevicePropValue = 0x9127,
    EosRemoteReleaseOn = 0x9128,
    EosRemoteReleaseOff = 0x9129,
    EosInitiateViewfinder = 0x9151,
    EosTerminateViewfinder = 0x9152,
    EosGetViewFinderData = 0x9153,
};
constexpr uint16_t kOperations[] = {GetDeviceInfo,          OpenSession,         CloseSession,
                                    GetStorageIDs,          GetObjectHandles,    GetPartialObject,
                                    EosGetStorageIDs,       EosGetStorageInfo,   EosSetDevicePropValueEx,
                                    EosSetRemoteMode,       EosSetEventMode,     EosGetEvent,
                                    EosTransferComplete,    EosPCHDDCapacity,    EosSetUILock,
                                    EosResetUILock,         EosKeepDeviceOn,     EosRequestDevicePropValue,
                                    EosRemoteReleaseOn,     EosRemoteReleaseOff, EosInitiateViewfinder,
                                    EosTerminateViewfinder, EosGetViewFinderData};
constexpr uint32_t kEventRequestObjectTransfer = 0xC186, kEventPropValueChanged = 0xC189,
                   kEventAvailListChanged = 0xC18A;
constexpr uint16_t kFormatJpeg = 0x3801, kFormatCr2 = 0xB103;
constexpr uint32_t kCardStorage = 0x00020001;
constexpr uint32_t kDestinationCard = 2, kDestinationHost = 4;

// The EOS device properties the body acts on (the others it only reports,
// see factorySettings).
enum Prop : uint32_t {
    AvailableShots = 0xD11B,
    CaptureDestination = 0xD11C,
    ImageFormat = 0xD120,
    SerialNumber = 0xD1AF,
    EVFOutputDevice = 0xD1B0,
    EVFMode = 0xD1B1,
    FocusInfoEx = 0xD1D3,
};

constexpr const char *kModel = "Canon EOS 5D Mark IV";
// Image formats in libgphoto2's condensed form: size, compression|RAW flag
// of the first entry, then of the second. Large fine JPEG; RAW + large fine JPEG.
constexpr uint32_t kJpegLargeFine = 0x0300, kRawAndJpegLargeFine = 0x0C03;

class Writer {
public:
    void u8(uint8_t v) { b.push_back(char(v)); }
    void u16(uint16_t v) {
        u8(uint8_t(v));
        u8(uint8_t(v >> 8));
    }
    void u32(uint32_t v) {
        u16(uint16_t(v));
        u16(uint16_t(v >> 16));
    }
    void u64(uint64_t v) {
        u32(uint32_t(v));
        u32(uint32_t(v >> 32));
    }
    // A PTP string: character count including the terminator, UCS-2 characters.
    void str(const std::string &s) {
        if (s.empty())
            return u8(0);
        u8(uint8_t(s.size() + 1));
        for (char c : s)
            u16(uint8_t(c));
        u16(0);
    }
    void array16(const std::vector<uint16_t> &v) {
        u32(uint32_t(v.size()));
        for (auto x : v)
            u16(x);
    }
    void bytes(const std::string &s) { b += s; }
    std::string b;
};

uint32_t le32(const char *p) {
    const auto *u = reinterpret_cast<const unsigned char *>(p);
    return uint32_t(u[0]) | uint32_t(u[1]) << 8 | uint32_t(u[2]) << 16 | uint32_t(u[3]) << 24;
}

// One image-format value packed as the body sends it (see kJpegLargeFine).
void packImageFormat(Writer &w, uint32_t v) {
    const bool two = (v & 0xFF) != 0;
    w.u32(two ? 2 : 1);
    auto entry = [&](uint32_t size, uint32_t compression) {
        w.u32(0x10);
        w.u32((compression & 8) ? 6 : 1);
        w.u32(size);
        w.u32(compression & 7);
    };
    entry((v >> 12) & 0xF, (v >> 8) & 0xF);
    if (two)
        entry((v >> 4) & 0xF, v & 0xF);
}

uint32_t unpackImageFormat(const std::string &d) {
    if (d.size() < 20)
        return 0;
    const uint32_t n = le32(d.data());
    auto entry = [&](size_t at) {
        const uint32_t type = le32(d.data() + at + 4), size = le32(d.data() + at + 8),
                       compression = le32(d.data() + at + 12) | (type == 6 ? 8 : 0);
        return (size & 0xF) << 4 | (compression & 0xF);
    };
    uint32_t v = entry(4) << 8;
    if (n == 2 && d.size() >= 36)
        v |= entry(20);
    return v;
}

// A record as GetEvent and GetViewFinderData send them: its length, its type
// and words, then `tail`.
std::string record(uint32_t type, std::initializer_list<uint32_t> words, const std::string &tail = {}) {
    Writer w;
    w.u32(uint32_t(8 + 4 * words.size() + tail.size()));
    w.u32(type);
    for (uint32_t x : words)
        w.u32(x);
    w.bytes(tail);
    return w.b;
}

} // namespace

struct EosBody::State {
    // Integers travel in 32 bits both ways, whatever their PTP type.
    enum class Kind { Int, Str, ImageFormat, FocusInfo };
    struct Property {
        Kind kind = Kind::Int;
        uint32_t value = 0;
        std::string text;
        std::vector<uint32_t> available;
    };
    struct Object {
        std::string name;
        uint16_t format = kFormatJpeg;
        QByteArray bytes;
    };
    struct Command {
        uint16_t code = 0;
        uint32_t transaction = 0;
        uint32_t p[5] = {};
        std::string data;
    };
    struct Pending {
        int polls = 0;
        std::string record;
    };

    std::mutex m;
    bool plugged = false, session = false, claimed = false;
    int address = 5;
    std::string out;                // bulk-out bytes not yet a whole container
    std::optional<Command> command; // the operation waiting for its data or for the host's read
    std::deque<std::string> in;     // containers for the host to read
    size_t inOffset = 0;            // bytes of the first one already read
    bool poisoned = false;          // the next data phase fails on the cable

    std::map<uint32_t, Property> props;
    std::vector<std::string> events; // records for the next GetEvent
    std::vector<Pending> pending;    // records that need more polls
    bool announcedAll = false;
    std::map<uint32_t, Object> objects;
    uint32_t nextHandle = 0x90000001;

    int shots = 0, failTransfers = 0, failIo = 0, busy = 0, transferPolls = 2;
    uint64_t speed = 0;
    uint64_t shotBytes = 0; // 0 = the picture's natural size
    Clock::time_point notReadyUntil;
    uint64_t frame = 0;
    int controlFd = -1;
    std::string controlPartial;

    State() { factorySettings(); }

    void factorySettings() {
        props.clear();
        objects.clear();
        events.clear();
        pending.clear();
        announcedAll = false;
        failTransfers = failIo = busy = 0;
        transferPolls = 2;
        speed = shotBytes = 0;
        claimed = false;
        notReadyUntil = {};
        auto add = [&](uint32_t code, uint32_t v, std::vector<uint32_t> avail = {}, Kind k = Kind::Int) {
            props[code] = Property{k, v, {}, std::move(avail)};
        };
        // Aperture, shutter speed, ISO and exposure compensation, in third stops.
        add(0xD101, 0x30,
            {0x20, 0x23, 0x25, 0x28, 0x2B, 0x2D, 0x30, 0x33, 0x35, 0x38, 0x3B, 0x3D, 0x40, 0x43, 0x45, 0x48,
             0x4B, 0x4D, 0x50});
        add(0xD102, 0x68, {0x48, 0x4B, 0x4D, 0x50, 0x53, 0x55, 0x58, 0x5B, 0x5D, 0x60, 0x63, 0x65,
                           0x68, 0x6B, 0x6D, 0x70, 0x73, 0x75, 0x78, 0x7B, 0x7D, 0x80, 0x83, 0x85,
                           0x88, 0x8B, 0x8D, 0x90, 0x93, 0x95, 0x98, 0x9B, 0x9D, 0xA0});
        add(0xD103, 0x48, {0x00, 0x48, 0x4B, 0x4D, 0x50, 0x53, 0x55, 0x58, 0x5B, 0x5D,
                           0x60, 0x63, 0x65, 0x68, 0x6B, 0x6D, 0x70, 0x73, 0x75, 0x78});
        add(0xD104, 0x00,
            {0x18, 0x15, 0x13, 0x10, 0x0D, 0x0B, 0x08, 0x05, 0x03, 0x00, 0xFD, 0xFB, 0xF8, 0xF5, 0xF3, 0xF0,
             0xED, 0xEB, 0xE8});
        add(0xD105, 3); // AE mode: manual, as the mode dial (0xD138) says
        add(0xD138, 3);
        add(0xD106, 0, {0x00, 0x01, 0x04});                                  // drive mode
        add(0xD107, 3, {1, 3, 4, 5});                                        // metering mode
        add(0xD108, 0, {0, 1, 2});                                           // focus mode
        add(0xD109, 0, {0, 1, 2, 3, 4, 5, 6, 8, 9});                         // white balance
        add(0xD110, 0x81, {0x81, 0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88}); // picture style
        add(0xD111, 2);                                                      // battery
        add(0xD113, uint32_t(std::time(nullptr)));                           // clock
        add(AvailableShots, 1000);
        add(CaptureDestination, kDestinationCard, {kDestinationCard, kDestinationHost});
        add(ImageFormat, kJpegLargeFine, {kJpegLargeFine, kRawAndJpegLargeFine}, Kind::ImageFormat);
        add(EVFOutputDevice, 1, {1, 2, 3});
        add(EVFMode, 0, {0, 1});
        add(FocusInfoEx, 0, {}, Kind::FocusInfo);
        // Owner, artist, copyright, serial number.
        for (auto [code, text] :
             {std::pair{0xD115u, ""}, {0xD1D0u, ""}, {0xD1D1u, ""}, {uint32_t(SerialNumber), "083021000042"}})
            props[code] = Property{Kind::Str, 0, text, {}};
    }

    std::string valueRecord(uint32_t code) const {
        const Property &p = props.at(code);
        Writer v;
        switch (p.kind) {
        case Kind::Str:
            v.bytes(p.text);
            v.u8(0);
            break;
        case Kind::ImageFormat:
            packImageFormat(v, p.value);
            break;
        case Kind::FocusInfo:
            // An empty focus-point set: the release may go on.
            v.u32(20);
            v.u16(16);
            for (int i = 0; i < 7; ++i)
                v.u16(0);
            v.u32(0);
            break;
        default:
            v.u32(p.value);
        }
        return record(kEventPropValueChanged, {code}, v.b);
    }

    std::string availRecord(uint32_t code) const {
        const Property &p = props.at(code);
        Writer v;
        for (uint32_t x : p.available) {
            if (p.kind == Kind::ImageFormat)
                packImageFormat(v, x);
            else
                v.u32(x);
        }
        return record(kEventAvailListChanged, {code, 3, uint32_t(p.available.size())}, v.b);
    }

    void announceAll() {
        for (const auto &[code, p] : props) {
            events.push_back(valueRecord(code));
            if (!p.available.empty())
                events.push_back(availRecord(code));
        }
    }

    // A shot waits in the body's RAM for the host. The card is not emulated:
    // a shot taken while saving to it is only counted.
    void takeShot() {
        ++shots;
        if (props[CaptureDestination].value != kDestinationHost)
            return;
        char stem[16];
        std::snprintf(stem, sizeof stem, "IMG_%04d", shots);
        const std::string jpegName = std::string(stem) + ".JPG";
        const QByteArray jpeg = eds::sim::padJpeg(
            eds::sim::renderShotJpeg(unsigned(shots), QDateTime::currentDateTime(), kModel, jpegName.c_str()),
            shotBytes);
        std::vector<Object> files;
        if ((props[ImageFormat].value >> 8) & 8) // the first file is a RAW
            files.push_back(
                Object{std::string(stem) + ".CR2", kFormatCr2, eds::sim::makeRawFile(jpeg, 0, kModel)});
        files.push_back(Object{jpegName, kFormatJpeg, jpeg});
        for (auto &f : files) {
            const uint32_t handle = nextHandle++;
            std::string name = f.name;
            name.resize((name.size() + 4) / 4 * 4, '\0'); // NUL-terminated, padded to 32 bits
            pending.push_back(
                Pending{transferPolls, record(kEventRequestObjectTransfer,
                                              {handle, f.format, 0, uint32_t(f.bytes.size()), 0}, name)});
            objects[handle] = std::move(f);
        }
        props[AvailableShots].value -= 1;
        events.push_back(valueRecord(AvailableShots));
    }

    // A container for the host: length, type, code, the operation's transaction, payload.
    void send(uint16_t type, uint16_t code, const Command &c, const std::string &payload) {
        Writer w;
        w.u32(uint32_t(12 + payload.size()));
        w.u16(type);
        w.u16(code);
        w.u32(c.transaction);
        w.bytes(payload);
        in.push_back(w.b);
    }
    void respond(const Command &c, uint16_t code, std::vector<uint32_t> params = {}) {
        Writer w;
        for (auto p : params)
            w.u32(p);
        send(kResponse, code, c, w.b);
    }
    // The operation's data, then its answer: OK, with `params`.
    void reply(const Command &c, const std::string &payload, std::vector<uint32_t> params = {}) {
        send(kData, c.code, c, payload);
        respond(c, kOk, std::move(params));
    }

    std::string deviceInfo() const {
        Writer w;
        w.u16(100);
        w.u32(0x0000000B); // Canon
        w.u16(100);
        w.str("");
        w.u16(0);
        w.array16(std::vector<uint16_t>(std::begin(kOperations), std::end(kOperations)));
        w.array16({uint16_t(kEventRequestObjectTransfer), uint16_t(kEventPropValueChanged),
                   uint16_t(kEventAvailListChanged)});
        w.array16({});
        w.array16({kFormatJpeg, kFormatCr2});
        w.array16({kFormatJpeg, kFormatCr2});
        w.str("Canon Inc.");
        w.str(kModel);
        w.str("3-1.2.0");
        w.str(props.at(SerialNumber).text);
        return w.b;
    }

    void execute(const Command &c) {
        const bool sessionless = c.code == GetDeviceInfo || c.code == OpenSession;
        if (!sessionless && !session)
            return respond(c, kSessionNotOpen);
        if (busy > 0 && (c.code == EosRemoteReleaseOn || c.code == EosSetDevicePropValueEx)) {
            --busy;
            return respond(c, kDeviceBusy);
        }
        switch (c.code) {
        case GetDeviceInfo:
            return reply(c, deviceInfo());
        case OpenSession:
            session = true;
            announcedAll = false;
            return respond(c, kOk);
        case CloseSession:
            session = false;
            return respond(c, kOk);
        case GetStorageIDs:
        case EosGetStorageIDs: {
            Writer w;
            w.u32(1); // an array of one
            w.u32(kCardStorage);
            return reply(c, w.b);
        }
        case EosGetStorageInfo: {
            Writer w;
            w.u16(4); // removable RAM
            w.u16(2); // DCF
            w.u16(0);
            w.u64(64ull << 30);
            w.u64(60ull << 30);
            w.u32(props[AvailableShots].value);
            w.str("SD");
            w.str("EOS_DIGITAL");
            return reply(c, w.b);
        }
        case GetObjectHandles: // nothing on the card: an empty array
            return reply(c, std::string(4, '\0'));
        case GetPartialObject: {
            auto it = objects.find(c.p[0]);
            if (it == objects.end())
                return respond(c, kInvalidObjectHandle);
            const QByteArray &bytes = it->second.bytes;
            const uint64_t offset = std::min<uint64_t>(c.p[1], uint64_t(bytes.size()));
            const uint64_t count = std::min<uint64_t>(c.p[2], uint64_t(bytes.size()) - offset);
            if (failTransfers > 0) {
                --failTransfers;
                poisoned = true;
            }
            return reply(c, std::string(bytes.constData() + offset, count), {uint32_t(count)});
        }
        case EosTransferComplete:
            objects.erase(c.p[0]);
            return respond(c, kOk);
        case EosSetDevicePropValueEx: {
            if (c.data.size() < 12)
                return respond(c, kGeneralError);
            const uint32_t code = le32(c.data.data() + 4);
            auto it = props.find(code);
            if (it == props.end())
                return respond(c, kGeneralError);
            Property &p = it->second;
            const std::string value = c.data.substr(8);
            if (p.kind == Kind::Str) {
                p.text = std::string(value.c_str());
            } else {
                const uint32_t v =
                    p.kind == Kind::ImageFormat ? unpackImageFormat(value) : le32(value.data());
                if (!p.available.empty() &&
                    std::find(p.available.begin(), p.available.end(), v) == p.available.end())
                    return respond(c, kGeneralError);
                p.value = v;
            }
            events.push_back(valueRecord(code));
            return respond(c, kOk);
        }
        case EosGetEvent: {
            if (!announcedAll) {
                announcedAll = true;
                announceAll();
            }
            std::erase_if(pending, [&](Pending &p) {
                if (--p.polls > 0)
                    return false;
                events.push_back(p.record);
                return true;
            });
            Writer w;
            for (const auto &e : events)
                w.bytes(e);
            events.clear();
            w.bytes(record(0, {})); // the end of the list
            return reply(c, w.b);
        }
        case EosRemoteReleaseOn:
            if (c.p[0] == 1)
                events.push_back(valueRecord(FocusInfoEx));
            else if (c.p[0] >= 2)
                takeShot();
            return respond(c, kOk);
        case EosGetViewFinderData: {
            if (props[EVFMode].value != 1 || (props[EVFOutputDevice].value & 2) == 0 ||
                Clock::now() < notReadyUntil)
                return respond(c, kNotReady);
            const QByteArray jpeg = eds::sim::renderLiveViewJpeg(frame++, kModel);
            return reply(c, record(1, {}, jpeg.toStdString())); // one record: the frame
        }
        default: // the other operations the body lists change nothing here
            const bool listed =
                std::find(std::begin(kOperations), std::end(kOperations), c.code) != std::end(kOperations);
            return respond(c, listed ? kOk : kNotSupported);
        }
    }

    void pullOut() {
        while (out.size() >= 12) {
            const uint32_t length = le32(out.data());
            if (out.size() < length)
                return;
            const uint16_t type = uint16_t(le32(out.data() + 4)); // the low half of the word
            if (type == kCommand) {
                Command c;
                c.code = uint16_t(le32(out.data() + 6));
                c.transaction = le32(out.data() + 8);
                for (uint32_t i = 0; i < (length - 12) / 4 && i < 5; ++i)
                    c.p[i] = le32(out.data() + 12 + 4 * i);
                command = c;
            } else if (type == kData && command) {
                command->data = out.substr(12, length - 12);
            }
            out.erase(0, length);
        }
    }

    void unplugLocked() {
        plugged = false;
        session = false;
        out.clear();
        in.clear();
        inOffset = 0;
        command.reset();
        pending.clear();
        events.clear();
        objects.clear(); // a power cycle empties the body's RAM
    }

    bool apply(const std::string &line) {
        std::istringstream in(line);
        std::string word;
        long long n = 0;
        in >> word >> n;
        // A plug, or a plug while plugged in: a power cycle and a new device number.
        auto plugIn = [&] {
            unplugLocked();
            plugged = true;
            ++address;
        };
        const std::map<std::string, std::function<void()>> commands = {
            {"plug", plugIn},
            {"replug", plugIn},
            {"unplug", [&] { unplugLocked(); }},
            {"reset", [&] { factorySettings(); }},
            {"fail-transfers", [&] { failTransfers = int(n); }},
            {"fail-io", [&] { failIo = int(n); }},
            {"busy", [&] { busy = int(n); }},
            {"viewfinder-not-ready-ms", [&] { notReadyUntil = Clock::now() + std::chrono::milliseconds(n); }},
            {"claimed", [&] { claimed = n != 0; }},
            {"raw+jpeg",
             [&] {
                 props[ImageFormat].value = n ? kRawAndJpegLargeFine : kJpegLargeFine;
                 events.push_back(valueRecord(ImageFormat));
             }},
            {"transfer-after-polls", [&] { transferPolls = int(std::max(1LL, n)); }},
            {"shot-bytes", [&] { shotBytes = uint64_t(n); }},
            {"speed", [&] { speed = uint64_t(n); }},
            {"press", [&] { takeShot(); }},
        };
        auto it = commands.find(word);
        if (it == commands.end())
            return word.empty();
        it->second();
        return true;
    }
};

EosBody &EosBody::instance() {
    static EosBody body;
    return body;
}

EosBody::EosBody() : s_(new State) {
    // A test plugs the body in when it wants it; a station under test finds it
    // plugged in from the start.
    s_->plugged = std::getenv("BRIX_EOSBODY_PLUGGED") != nullptr;
    if (const char *path = std::getenv("BRIX_EOSBODY_CONTROL"))
        s_->controlFd = ::open(path, O_RDONLY | O_CREAT | O_CLOEXEC, 0600);
}

void EosBody::plug() {
    command("plug");
}
void EosBody::unplug() {
    command("unplug");
}
bool EosBody::plugged() {
    std::lock_guard lock(s_->m);
    return s_->plugged;
}
int EosBody::deviceAddress() {
    std::lock_guard lock(s_->m);
    return s_->address;
}
std::string EosBody::portPath() {
    char path[32];
    std::snprintf(path, sizeof path, "usb:001,%03d", deviceAddress()); // bus 1, the only one
    return path;
}
void EosBody::limitSpeed(uint64_t bytesPerSecond) {
    command("speed " + std::to_string(bytesPerSecond));
}

int EosBody::objectsInRam() {
    std::lock_guard lock(s_->m);
    return int(s_->objects.size());
}
uint32_t EosBody::property(uint32_t code) {
    std::lock_guard lock(s_->m);
    auto it = s_->props.find(code);
    return it == s_->props.end() ? 0 : it->second.value;
}

bool EosBody::command(const std::string &line) {
    std::lock_guard lock(s_->m);
    return s_->apply(line);
}

void EosBody::pollControl() {
    std::lock_guard lock(s_->m);
    if (s_->controlFd < 0)
        return;
    char buf[512];
    ssize_t n;
    while ((n = ::read(s_->controlFd, buf, sizeof buf)) > 0)
        s_->controlPartial.append(buf, size_t(n));
    size_t nl;
    while ((nl = s_->controlPartial.find('\n')) != std::string::npos) {
        const std::string line = s_->controlPartial.substr(0, nl);
        s_->controlPartial.erase(0, nl + 1);
        if (!s_->apply(line))
            std::fprintf(stderr, "eosbody: unknown control line \"%s\"\n", line.c_str());
    }
}

int EosBody::openDevice(int address) {
    std::lock_guard lock(s_->m);
    if (!s_->plugged || address != s_->address)
        return LIBUSB_ERROR_NO_DEVICE;
    return s_->claimed ? LIBUSB_ERROR_BUSY : LIBUSB_SUCCESS;
}

int EosBody::bulkOut(const unsigned char *data, int length, int *transferred) {
    std::lock_guard lock(s_->m);
    if (!s_->plugged)
        return LIBUSB_ERROR_NO_DEVICE;
    s_->out.append(reinterpret_cast<const char *>(data), size_t(length));
    s_->pullOut();
    *transferred = length;
    return LIBUSB_SUCCESS;
}

int EosBody::bulkIn(unsigned char *data, int length, int *transferred) {
    std::unique_lock lock(s_->m);
    *transferred = 0;
    if (!s_->plugged)
        return LIBUSB_ERROR_NO_DEVICE;
    if (s_->failIo > 0 && s_->command) {
        // A cable that drops everything for a while: the operation is lost.
        --s_->failIo;
        s_->command.reset();
        return LIBUSB_ERROR_IO;
    }
    if (s_->in.empty() && s_->command) {
        const State::Command c = *s_->command;
        s_->command.reset();
        s_->execute(c);
    }
    if (s_->in.empty())
        return LIBUSB_ERROR_TIMEOUT;
    if (s_->poisoned) {
        // The data phase is lost on the cable: the host sees an I/O error and
        // the transaction's remaining packets never arrive.
        s_->poisoned = false;
        s_->in.clear();
        s_->inOffset = 0;
        return LIBUSB_ERROR_IO;
    }
    const std::string &front = s_->in.front();
    const size_t n = std::min(front.size() - s_->inOffset, size_t(length));
    std::memcpy(data, front.data() + s_->inOffset, n);
    s_->inOffset += n;
    if (s_->inOffset == front.size()) {
        s_->in.pop_front();
        s_->inOffset = 0;
    }
    *transferred = int(n);
    const uint64_t speed = s_->speed;
    lock.unlock();
    if (speed)
        std::this_thread::sleep_for(std::chrono::nanoseconds(n * 1000000000ull / speed));
    return LIBUSB_SUCCESS;
}

int EosBody::classRequest(uint8_t request, unsigned char *, int) {
    std::lock_guard lock(s_->m);
    if (!s_->plugged)
        return LIBUSB_ERROR_NO_DEVICE;
    if (request == 0x64 || request == 0x66) { // cancel, device reset
        s_->in.clear();
        s_->inOffset = 0;
        s_->out.clear();
        s_->command.reset();
    }
    return 0;
}

} // namespace brix::eosbody
