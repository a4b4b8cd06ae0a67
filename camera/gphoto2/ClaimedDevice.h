// USB facts about a camera's port, and what to do when libgphoto2 cannot claim the camera's USB interface
// because another program holds it (GNOME's gvfs gphoto2 monitor, KDE's kamera, a second gphoto2): find the
// USB device node of the port, the processes that have it open, and the desktop's gphoto2:// mounts that may
// be released.
//
// Threads: pure functions over the file system and texts; callable from any
// thread. Nothing here runs a program: the caller does (see Gphoto2Sdk).
#pragma once

#include <QString>
#include <QStringList>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace brix::gphoto2 {

struct Holder {
    long pid = 0;
    QString name; // the process's command name (/proc/<pid>/comm)
};

// "usb:001,005" -> "/dev/bus/usb/001/005"; nothing for other ports.
std::optional<QString> usbDeviceNode(const std::string &port);

// The USB vendor ID of the device on the port, read from sysfs
// (<sysRoot>/<device>/busnum, devnum, idVendor); nothing when it is not found.
std::optional<uint16_t> usbVendorId(const std::string &port,
                                    const QString &sysRoot = QStringLiteral("/sys/bus/usb/devices"));
inline constexpr uint16_t kCanonUsbVendor = 0x04a9;

// Processes (other than this one) with the node open, found by reading the
// links in <procRoot>/<pid>/fd. Processes we may not inspect are skipped.
std::vector<Holder> processesHolding(const QString &node, const QString &procRoot = QStringLiteral("/proc"));

// True for the desktop's gphoto2 volume monitor and backend (gvfs).
bool isDesktopMounter(const Holder &holder);

// The gphoto2:// locations in the output of "gio mount -l" that belong to the
// port: those that name its bus and device when any does, else all of them
// (newer gvfs names mounts after the camera, not the port).
QStringList gphotoMountsFor(const QString &gioMountList, const std::string &port);

// "process 1234 (gvfsd-gphoto2)" for each holder, comma-separated.
QString describeHolders(const std::vector<Holder> &holders);

} // namespace brix::gphoto2
