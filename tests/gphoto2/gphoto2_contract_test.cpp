// The backend contract shared with the simulator, run against the gphoto2
// backend on the real libgphoto2 over the emulated EOS body.
#include "ContractSuite.h"
#include "EosBody.h"
#include "Gphoto2Sdk.h"

namespace brix::eds::contract {
namespace {

Backend emulatedBodyBackend() {
    Backend b;
    b.name = "EmulatedEosBody";
    b.make = []() -> std::unique_ptr<EdsSdk> {
        eosbody::EosBody::instance().command("reset");
        eosbody::EosBody::instance().plug();
        gphoto2::Gphoto2Options o;
        o.hotplug = gphoto2::Gphoto2Options::Hotplug::Polling;
        o.pollSeconds = 0.05;
        o.eventWaitMs = 5;
        return std::make_unique<gphoto2::Gphoto2Sdk>(gphoto2::makeLibGphoto2Port(), o);
    };
    b.pressShutter = [](EdsSdk &) {
        eosbody::EosBody::instance().pressShutter();
        return true;
    };
    b.unplug = [](EdsSdk &) {
        eosbody::EosBody::instance().unplug();
        return true;
    };
    b.callerReferences = [](EdsSdk &sdk) {
        return static_cast<gphoto2::Gphoto2Sdk &>(sdk).callerReferences();
    };
    b.done = [] { eosbody::EosBody::instance().unplug(); };
    return b;
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Gphoto2, EdsContract, ::testing::Values(emulatedBodyBackend()),
                         [](const ::testing::TestParamInfo<Backend> &info) { return info.param.name; });

} // namespace brix::eds::contract
