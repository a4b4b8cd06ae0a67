// The adapter on the installed libgphoto2 (see Gphoto2Port.h).
//
// Threads: autodetect, open and close run under one mutex because they share
// the library's driver and port lists; calls on a handle come from the thread
// that owns that camera and only look the handle up under the mutex.
// Ownership: the adapter owns every Camera and GPContext it creates; closeCamera
// and the destructor give them back to the library.
#include "Gphoto2Port.h"

#include <gphoto2/gphoto2.h>

#include <dlfcn.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

namespace brix::gphoto2 {
namespace {

// Collects the driver's own error texts for one context: libgphoto2 reports
// "why" (for instance that the USB device could not be claimed) only there.
struct ContextErrors {
    std::mutex m;
    std::string last;
};

void onContextError(GPContext *, const char *text, void *data) {
    auto *errors = static_cast<ContextErrors *>(data);
    std::lock_guard lock(errors->m);
    errors->last = text ? text : "";
}

struct OpenCamera {
    Camera *camera = nullptr;
    GPContext *context = nullptr;
    std::unique_ptr<ContextErrors> errors;
};

Widget::Type typeOf(CameraWidgetType t) {
    switch (t) {
    case GP_WIDGET_TEXT:
        return Widget::Type::Text;
    case GP_WIDGET_RANGE:
        return Widget::Type::Range;
    case GP_WIDGET_TOGGLE:
        return Widget::Type::Toggle;
    case GP_WIDGET_RADIO:
        return Widget::Type::Radio;
    case GP_WIDGET_MENU:
        return Widget::Type::Menu;
    case GP_WIDGET_DATE:
        return Widget::Type::Date;
    case GP_WIDGET_BUTTON:
        return Widget::Type::Button;
    case GP_WIDGET_WINDOW:
    case GP_WIDGET_SECTION:
        break;
    }
    return Widget::Type::Section;
}

void readLeaf(CameraWidget *w, Widget *out) {
    const char *s = nullptr;
    gp_widget_get_name(w, &s);
    out->name = s ? s : "";
    s = nullptr;
    gp_widget_get_label(w, &s);
    out->label = s ? s : "";
    CameraWidgetType t;
    gp_widget_get_type(w, &t);
    out->type = typeOf(t);
    int ro = 0;
    gp_widget_get_readonly(w, &ro);
    out->readOnly = ro != 0;
    out->choices.clear();
    switch (out->type) {
    case Widget::Type::Text:
    case Widget::Type::Radio:
    case Widget::Type::Menu: {
        const char *value = nullptr;
        if (gp_widget_get_value(w, &value) == GP_OK && value)
            out->text = value;
        if (out->type != Widget::Type::Text) {
            const int n = gp_widget_count_choices(w);
            for (int i = 0; i < n; ++i) {
                const char *choice = nullptr;
                if (gp_widget_get_choice(w, i, &choice) == GP_OK && choice)
                    out->choices.emplace_back(choice);
            }
        }
        break;
    }
    case Widget::Type::Range:
        gp_widget_get_value(w, &out->number);
        gp_widget_get_range(w, &out->rangeMin, &out->rangeMax, &out->rangeStep);
        break;
    case Widget::Type::Toggle:
    case Widget::Type::Date:
        gp_widget_get_value(w, &out->integer);
        break;
    case Widget::Type::Button:
    case Widget::Type::Section:
        break;
    }
}

void collectLeaves(CameraWidget *w, std::vector<Widget> *out) {
    CameraWidgetType t;
    gp_widget_get_type(w, &t);
    if (t == GP_WIDGET_WINDOW || t == GP_WIDGET_SECTION) {
        const int n = gp_widget_count_children(w);
        for (int i = 0; i < n; ++i) {
            CameraWidget *child = nullptr;
            if (gp_widget_get_child(w, i, &child) == GP_OK && child)
                collectLeaves(child, out);
        }
        return;
    }
    Widget leaf;
    readLeaf(w, &leaf);
    out->push_back(std::move(leaf));
}

// libgphoto2 translates its labels and messages when its translations are
// installed, and the backend looks labels up and reads its messages in
// English. Pointing its message catalogues (its own and its port library's) at
// a place that holds none keeps them untranslated whatever the desktop's
// language. Must come before any other libgphoto2 call of the process, which
// would bind the installed catalogues for good.
void speakUntranslated() {
    static const int once = gp_init_localedir("/dev/null");
    (void)once;
}

class LibGphoto2Port final : public Gphoto2Port {
public:
    LibGphoto2Port() : context_((speakUntranslated(), gp_context_new())) {
        gp_context_set_error_func(context_, onContextError, &errors_);
    }
    ~LibGphoto2Port() override {
        for (auto &[handle, open] : cameras_)
            release(open);
        if (abilities_)
            gp_abilities_list_free(abilities_);
        if (ports_)
            gp_port_info_list_free(ports_);
        gp_context_unref(context_);
    }

