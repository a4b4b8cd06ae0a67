// The libusb-1.0 functions libgphoto2's usb1 port driver calls, answered by
// the emulated EOS body (EosBody). Built as libusb-1.0.so.0: a test that links
// it, or a process started with its folder first in LD_LIBRARY_PATH, gets it
// instead of the system's libusb when libgphoto2 loads its port driver.
//
// One bus with one device slot: the body, when plugged, under its current
// device number. Interrupt transfers are accepted and never complete (an EOS
// body reports its events through GetEvent); cancelling completes them.
#include "EosBody.h"

#include <libusb.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <mutex>
#include <vector>

using brix::eosbody::EosBody;

struct libusb_context {};
struct libusb_device {
    int address = 0;
};
struct libusb_device_handle {
    libusb_device *device = nullptr;
};

namespace {

constexpr uint16_t kCanonVendor = 0x04A9, kEos5DMarkIV = 0x3281;

const libusb_endpoint_descriptor kEndpoints[3] = {
    {LIBUSB_DT_ENDPOINT_SIZE, LIBUSB_DT_ENDPOINT, 0x81, LIBUSB_TRANSFER_TYPE_BULK, 512, 0, 0, 0, nullptr, 0},
    {LIBUSB_DT_ENDPOINT_SIZE, LIBUSB_DT_ENDPOINT, 0x02, LIBUSB_TRANSFER_TYPE_BULK, 512, 0, 0, 0, nullptr, 0},
    {LIBUSB_DT_ENDPOINT_SIZE, LIBUSB_DT_ENDPOINT, 0x83, LIBUSB_TRANSFER_TYPE_INTERRUPT, 8, 9, 0, 0, nullptr,
     0},
};
// Still-image class, PTP subclass and protocol.
const libusb_interface_descriptor kAltsetting = {.bLength = LIBUSB_DT_INTERFACE_SIZE,
                                                 .bDescriptorType = LIBUSB_DT_INTERFACE,
                                                 .bNumEndpoints = 3,
                                                 .bInterfaceClass = LIBUSB_CLASS_IMAGE,
                                                 .bInterfaceSubClass = 1,
                                                 .bInterfaceProtocol = 1,
                                                 .endpoint = kEndpoints};
const libusb_interface kInterface = {&kAltsetting, 1};
const libusb_config_descriptor kConfig = {LIBUSB_DT_CONFIG_SIZE, LIBUSB_DT_CONFIG, 39, 1, 1, 0, 0xC0, 1,
                                          &kInterface,           nullptr,          0};

std::mutex gMutex;
// Devices live for the process: libgphoto2 keeps pointers into lists it frees.
std::map<int, libusb_device *> gDevices;
std::vector<libusb_transfer *> gCancelled;

libusb_device *deviceAt(int address) {
    std::lock_guard lock(gMutex);
    libusb_device *&d = gDevices[address];
    if (!d)
        d = new libusb_device{address};
    return d;
}

} // namespace

