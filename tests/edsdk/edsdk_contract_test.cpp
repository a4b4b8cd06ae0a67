// The backend contract, run against the edsdk backend loaded from
// libEDSDK-sim.so through BRIX_EDSDK_PATH: the same cases the simulator
// passes in-process, now across the C interface and the EdsGetEvent pump.
#include "SimLibrary.h"

#ifdef BRIX_EDSDK_SIM_LIBRARY

#include "ContractSuite.h"

namespace brix::eds::contract {

namespace {

Backend edsdkBackend() {
    using test::SimLibrary;
    Backend b;
    b.name = "Edsdk";
    b.make = [] {
        // Live-view frames come when nextFrame says; the pump keeps real time.
        SimLibrary::useManualClock(true);
        return SimLibrary::makeSdk();
    };
    b.pressShutter = [](EdsSdk &) { return SimLibrary::control()->pressShutter(); };
    b.unplug = [](EdsSdk &) { return SimLibrary::control()->unplug(); };
    b.injectError = [](EdsSdk &, const std::string &op, EdsError code, unsigned count) {
        return SimLibrary::control()->injectError(op, code, count);
    };
    b.callerReferences = [](EdsSdk &) { return SimLibrary::control()->callerReferenceCount(); };
    b.nextFrame = [] { SimLibrary::advanceClock(0.1); };
    b.done = [] { SimLibrary::useManualClock(false); };
    return b;
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Edsdk, EdsContract, ::testing::Values(edsdkBackend()),
                         [](const ::testing::TestParamInfo<Backend> &info) { return info.param.name; });

} // namespace brix::eds::contract

#endif
