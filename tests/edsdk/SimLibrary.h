// The test library libEDSDK-sim.so as the tests see it: the edsdk backend
// loaded from it through BRIX_EDSDK_PATH (the station's own loading path),
// the simulator inside it, reached through the library's extra exports, and
// the backend record and session (ContractSupport.h) over the two.
#pragma once

#ifdef BRIX_EDSDK_SIM_LIBRARY

#include "ContractSupport.h"
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
    static eds::SimulatorControl *control() { return call<eds::SimulatorControl *>("BrixSimulatorControl"); }
    // Events the library holds for the next EdsGetEvent.
    static unsigned pendingEvents() { return call<unsigned>("BrixSimulatorPendingEvents"); }
    // The library's own timers (live-view frames) on a manual clock, or back on the real one.
    static void useManualClock(bool on) { call<void>("BrixSimulatorUseManualClock", on ? 1 : 0); }
    static void advanceClock(double seconds) { call<void>("BrixSimulatorAdvanceClock", seconds); }

    // The backend record of the contract suite.
    static eds::contract::Backend backend() {
        eds::contract::Backend b;
        b.name = "Edsdk";
        b.make = [] {
            // Live-view frames come when nextFrame says; the pump keeps real time.
            useManualClock(true);
            return makeSdk();
        };
        b.unplug = [](eds::EdsSdk &) { return control()->unplug(); };
        b.injectError = [](eds::EdsSdk &, const std::string &op, eds::EdsError code, unsigned count) {
            return control()->injectError(op, code, count);
        };
        b.callerReferences = [](eds::EdsSdk &) { return control()->callerReferenceCount(); };
        b.nextFrame = [] { advanceClock(0.1); };
        b.done = [] { useManualClock(false); };
        return b;
    }

private:
    // Calls the library's extra export `name` (R() when it lacks it).
    template <class R, class... Args> static R call(const char *name, Args... args) {
        const auto fn = reinterpret_cast<R (*)(Args...)>(::dlsym(handle(), name));
        return fn ? fn(args...) : R();
    }
    static void *handle() {
        static void *h = ::dlopen(BRIX_EDSDK_SIM_LIBRARY, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
        return h;
    }
};

// A session on the library's first camera, for the backend's own tests.
class SimLibrarySession : public eds::contract::SdkSession {
protected:
    const eds::contract::Backend &backend() const override {
        static const eds::contract::Backend edsdk = SimLibrary::backend();
        return edsdk;
    }
};

} // namespace brix::test

#endif
