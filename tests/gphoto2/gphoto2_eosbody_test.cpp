// The real libgphoto2 with its real usb1 port driver and ptp2 camera driver on
// an EOS body emulated below libusb (eosbody/): first the adapter's own calls,
// then the whole backend as the station uses it.
#include "EosBody.h"
#include "Gphoto2Port.h"
#include "Gphoto2Sdk.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>

using namespace brix;
using namespace brix::gphoto2;
using namespace brix::eds;
using brix::eosbody::EosBody;

namespace {

constexpr const char *kModel = "Canon EOS 5D Mark IV";

class EmulatedBody : public ::testing::Test {
protected:
    void SetUp() override {
        body().command("raw+jpeg 0");
        body().command("transfer-after-polls 2");
        body().plug();
    }
    void TearDown() override {
        body().unplug();
        body().failTransfers(0);
        body().answerBusy(0);
    }
    static EosBody &body() { return EosBody::instance(); }

    // Waits for file-added events through the adapter until `count` arrived.
    static std::vector<Event> filesAdded(Gphoto2Port &port, Gphoto2Port::Handle h, size_t count) {
        std::vector<Event> files;
        for (int i = 0; i < 200 && files.size() < count; ++i) {
            Event e;
            if (port.waitForEvent(h, 10, &e) != gp::OK)
                break;
            if (e.type == Event::Type::FileAdded)
                files.push_back(e);
        }
        return files;
    }
};

} // namespace

TEST_F(EmulatedBody, LibgphotoFindsOpensAndCapturesToRamThroughPtp) {
    auto port = makeLibGphoto2Port();
    std::vector<DetectedCamera> found;
    ASSERT_EQ(port->autodetect(&found), gp::OK);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].model, kModel);
    EXPECT_EQ(found[0].port, body().portPath());

    Gphoto2Port::Handle h = 0;
    ASSERT_EQ(port->openCamera(found[0], &h), gp::OK) << port->describe(gp::Error, 0);
    Widget target;
    ASSERT_EQ(port->getWidget(h, "capturetarget", &target), gp::OK);
    Widget ram;
    ram.text = "Internal RAM";
    ASSERT_EQ(port->setWidget(h, "capturetarget", ram), gp::OK);
    EXPECT_EQ(body().captureDestination(), 4u);
    Widget aperture;
    ASSERT_EQ(port->getWidget(h, "aperture", &aperture), gp::OK);
    EXPECT_EQ(aperture.text, "5.6");

    ASSERT_EQ(port->triggerCapture(h), gp::OK) << port->describe(gp::Error, h);
    const auto files = filesAdded(*port, h, 1);
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0].folder, "/");
    std::string jpeg;
    ASSERT_EQ(port->getFile(h, files[0].folder, files[0].name, &jpeg), gp::OK);
    EXPECT_EQ(jpeg.substr(0, 2), "\xFF\xD8");
    EXPECT_EQ(body().objectsInRam(), 0);
    port->closeCamera(h);
}
