// The test library libEDSDK-sim.so as the tests see it: the edsdk backend
// loaded from it through BRIX_EDSDK_PATH (the station's own loading path),
// and the simulator inside it, reached through the library's extra exports.
#pragma once

#ifdef BRIX_EDSDK_SIM_LIBRARY

#include "EdsdkLibrary.h"
#include "EdsdkSdk.h"
#include "SimulatorControl.h"

#include <QtGlobal>

#include <dlfcn.h>

namespace brix::test {

class SimLibrary {
public:
    // A new edsdk backend over the test library.
    static std::unique_ptr<eds::EdsSdk> makeSdk() {
        const QByteArray old = qgetenv(eds::kEdsdkPathVariable);
        qputenv(eds::kEdsdkPathVariable, BRIX_EDSDK_SIM_LIBRARY);
        std::string why;
        auto sdk = eds::createEdsdkSdk(&why);
        qputenv(eds::kEdsdkPathVariable, old);
        return sdk;
    }

    // The simulator inside the library (made on first use, dropped by EdsTerminateSDK).
    static eds::SimulatorControl *control() {
        using Fn = eds::SimulatorControl *(*)();
        static Fn fn = reinterpret_cast<Fn>(::dlsym(handle(), "BrixSimulatorControl"));
        return fn ? fn() : nullptr;
    }

    // Events the library holds for the next EdsGetEvent.
    static unsigned pendingEvents() {
        using Fn = unsigned (*)();
        static Fn fn = reinterpret_cast<Fn>(::dlsym(handle(), "BrixSimulatorPendingEvents"));
        return fn ? fn() : 0;
    }

    // The library's own timers (live-view frames) on a manual clock, or back on the real one.
    static void useManualClock(bool on) {
        using Fn = void (*)(int);
        static Fn fn = reinterpret_cast<Fn>(::dlsym(handle(), "BrixSimulatorUseManualClock"));
        if (fn)
            fn(on ? 1 : 0);
    }
    static void advanceClock(double seconds) {
        using Fn = void (*)(double);
        static Fn fn = reinterpret_cast<Fn>(::dlsym(handle(), "BrixSimulatorAdvanceClock"));
        if (fn)
            fn(seconds);
    }

    // A backend over the library, initialised, with a session open on the first
    // attached body (one is plugged in when none is). Everything is given back
    // when the object ends. Call open() inside ASSERT_TRUE.
    struct Session {
        std::unique_ptr<eds::EdsSdk> sdk;
        eds::SimulatorControl *control = nullptr;
        eds::EdsCameraListRef list = nullptr;
        eds::EdsCameraRef camera = nullptr;

        bool open() {
            sdk = makeSdk();
            control = SimLibrary::control();
            if (!sdk || !control || sdk->EdsInitializeSDK() != eds::EDS_ERR_OK)
                return false;
            if (control->attachedCount() == 0)
                control->plug("", -1);
            return sdk->EdsGetCameraList(&list) == eds::EDS_ERR_OK &&
                   sdk->EdsGetChildAtIndex(list, 0, &camera) == eds::EDS_ERR_OK &&
                   sdk->EdsOpenSession(camera) == eds::EDS_ERR_OK;
        }
        ~Session() {
            if (!sdk)
                return;
            if (camera) {
                sdk->EdsCloseSession(camera);
                sdk->EdsRelease(camera);
            }
            if (list)
                sdk->EdsRelease(list);
            sdk->EdsTerminateSDK();
        }
    };

private:
    static void *handle() {
        static void *h = ::dlopen(BRIX_EDSDK_SIM_LIBRARY, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
        return h;
    }
};

} // namespace brix::test

#endif