    int driverCount() override {
        std::lock_guard lock(m_);
        const int rc = loadLists();
        if (rc < GP_OK)
            return 0;
        return gp_abilities_list_count(abilities_);
    }

    int autodetect(std::vector<DetectedCamera> *cameras) override {
        std::lock_guard lock(m_);
        cameras->clear();
        int rc = loadLists();
        if (rc >= GP_OK)
            rc = refreshPorts();
        if (rc < GP_OK)
            return rc;
        CameraList *list = nullptr;
        rc = gp_list_new(&list);
        if (rc < GP_OK)
            return rc;
        // Only USB devices: the other ports (serial, disk) cannot be probed.
        rc = gp_abilities_list_detect(abilities_, ports_, list, context_);
        if (rc >= GP_OK) {
            const int n = gp_list_count(list);
            for (int i = 0; i < n; ++i) {
                const char *name = nullptr, *value = nullptr;
                gp_list_get_name(list, i, &name);
                gp_list_get_value(list, i, &value);
                // The bare "usb:" entry stands for "any USB camera", not a device.
                if (name && value && std::strcmp(value, "usb:") != 0)
                    cameras->push_back({name, value});
            }
        }
        gp_list_free(list);
        return rc < GP_OK ? rc : GP_OK;
    }

    int openCamera(const DetectedCamera &which, Handle *handle) override {
        OpenCamera open;
        // Initialising the camera loads drivers through libltdl, which is not
        // safe against the port-driver loading of a detection on another
        // thread: the whole open holds the lock, even though it can take seconds.
        std::lock_guard lock(m_);
        {
            int rc = loadLists();
            if (rc < GP_OK)
                return rc;
            const int model = gp_abilities_list_lookup_model(abilities_, which.model.c_str());
            if (model < GP_OK) {
                lastOpenError_ = "no driver for the model \"" + which.model + "\"";
                return model;
            }
            int port = gp_port_info_list_lookup_path(ports_, which.port.c_str());
            if (port < GP_OK && refreshPorts() >= GP_OK) // plugged in since the last detection
                port = gp_port_info_list_lookup_path(ports_, which.port.c_str());
            if (port < GP_OK) {
                lastOpenError_ = "no such port \"" + which.port + "\"";
                return port;
            }
            rc = gp_camera_new(&open.camera);
            if (rc < GP_OK)
                return rc;
            CameraAbilities abilities;
            gp_abilities_list_get_abilities(abilities_, model, &abilities);
            gp_camera_set_abilities(open.camera, abilities);
            GPPortInfo info;
            gp_port_info_list_get_info(ports_, port, &info);
            gp_camera_set_port_info(open.camera, info);
        }
        open.errors = std::make_unique<ContextErrors>();
        open.context = gp_context_new();
        gp_context_set_error_func(open.context, onContextError, open.errors.get());
        const int rc = gp_camera_init(open.camera, open.context);
        if (rc < GP_OK) {
            {
                std::lock_guard elock(open.errors->m);
                lastOpenError_ = open.errors->last;
            }
            release(open);
            return rc;
        }
        lastOpenError_.clear();
        *handle = ++nextHandle_;
        cameras_.emplace(*handle, std::move(open));
        return GP_OK;
    }

    void closeCamera(Handle handle) override {
        std::lock_guard lock(m_);
        auto it = cameras_.find(handle);
        if (it == cameras_.end())
            return;
        gp_camera_exit(it->second.camera, it->second.context);
        release(it->second);
        cameras_.erase(it);
    }

    int listWidgets(Handle handle, std::vector<Widget> *widgets) override {
        widgets->clear();
        OpenCamera *open = use(handle);
        if (!open)
            return GP_ERROR_BAD_PARAMETERS;
        CameraWidget *root = nullptr;
        const int rc = gp_camera_get_config(open->camera, &root, open->context);
        if (rc < GP_OK)
            return rc;
        collectLeaves(root, widgets);
        gp_widget_free(root);
        return GP_OK;
    }

    int getWidget(Handle handle, const std::string &name, Widget *widget) override {
        OpenCamera *open = use(handle);
        if (!open)
            return GP_ERROR_BAD_PARAMETERS;
        CameraWidget *w = nullptr;
        const int rc = gp_camera_get_single_config(open->camera, name.c_str(), &w, open->context);
        if (rc < GP_OK)
            return rc;
        readLeaf(w, widget);
        gp_widget_free(w);
        return GP_OK;
    }

