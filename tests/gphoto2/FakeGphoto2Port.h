// Test double of the libgphoto2 adapter: serves a widget tree in the format
// of `LANG=C gphoto2 --list-all-config` (so a body's own listing can be
// replayed) and behaves like an EOS body behind libgphoto2: radio settings
// accept only their choices (or "Unknown value %04x") and announce their
// change as "PTP Property dXXX changed", a trigger throws away the pending
// events (as libgphoto2 does) and announces its shot: with the capture target
// "Internal RAM" as libgphoto2's cached "/capt0000.jpg", which only a whole
// read gets, else as a file on the card; card files are read in parts, previews return JPEG
// frames. Faults are injected per operation; unplug() makes every later call
// fail as a vanished USB device does.
//
// Threads: every method may be called from any thread (one mutex). It also
// checks that calls on an open camera never overlap, which the backend
// promises by running them all on the camera's device queue.
#pragma once

#include "Gphoto2Port.h"

#include <QBuffer>
#include <QByteArray>
#include <QImage>
#include <QPainter>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>

namespace brix::gphoto2::replay {

// A real JPEG picture, different for every seed.
inline std::string jpegPicture(int width, int height, int seed) {
    QImage image(width, height, QImage::Format_RGB32);
    image.fill(QColor::fromHsv((seed * 37) % 360, 200, 220));
    QPainter painter(&image);
    painter.setPen(QPen(Qt::black, 9));
    painter.drawLine(seed % width, 0, width - seed % width, height);
    painter.drawEllipse(QPoint((seed * 13) % width, (seed * 7) % height), 40, 40);
    painter.end();
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "JPG", 92);
    return bytes.toStdString();
}

inline std::vector<Widget> parseListAllConfig(const std::string &path) {
    std::ifstream in(path);
    if (!in)
        throw std::runtime_error("cannot read " + path);
    std::vector<Widget> out;
    Widget w;
    bool inWidget = false;
    std::string line;
    while (std::getline(in, line)) {
        if (!inWidget && !line.empty() && line[0] == '/') {
            w = Widget{};
            w.name = line.substr(line.rfind('/') + 1);
            inWidget = true;
            continue;
        }
        if (!inWidget)
            continue;
        auto value = [&](const char *key) -> std::optional<std::string> {
            const std::string k = std::string(key) + ": ";
            if (line.compare(0, k.size(), k) == 0)
                return line.substr(k.size());
            return std::nullopt;
        };
        if (line == "END") {
            out.push_back(w);
            inWidget = false;
        } else if (auto v = value("Label")) {
            w.label = *v;
        } else if (auto v = value("Readonly")) {
            w.readOnly = *v == "1";
        } else if (auto v = value("Type")) {
            static const std::map<std::string, Widget::Type> types = {
                {"TEXT", Widget::Type::Text},     {"RANGE", Widget::Type::Range},
                {"TOGGLE", Widget::Type::Toggle}, {"RADIO", Widget::Type::Radio},
                {"MENU", Widget::Type::Menu},     {"DATE", Widget::Type::Date},
                {"BUTTON", Widget::Type::Button},
            };
            w.type = types.at(*v);
        } else if (auto v = value("Current")) {
            if (w.type == Widget::Type::Toggle || w.type == Widget::Type::Date)
                w.integer = std::stoi(*v);
            else if (w.type == Widget::Type::Range)
                w.number = std::stof(*v);
            else
                w.text = *v;
        } else if (auto v = value("Choice")) {
            w.choices.push_back(v->substr(v->find(' ') + 1));
        }
    }
    return out;
}

class FakeGphoto2Port final : public Gphoto2Port {
public:
    enum class Op { Open, GetWidget, SetWidget, Wait, Trigger, FileInfo, ReadFile, Preview, List };

    explicit FakeGphoto2Port(std::vector<Widget> tree) : tree_(std::move(tree)) {}

