// Chooses the camera backend by name. Backends that are not part of this build
// answer "not available".
#include "EdsSdk.h"

#include <QByteArray>
#include <QString>
#include <QtGlobal>

namespace brix::eds {

#ifndef BRIX_HAVE_BACKEND_SIMULATOR
std::unique_ptr<EdsSdk> createSimulatorSdk(std::string *why) {
    if (why)
        *why = "the simulator backend is not available in this build";
    return nullptr;
}
#endif
#ifndef BRIX_HAVE_BACKEND_GPHOTO2
std::unique_ptr<EdsSdk> createGphoto2Sdk(std::string *why) {
    if (why)
        *why = "the gphoto2 backend is not available in this build";
    return nullptr;
}
#endif
#ifndef BRIX_HAVE_BACKEND_EDSDK
std::unique_ptr<EdsSdk> createEdsdkSdk(std::string *why) {
    if (why)
        *why = "the edsdk backend is not available in this build";
    return nullptr;
}
#endif

std::unique_ptr<EdsSdk> createSdk(const std::string &requested, std::string *why) {
    std::string name = requested;
    if (name.empty())
        name = qEnvironmentVariable("BRIX_CAMERA_BACKEND").toLower().toStdString();
    if (name.empty())
        name = "auto";
    if (name == "simulator")
        return createSimulatorSdk(why);
    if (name == "gphoto2")
        return createGphoto2Sdk(why);
    if (name == "edsdk")
        return createEdsdkSdk(why);
    if (name == "auto") {
        std::string edsdkWhy;
        if (auto sdk = createEdsdkSdk(&edsdkWhy))
            return sdk;
        return createGphoto2Sdk(why);
    }
    if (why)
        *why = "unknown camera backend \"" + name + "\" (use simulator, gphoto2, edsdk or auto)";
    return nullptr;
}

} // namespace brix::eds
