// A Canon EOS body emulated at the USB level, for tests only. It is built into
// a replacement libusb-1.0.so.0 (FakeLibusb.cpp): the real libgphoto2, its real
// usb1 port driver and its real ptp2 camera driver talk PTP to this body over
// the bulk endpoints, exactly as they would to a body on the cable.
//
// The body answers the operations ptp2 sends to an EOS body: device and
// storage info, the EOS remote and event modes, GetEvent with property,
// available-values and object-transfer records, partial object reads,
// transfer complete, the two-stage remote release, the viewfinder. Its
// settings use the value codes the rest of the suite knows from the simulated
// body (Canon's codes are the same on the cable and in the SDK) and its shots
// are the simulated body's pictures, waiting in its RAM for the host (the card
// is not emulated: a shot taken to it is only counted).
//
// Faults for the tests: unplug and plug under a new device number, a transfer
// that fails with an I/O error, "busy" and "not ready" answers for a while, a
// claim refused by another program, RAW+JPEG pairs, a transfer speed limit.
//
// The body starts unplugged, or plugged in when BRIX_EOSBODY_PLUGGED is set.
//
// Threads: every member may be called from any thread; one mutex guards the
// state. A running station can also be steered through a FIFO named by
// BRIX_EOSBODY_CONTROL (one command a line, see EosBody::command), read
// whenever libgphoto2 calls into the emulated libusb.
#pragma once

#include <cstdint>
#include <string>

namespace brix::eosbody {

class EosBody {
public:
    static EosBody &instance();

    // The cable. A plug after an unplug gives the body a new device number.
    void plug();
    void unplug();
    bool plugged();
    int deviceAddress();
    // "usb:001,005", the port libgphoto2 lists for the body.
    std::string portPath();

    // Bulk-in bytes per second (0 = unlimited); about 35 MB/s is USB 2.
    void limitSpeed(uint64_t bytesPerSecond);

    // What the body did, for the tests.
    int objectsInRam(); // shots captured to RAM not yet transferred and completed
    uint32_t property(uint32_t code);

    // Applies one control line (the faults for the tests): "plug", "unplug",
    // "replug", "reset" (factory settings, nothing stored, no faults);
    // "fail-transfers N": the next N data phases of partial-object reads fail
    // with an I/O error on the cable (LIBUSB_ERROR_IO); "fail-io N": the next N
    // operations get no answer but an I/O error; "busy N": the next N releases
    // and property writes answer "device busy" (0x2019);
    // "viewfinder-not-ready-ms N": the viewfinder answers "not ready" (0xA102)
    // for N ms from now; "claimed 0|1": opening the body fails as if another
    // program had claimed it; "raw+jpeg 0|1": each shot as a RAW+JPEG pair or
    // one JPEG; "transfer-after-polls N": a shot's RequestObjectTransfer record
    // appears on the N-th GetEvent after the release (a real body needs a
    // moment; 1 = the very next one); "speed N" (see limitSpeed);
    // "shot-bytes N": JPEGs padded to N bytes; "press": the shutter button
    // pressed by hand. Returns false for an unknown line.
    bool command(const std::string &line);
    // Reads and applies pending lines of the BRIX_EOSBODY_CONTROL FIFO.
    void pollControl();

    // The USB side, called by the emulated libusb (bulk endpoints).
    // Return libusb result codes (0 or negative).
    int bulkOut(const unsigned char *data, int length, int *transferred);
    int bulkIn(unsigned char *data, int length, int *transferred);
    int openDevice(int address);
    // PTP class requests on endpoint 0 (cancel, reset, status).
    int classRequest(uint8_t request, unsigned char *data, int length);

private:
    EosBody();
    struct State;
    State *s_;
};

} // namespace brix::eosbody