    // --- scripting -------------------------------------------------------------
    void setDetected(std::vector<DetectedCamera> cameras) {
        std::lock_guard lock(m_);
        detected_ = std::move(cameras);
    }
    void failNext(Op op, int code, std::string detail = {}, int times = 1) {
        std::lock_guard lock(m_);
        for (int i = 0; i < times; ++i)
            faults_[op].push_back({code, detail});
    }
    void pushEvent(Event e) {
        {
            std::lock_guard lock(m_);
            events_.push_back(std::move(e));
        }
    }
    void addFile(const std::string &folder, const std::string &name, std::string bytes) {
        std::lock_guard lock(m_);
        files_[path(folder, name)] = std::move(bytes);
    }
    void unplug() {
        {
            std::lock_guard lock(m_);
            unplugged_ = true;
            detected_.clear();
        }
    }
    void setPartialReads(bool supported) {
        std::lock_guard lock(m_);
        partialReads_ = supported;
    }
    void setPreviewFrame(std::string jpeg) {
        std::lock_guard lock(m_);
        preview_ = std::move(jpeg);
    }

    // --- inspection ----------------------------------------------------------------
    std::vector<std::pair<std::string, std::string>> writes() {
        std::lock_guard lock(m_);
        return writes_;
    }
    Widget widget(const std::string &name) {
        std::lock_guard lock(m_);
        return *find(name);
    }
    int opens() {
        std::lock_guard lock(m_);
        return opens_;
    }
    int closes() {
        std::lock_guard lock(m_);
        return closes_;
    }
    std::vector<uint64_t> readOffsets() {
        std::lock_guard lock(m_);
        return readOffsets_;
    }
    bool hasFile(const std::string &folder, const std::string &name) {
        std::lock_guard lock(m_);
        return files_.count(path(folder, name)) != 0;
    }
    bool overlapped() const { return overlapped_; }
    std::string lastShot() {
        std::lock_guard lock(m_);
        return lastShot_;
    }

    // --- the adapter ---------------------------------------------------------------
    int driverCount() override { return 1; }

    int autodetect(std::vector<DetectedCamera> *cameras) override {
        std::lock_guard lock(m_);
        *cameras = detected_;
        return gp::OK;
    }

    int openCamera(const DetectedCamera &, Handle *handle) override {
        std::lock_guard lock(m_);
        if (int f = fault(Op::Open))
            return f;
        if (unplugged_)
            return gp::IoUsbFind;
        ++opens_;
        *handle = 7;
        return gp::OK;
    }

    void closeCamera(Handle) override {
        std::lock_guard lock(m_);
        ++closes_;
    }

    int listWidgets(Handle, std::vector<Widget> *widgets) override {
        Call call(*this);
        std::lock_guard lock(m_);
        if (int f = fault(Op::List))
            return f;
        *widgets = tree_;
        return gp::OK;
    }

    int getWidget(Handle, const std::string &name, Widget *widget) override {
        Call call(*this);
        std::lock_guard lock(m_);
        if (int f = fault(Op::GetWidget))
            return f;
        if (unplugged_)
            return gp::Io;
        const Widget *w = find(name);
        if (!w)
            return gp::BadParameters;
        *widget = *w;
        return gp::OK;
    }

    int setWidget(Handle, const std::string &name, const Widget &value) override {
        Call call(*this);
        {
            std::lock_guard lock(m_);
            if (int f = fault(Op::SetWidget))
                return f;
            if (unplugged_)
                return gp::Io;
            Widget *w = find(name);
            if (!w)
                return gp::BadParameters;
            if (w->readOnly)
                return gp::NotSupported;
            std::string written;
            if (w->type == Widget::Type::Toggle || w->type == Widget::Type::Date) {
                written = std::to_string(value.integer);
                if (!isCommand(name))
                    w->integer = value.integer;
            } else {
                written = value.text;
                if (w->type == Widget::Type::Radio && !isChoice(*w, value.text) &&
                    value.text.rfind("Unknown value ", 0) != 0)
                    return gp::Error; // the driver finds no value for the label
                if (w->type == Widget::Type::Radio && !isCommand(name))
                    w->text = value.text;
                if (w->type == Widget::Type::Text && !isCommand(name))
                    w->text = value.text;
            }
            writes_.emplace_back(name, written);
            if (auto code = ptpCodeOf(name))
                events_.push_back(Event{Event::Type::Unknown, "PTP Property " + *code + " changed", "", ""});
        }
        return gp::OK;
    }

