// The simulator as a backend of the contract suite, on a manual clock so that
// live-view frames come when the test says.
#pragma once

#include "ContractSupport.h"
#include "Dispatch.h"
#include "SimulatorControl.h"

namespace brix::eds::simtest {

inline dispatch::ManualClock &simulatorClock() {
    static dispatch::ManualClock clock;
    return clock;
}

inline contract::Backend simulatorBackend() {
    contract::Backend b;
    b.name = "Simulator";
    b.make = [] {
        dispatch::setClock(&simulatorClock());
        return createSimulatorSdk();
    };
    b.pressShutter = [](EdsSdk &sdk) { return simulatorControl(sdk)->pressShutter(); };
    b.unplug = [](EdsSdk &sdk) { return simulatorControl(sdk)->unplug(); };
    b.injectError = [](EdsSdk &sdk, const std::string &op, EdsError code, unsigned count) {
        return simulatorControl(sdk)->injectError(op, code, count);
    };
    b.callerReferences = [](EdsSdk &sdk) { return simulatorControl(sdk)->callerReferenceCount(); };
    b.nextFrame = [] { simulatorClock().advanceSeconds(0.1); };
    b.done = [] { dispatch::setClock(nullptr); };
    return b;
}

} // namespace brix::eds::simtest