extern "C" {

int LIBUSB_CALL libusb_init(libusb_context **ctx) {
    if (ctx)
        *ctx = new libusb_context;
    return LIBUSB_SUCCESS;
}

void LIBUSB_CALL libusb_exit(libusb_context *ctx) {
    delete ctx;
}

ssize_t LIBUSB_CALL libusb_get_device_list(libusb_context *, libusb_device ***list) {
    EosBody &body = EosBody::instance();
    body.pollControl();
    auto **devices = static_cast<libusb_device **>(std::calloc(2, sizeof(libusb_device *)));
    ssize_t n = 0;
    if (body.plugged())
        devices[n++] = deviceAt(body.deviceAddress());
    *list = devices;
    return n;
}

void LIBUSB_CALL libusb_free_device_list(libusb_device **list, int) {
    std::free(list);
}

int LIBUSB_CALL libusb_get_device_descriptor(libusb_device *, libusb_device_descriptor *desc) {
    *desc = libusb_device_descriptor{LIBUSB_DT_DEVICE_SIZE, LIBUSB_DT_DEVICE, 0x0200, 0, 0, 0, 64,
                                     kCanonVendor,          kEos5DMarkIV,     0x0001, 1, 2, 3, 1};
    return LIBUSB_SUCCESS;
}

// One configuration: libgphoto2 asks for index 0 only.
int LIBUSB_CALL libusb_get_config_descriptor(libusb_device *, uint8_t, libusb_config_descriptor **config) {
    *config = const_cast<libusb_config_descriptor *>(&kConfig);
    return LIBUSB_SUCCESS;
}

void LIBUSB_CALL libusb_free_config_descriptor(libusb_config_descriptor *) {}

uint8_t LIBUSB_CALL libusb_get_bus_number(libusb_device *) {
    return 1; // the only bus
}
uint8_t LIBUSB_CALL libusb_get_device_address(libusb_device *dev) {
    return uint8_t(dev->address);
}
int LIBUSB_CALL libusb_get_max_packet_size(libusb_device *, unsigned char endpoint) {
    return endpoint == 0x83 ? 8 : 512;
}

int LIBUSB_CALL libusb_open(libusb_device *dev, libusb_device_handle **handle) {
    const int rc = EosBody::instance().openDevice(dev->address);
    if (rc == LIBUSB_ERROR_NO_DEVICE)
        return rc;
    *handle = new libusb_device_handle{dev};
    return LIBUSB_SUCCESS;
}

void LIBUSB_CALL libusb_close(libusb_device_handle *handle) {
    delete handle;
}

int LIBUSB_CALL libusb_kernel_driver_active(libusb_device_handle *, int) {
    return 0;
}
int LIBUSB_CALL libusb_detach_kernel_driver(libusb_device_handle *, int) {
    return LIBUSB_SUCCESS;
}
int LIBUSB_CALL libusb_attach_kernel_driver(libusb_device_handle *, int) {
    return LIBUSB_SUCCESS;
}

int LIBUSB_CALL libusb_claim_interface(libusb_device_handle *handle, int) {
    // Asking again tells whether another program holds the body.
    const int rc = EosBody::instance().openDevice(handle->device->address);
    if (rc == LIBUSB_ERROR_BUSY)
        errno = EBUSY;
    return rc;
}

int LIBUSB_CALL libusb_release_interface(libusb_device_handle *, int) {
    return LIBUSB_SUCCESS;
}
int LIBUSB_CALL libusb_set_configuration(libusb_device_handle *, int) {
    return LIBUSB_SUCCESS;
}
int LIBUSB_CALL libusb_set_interface_alt_setting(libusb_device_handle *, int, int) {
    return LIBUSB_SUCCESS;
}
int LIBUSB_CALL libusb_clear_halt(libusb_device_handle *, unsigned char) {
    return LIBUSB_SUCCESS;
}
int LIBUSB_CALL libusb_reset_device(libusb_device_handle *) {
    return LIBUSB_SUCCESS;
}

int LIBUSB_CALL libusb_control_transfer(libusb_device_handle *handle, uint8_t, uint8_t request, uint16_t,
                                        uint16_t, unsigned char *data, uint16_t length, unsigned int) {
    EosBody &body = EosBody::instance();
    if (!body.plugged() || body.deviceAddress() != handle->device->address)
        return LIBUSB_ERROR_NO_DEVICE;
    return body.classRequest(request, data, length);
}

int LIBUSB_CALL libusb_bulk_transfer(libusb_device_handle *handle, unsigned char endpoint,
                                     unsigned char *data, int length, int *transferred, unsigned int) {
    EosBody &body = EosBody::instance();
    body.pollControl();
    int dummy = 0;
    if (!transferred)
        transferred = &dummy;
    *transferred = 0;
    if (body.deviceAddress() != handle->device->address)
        return LIBUSB_ERROR_NO_DEVICE;
    if (endpoint & LIBUSB_ENDPOINT_IN)
        return body.bulkIn(data, length, transferred);
    return body.bulkOut(data, length, transferred);
}

libusb_transfer *LIBUSB_CALL libusb_alloc_transfer(int isoPackets) {
    const size_t size = sizeof(libusb_transfer) + sizeof(libusb_iso_packet_descriptor) * size_t(isoPackets);
    return static_cast<libusb_transfer *>(std::calloc(1, size));
}

void LIBUSB_CALL libusb_free_transfer(libusb_transfer *transfer) {
    if (!transfer)
        return;
    {
        std::lock_guard lock(gMutex);
        std::erase(gCancelled, transfer);
    }
    if (transfer->flags & LIBUSB_TRANSFER_FREE_BUFFER)
        std::free(transfer->buffer);
    std::free(transfer);
}

int LIBUSB_CALL libusb_submit_transfer(libusb_transfer *transfer) {
    EosBody &body = EosBody::instance();
    if (!body.plugged() || body.deviceAddress() != transfer->dev_handle->device->address)
        return LIBUSB_ERROR_NO_DEVICE;
    return LIBUSB_SUCCESS;
}

int LIBUSB_CALL libusb_cancel_transfer(libusb_transfer *transfer) {
    std::lock_guard lock(gMutex);
    gCancelled.push_back(transfer);
    return LIBUSB_SUCCESS;
}

int LIBUSB_CALL libusb_handle_events_timeout(libusb_context *, struct timeval *) {
    std::vector<libusb_transfer *> done;
    {
        std::lock_guard lock(gMutex);
        done.swap(gCancelled);
    }
    for (libusb_transfer *t : done) {
        t->status = LIBUSB_TRANSFER_CANCELLED;
        t->actual_length = 0;
        if (t->callback)
            t->callback(t);
    }
    return LIBUSB_SUCCESS;
}

int LIBUSB_CALL libusb_handle_events(libusb_context *ctx) {
    return libusb_handle_events_timeout(ctx, nullptr);
}

} // extern "C"