    int setWidget(Handle handle, const std::string &name, const Widget &value) override {
        OpenCamera *open = use(handle);
        if (!open)
            return GP_ERROR_BAD_PARAMETERS;
        CameraWidget *w = nullptr;
        int rc = gp_camera_get_single_config(open->camera, name.c_str(), &w, open->context);
        if (rc < GP_OK)
            return rc;
        CameraWidgetType t;
        gp_widget_get_type(w, &t);
        switch (t) {
        case GP_WIDGET_TEXT:
        case GP_WIDGET_RADIO:
        case GP_WIDGET_MENU:
            rc = gp_widget_set_value(w, value.text.c_str());
            break;
        case GP_WIDGET_RANGE:
            rc = gp_widget_set_value(w, &value.number);
            break;
        case GP_WIDGET_TOGGLE:
        case GP_WIDGET_DATE:
            rc = gp_widget_set_value(w, &value.integer);
            break;
        default:
            rc = GP_ERROR_NOT_SUPPORTED;
            break;
        }
        if (rc >= GP_OK)
            rc = gp_camera_set_single_config(open->camera, name.c_str(), w, open->context);
        gp_widget_free(w);
        return rc < GP_OK ? rc : GP_OK;
    }

    int waitForEvent(Handle handle, int timeoutMs, Event *event) override {
        OpenCamera *open = use(handle);
        if (!open)
            return GP_ERROR_BAD_PARAMETERS;
        CameraEventType type = GP_EVENT_TIMEOUT;
        void *data = nullptr;
        const int rc = gp_camera_wait_for_event(open->camera, timeoutMs, &type, &data, open->context);
        *event = Event{};
        if (rc < GP_OK) {
            std::free(data);
            return rc;
        }
        switch (type) {
        case GP_EVENT_UNKNOWN:
            event->type = Event::Type::Unknown;
            if (data)
                event->text = static_cast<const char *>(data);
            break;
        case GP_EVENT_TIMEOUT:
            event->type = Event::Type::Timeout;
            break;
        case GP_EVENT_FILE_ADDED:
        case GP_EVENT_FOLDER_ADDED:
        case GP_EVENT_FILE_CHANGED: {
            event->type = type == GP_EVENT_FILE_ADDED     ? Event::Type::FileAdded
                          : type == GP_EVENT_FOLDER_ADDED ? Event::Type::FolderAdded
                                                          : Event::Type::FileChanged;
            if (auto *path = static_cast<CameraFilePath *>(data)) {
                event->folder = path->folder;
                event->name = path->name;
            }
            break;
        }
        case GP_EVENT_CAPTURE_COMPLETE:
            event->type = Event::Type::CaptureComplete;
            break;
        }
        std::free(data);
        return GP_OK;
    }

    int triggerCapture(Handle handle) override {
        OpenCamera *open = use(handle);
        if (!open)
            return GP_ERROR_BAD_PARAMETERS;
        return gp_camera_trigger_capture(open->camera, open->context);
    }

    int fileInfo(Handle handle, const std::string &folder, const std::string &name, FileInfo *info) override {
        OpenCamera *open = use(handle);
        if (!open)
            return GP_ERROR_BAD_PARAMETERS;
        CameraFileInfo fi;
        std::memset(&fi, 0, sizeof fi);
        const int rc =
            gp_camera_file_get_info(open->camera, folder.c_str(), name.c_str(), &fi, open->context);
        if (rc < GP_OK)
            return rc;
        *info = FileInfo{};
        if (fi.file.fields & GP_FILE_INFO_SIZE)
            info->size = fi.file.size;
        if (fi.file.fields & GP_FILE_INFO_MTIME)
            info->mtime = fi.file.mtime;
        if (fi.file.fields & GP_FILE_INFO_TYPE)
            info->mimeType = fi.file.type;
        return GP_OK;
    }

    int readFile(Handle handle, const std::string &folder, const std::string &name, uint64_t offset,
                 char *buffer, uint64_t *size) override {
        OpenCamera *open = use(handle);
        if (!open)
            return GP_ERROR_BAD_PARAMETERS;
        uint64_t got = *size;
        const int rc = gp_camera_file_read(open->camera, folder.c_str(), name.c_str(), GP_FILE_TYPE_NORMAL,
                                           offset, buffer, &got, open->context);
        *size = rc < GP_OK ? 0 : got;
        return rc < GP_OK ? rc : GP_OK;
    }

    int getFile(Handle handle, const std::string &folder, const std::string &name,
                std::string *data) override {
        OpenCamera *open = use(handle);
        if (!open)
            return GP_ERROR_BAD_PARAMETERS;
        CameraFile *file = nullptr;
        int rc = gp_file_new(&file);
        if (rc < GP_OK)
            return rc;
        rc = gp_camera_file_get(open->camera, folder.c_str(), name.c_str(), GP_FILE_TYPE_NORMAL, file,
                                open->context);
        if (rc >= GP_OK) {
            const char *bytes = nullptr;
            unsigned long size = 0;
            rc = gp_file_get_data_and_size(file, &bytes, &size);
            if (rc >= GP_OK)
                data->assign(bytes ? bytes : "", bytes ? size : 0);
        }
        gp_file_unref(file);
        return rc < GP_OK ? rc : GP_OK;
    }