    // The backend polls without waiting; a body with nothing to say answers at once.
    int waitForEvent(Handle, int, Event *event) override {
        Call call(*this);
        std::lock_guard lock(m_);
        if (int f = fault(Op::Wait))
            return f;
        if (unplugged_)
            return gp::Io;
        if (events_.empty()) {
            *event = Event{};
            return gp::OK;
        }
        *event = events_.front();
        events_.pop_front();
        return gp::OK;
    }

    int triggerCapture(Handle) override {
        Call call(*this);
        {
            std::lock_guard lock(m_);
            if (int f = fault(Op::Trigger))
                return f;
            if (unplugged_)
                return gp::Io;
            // libgphoto2 fetches the body's pending events and throws them
            // away before it releases the shutter.
            events_.clear();
            char name[16];
            lastShot_ = jpegPicture(1200, 800, shots_);
            const Widget *target = find("capturetarget");
            if (target && target->text == "Internal RAM") {
                // Sent to the host: libgphoto2 fetched it with the event and
                // keeps it in its cache under "/" as capt%04d.
                std::snprintf(name, sizeof name, "capt%04d.jpg", captures_++);
                files_[std::string("/") + name] = lastShot_;
                events_.push_back(Event{Event::Type::FileAdded, "", "/", name});
            } else {
                std::snprintf(name, sizeof name, "IMG_%04d.JPG", shots_);
                files_[std::string("/store_00020001/DCIM/100CANON/") + name] = lastShot_;
                events_.push_back(Event{Event::Type::FileAdded, "", "/store_00020001/DCIM/100CANON", name});
            }
            ++shots_;
            events_.push_back(Event{Event::Type::CaptureComplete, "", "", ""});
        }
        return gp::OK;
    }

    int fileInfo(Handle, const std::string &folder, const std::string &name, FileInfo *info) override {
        Call call(*this);
        std::lock_guard lock(m_);
        if (int f = fault(Op::FileInfo))
            return f;
        auto it = files_.find(path(folder, name));
        if (it == files_.end())
            return gp::FileNotFound;
        info->size = it->second.size();
        info->mtime = 1700000000;
        info->mimeType = "image/jpeg";
        return gp::OK;
    }

    int readFile(Handle, const std::string &folder, const std::string &name, uint64_t offset, char *buffer,
                 uint64_t *size) override {
        Call call(*this);
        std::lock_guard lock(m_);
        if (int f = fault(Op::ReadFile))
            return f;
        if (unplugged_)
            return gp::Io;
        if (!partialReads_)
            return gp::NotSupported;
        if (folder == "/") // files sent to the host are not on a storage
            return gp::Error;
        auto it = files_.find(path(folder, name));
        if (it == files_.end())
            return gp::FileNotFound;
        readOffsets_.push_back(offset);
        const uint64_t n =
            offset >= it->second.size() ? 0 : std::min<uint64_t>(*size, it->second.size() - offset);
        std::memcpy(buffer, it->second.data() + offset, n);
        *size = n;
        return gp::OK;
    }

    int getFile(Handle, const std::string &folder, const std::string &name, std::string *data) override {
        Call call(*this);
        std::lock_guard lock(m_);
        auto it = files_.find(path(folder, name));
        if (it == files_.end())
            return gp::FileNotFound;
        *data = it->second;
        return gp::OK;
    }

    int deleteFile(Handle, const std::string &folder, const std::string &name) override {
        Call call(*this);
        std::lock_guard lock(m_);
        return files_.erase(path(folder, name)) ? gp::OK : gp::FileNotFound;
    }

