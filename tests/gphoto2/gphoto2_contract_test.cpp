// The backend contract shared with the simulator, run against the gphoto2
// backend twice: on an EOS 5D Mark III widget tree served by the adapter's
// test double, and on the real libgphoto2 over the emulated EOS body.
#include "ContractSuite.h"
#include "EosBody.h"
#include "FakeGphoto2Port.h"
#include "Gphoto2Sdk.h"

namespace brix::eds::contract {
namespace {

Backend gphoto2ReplayBackend() {
    // The double of the running case, shared by the drivers below.
    auto port = std::make_shared<std::shared_ptr<gphoto2::replay::FakeGphoto2Port>>();
    Backend b;
    b.name = "Gphoto2Replay";
    b.make = [port]() -> std::unique_ptr<EdsSdk> {
        *port = std::make_shared<gphoto2::replay::FakeGphoto2Port>(
            gphoto2::replay::parseListAllConfig(gphoto2::replay::fixture("eos-5d-mark-iii.txt")));
        (*port)->setDetected({{"Canon EOS 5D Mark III", "usb:001,005"}});
        gphoto2::Gphoto2Options o;
        o.hotplug = gphoto2::Gphoto2Options::Hotplug::Off;
        o.eventWaitMs = 5;
        return std::make_unique<gphoto2::Gphoto2Sdk>(*port, o);
    };
    b.unplug = [port](EdsSdk &) {
        (*port)->unplug();
        return true;
    };
    b.callerReferences = [](EdsSdk &sdk) {
        return static_cast<gphoto2::Gphoto2Sdk &>(sdk).callerReferences();
    };
    b.done = [port] { port->reset(); };
    return b;
}

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

INSTANTIATE_TEST_SUITE_P(Gphoto2, EdsContract,
                         ::testing::Values(gphoto2ReplayBackend(), emulatedBodyBackend()),
                         [](const ::testing::TestParamInfo<Backend> &info) { return info.param.name; });

} // namespace brix::eds::contract