    int deleteFile(Handle handle, const std::string &folder, const std::string &name) override {
        OpenCamera *open = use(handle);
        if (!open)
            return GP_ERROR_BAD_PARAMETERS;
        const int rc = gp_camera_file_delete(open->camera, folder.c_str(), name.c_str(), open->context);
        return rc < GP_OK ? rc : GP_OK;
    }

    int capturePreview(Handle handle, std::string *jpeg) override {
        OpenCamera *open = use(handle);
        if (!open)
            return GP_ERROR_BAD_PARAMETERS;
        CameraFile *file = nullptr;
        int rc = gp_file_new(&file);
        if (rc < GP_OK)
            return rc;
        rc = gp_camera_capture_preview(open->camera, file, open->context);
        if (rc >= GP_OK) {
            const char *data = nullptr;
            unsigned long size = 0;
            rc = gp_file_get_data_and_size(file, &data, &size);
            if (rc >= GP_OK)
                jpeg->assign(data ? data : "", data ? size : 0);
        }
        gp_file_unref(file);
        return rc < GP_OK ? rc : GP_OK;
    }

    std::string describe(int result, Handle handle) override {
        std::string text = gp_result_as_string(result);
        std::string detail;
        if (handle == 0) {
            std::lock_guard lock(m_);
            detail = lastOpenError_;
        } else if (OpenCamera *open = find(handle)) {
            std::lock_guard elock(open->errors->m);
            detail = open->errors->last;
            open->errors->last.clear();
        }
        if (!detail.empty() && detail != text)
            text += " (" + detail + ")";
        return text;
    }

private:
    // Caller holds m_.
    int loadLists() {
        if (abilities_ && ports_)
            return GP_OK;
        int rc = gp_abilities_list_new(&abilities_);
        if (rc >= GP_OK)
            rc = gp_abilities_list_load(abilities_, context_);
        if (rc >= GP_OK)
            rc = gp_port_info_list_new(&ports_);
        if (rc >= GP_OK)
            rc = gp_port_info_list_load(ports_);
        if (rc < GP_OK) {
            if (abilities_)
                gp_abilities_list_free(abilities_);
            if (ports_)
                gp_port_info_list_free(ports_);
            abilities_ = nullptr;
            ports_ = nullptr;
        }
        return rc;
    }

    // A fresh list of ports: a body plugged in, replugged or power-cycled since
    // the last one has a new USB device number. Caller holds m_.
    int refreshPorts() {
        GPPortInfoList *fresh = nullptr;
        int rc = gp_port_info_list_new(&fresh);
        if (rc >= GP_OK)
            rc = gp_port_info_list_load(fresh);
        if (rc < GP_OK) {
            if (fresh)
                gp_port_info_list_free(fresh);
            return rc;
        }
        if (ports_)
            gp_port_info_list_free(ports_);
        ports_ = fresh;
        return GP_OK;
    }

    static void release(OpenCamera &open) {
        if (open.camera)
            gp_camera_unref(open.camera);
        if (open.context)
            gp_context_unref(open.context);
        open.camera = nullptr;
        open.context = nullptr;
    }

    // The camera of a handle, its last driver message cleared for the call.
    OpenCamera *use(Handle handle) {
        OpenCamera *open = find(handle);
        if (open) {
            std::lock_guard elock(open->errors->m);
            open->errors->last.clear();
        }
        return open;
    }

    OpenCamera *find(Handle handle) {
        std::lock_guard lock(m_);
        auto it = cameras_.find(handle);
        return it == cameras_.end() ? nullptr : &it->second;
    }

    std::mutex m_;
    GPContext *context_;
    ContextErrors errors_;
    CameraAbilitiesList *abilities_ = nullptr;
    GPPortInfoList *ports_ = nullptr;
    std::map<Handle, OpenCamera> cameras_;
    Handle nextHandle_ = 0;
    std::string lastOpenError_;
};

} // namespace

std::shared_ptr<Gphoto2Port> makeLibGphoto2Port() {
    return std::make_shared<LibGphoto2Port>();
}

const std::string &libgphoto2Path() {
    static const std::string path = [] {
        Dl_info info{};
        if (dladdr(reinterpret_cast<void *>(&gp_camera_new), &info) && info.dli_fname)
            return std::string(info.dli_fname);
        return std::string();
    }();
    return path;
}

} // namespace brix::gphoto2