    int capturePreview(Handle, std::string *jpeg) override {
        Call call(*this);
        std::lock_guard lock(m_);
        if (int f = fault(Op::Preview))
            return f;
        if (unplugged_)
            return gp::Io;
        // Live view runs at about 960x640 on EOS bodies.
        *jpeg = preview_.empty() ? jpegPicture(960, 640, 1000 + frames_++) : preview_;
        return gp::OK;
    }

    std::string describe(int result, Handle) override {
        std::lock_guard lock(m_);
        std::string text = "result " + std::to_string(result);
        if (!lastDetail_.empty())
            text += " (" + lastDetail_ + ")";
        lastDetail_.clear();
        return text;
    }

private:
    // Flags two calls on the open camera running at once.
    struct Call {
        explicit Call(FakeGphoto2Port &p) : port(p) {
            if (port.inCall_.fetch_add(1) != 0)
                port.overlapped_ = true;
        }
        ~Call() { port.inCall_.fetch_sub(1); }
        FakeGphoto2Port &port;
    };

    struct Fault {
        int code;
        std::string detail;
    };

    int fault(Op op) {
        auto &list = faults_[op];
        if (list.empty())
            return 0;
        const Fault f = list.front();
        list.pop_front();
        lastDetail_ = f.detail;
        return f.code;
    }

    static std::string path(const std::string &folder, const std::string &name) {
        return folder == "/" ? "/" + name : folder + "/" + name;
    }

    Widget *find(const std::string &name) {
        for (auto &w : tree_)
            if (w.name == name)
                return &w;
        return nullptr;
    }
    const Widget *find(const std::string &name) const {
        for (const auto &w : tree_)
            if (w.name == name)
                return &w;
        return nullptr;
    }
    static bool isChoice(const Widget &w, const std::string &label) {
        for (const auto &c : w.choices)
            if (c == label)
                return true;
        return false;
    }
    static bool isCommand(const std::string &name) {
        // Controls that act rather than hold a value: reading them back gives
        // their idle state.
        return name == "eosremoterelease" || name == "manualfocusdrive" || name == "eoszoom" ||
               name == "bulb" || name == "autofocusdrive" || name == "cancelautofocus" ||
               name == "syncdatetime";
    }
    static std::optional<std::string> ptpCodeOf(const std::string &name) {
        static const std::map<std::string, std::string> codes = {
            {"aperture", "d101"},
            {"shutterspeed", "d102"},
            {"iso", "d103"},
            {"exposurecompensation", "d104"},
            {"autoexposuremode", "d105"},
            {"drivemode", "d106"},
            {"meteringmode", "d107"},
            {"focusmode", "d108"},
            {"whitebalance", "d109"},
            {"picturestyle", "d110"},
            {"imageformat", "d120"},
            {"ownername", "d115"},
            {"artist", "d1d0"},
            {"copyright", "d1d1"},
            {"datetime", "d113"},
        };
        auto it = codes.find(name);
        if (it == codes.end())
            return std::nullopt;
        return it->second;
    }

    std::mutex m_;
    std::vector<Widget> tree_;
    std::vector<DetectedCamera> detected_;
    std::map<Op, std::deque<Fault>> faults_;
    std::deque<Event> events_;
    int captures_ = 0;
    std::map<std::string, std::string> files_;
    std::vector<std::pair<std::string, std::string>> writes_;
    std::vector<uint64_t> readOffsets_;
    std::string preview_;
    std::string lastShot_;
    int frames_ = 0;
    std::string lastDetail_;
    bool unplugged_ = false;
    bool partialReads_ = true;
    int opens_ = 0;
    int closes_ = 0;
    int shots_ = 1;
    std::atomic<int> inCall_{0};
    std::atomic<bool> overlapped_{false};
};

inline std::string fixture(const std::string &name) {
    return std::string(BRIX_GPHOTO2_TEST_DATA) + "/" + name;
}

} // namespace brix::gphoto2::replay
