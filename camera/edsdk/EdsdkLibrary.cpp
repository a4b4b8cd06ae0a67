#include "EdsdkLibrary.h"

#include "Logger.h"

#include <QByteArray>
#include <QDir>
#include <QFileInfo>
#include <QString>

#include <dlfcn.h>

namespace brix::eds {

namespace {

QString q(const std::string &s) {
    return QString::fromStdString(s);
}

// The folder of the running executable, from the kernel's own record.
QString executableFolder() {
    const QFileInfo exe(QStringLiteral("/proc/self/exe"));
    const QString target = exe.symLinkTarget();
    return target.isEmpty() ? QString() : QFileInfo(target).absolutePath();
}

} // namespace

EdsdkLibrary::~EdsdkLibrary() {
    if (handle_)
        ::dlclose(handle_);
}

std::vector<std::string> EdsdkLibrary::candidates() {
    std::vector<std::string> out;
    const QString configured = qEnvironmentVariable(kEdsdkPathVariable);
    if (!configured.isEmpty()) {
        if (QFileInfo(configured).isDir())
            out.push_back(QDir(configured).filePath(kEdsdkLibraryName).toStdString());
        else
            out.push_back(configured.toStdString());
    }
    const QString folder = executableFolder();
    if (!folder.isEmpty()) {
        const QString beside = QDir(folder).filePath(kEdsdkLibraryName);
        // Only when it is there: a missing file beside the program is the usual case, not news.
        if (QFileInfo::exists(beside))
            out.push_back(beside.toStdString());
    }
    out.push_back(kEdsdkLibraryName);
    return out;
}

std::unique_ptr<EdsdkLibrary> EdsdkLibrary::openFile(const std::string &fileOrName, std::string *why) {
    // RTLD_NODELETE: the library may run threads of its own that outlive a
    // backend; unmapping their code under them would crash the process.
    void *handle = ::dlopen(fileOrName.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (!handle) {
        const char *err = ::dlerror();
        const std::string reason = err ? err : "dlopen() failed";
        Logger::setError(QString::fromLatin1(kEdsdkNotLoaded).arg(q(fileOrName), q(reason)));
        if (why)
            *why = fileOrName + ": " + reason;
        return nullptr;
    }

    std::unique_ptr<EdsdkLibrary> lib(new EdsdkLibrary);
    lib->handle_ = handle;
    std::string missing;
    // dlsym answers void*; the table's member type says what it really is.
#define BRIX_EDSDK_RESOLVE(name)                                                                             \
    if (missing.empty()) {                                                                                   \
        ::dlerror();                                                                                         \
        void *symbol = ::dlsym(handle, #name);                                                               \
        if (symbol)                                                                                          \
            lib->functions_.name = reinterpret_cast<decltype(lib->functions_.name)>(symbol);                 \
        else                                                                                                 \
            missing = #name;                                                                                 \
    }
    BRIX_EDSDK_FUNCTIONS(BRIX_EDSDK_RESOLVE)
#undef BRIX_EDSDK_RESOLVE

    if (!missing.empty()) {
        Logger::setError(QString::fromLatin1(kEdsdkMissingFunction).arg(q(fileOrName), q(missing)));
        if (why)
            *why = fileOrName + ": the function " + missing + " is missing";
        return nullptr;
    }

    Dl_info info{};
    if (::dladdr(reinterpret_cast<void *>(lib->functions_.EdsInitializeSDK), &info) && info.dli_fname &&
        info.dli_fname[0]) {
        lib->path_ = info.dli_fname;
        Logger::setError(QString::fromLatin1(kEdsdkLoadedFrom).arg(QString::fromLocal8Bit(info.dli_fname)));
    } else {
        Logger::setError(QString::fromLatin1(kEdsdkLoadedNoPath));
    }
    return lib;
}

std::unique_ptr<EdsdkLibrary> EdsdkLibrary::open(std::string *why) {
    std::string reasons;
    for (const std::string &candidate : candidates()) {
        std::string reason;
        if (auto lib = openFile(candidate, &reason))
            return lib;
        if (!reasons.empty())
            reasons += "; ";
        reasons += reason;
    }
    Logger::setError(QString::fromLatin1(kEdsdkNotAvailable).arg(q(reasons)));
    if (why)
        *why = "the edsdk backend is not available: " + reasons;
    return nullptr;
}

} // namespace brix::eds
