// Test main: one application object for the whole run (the main queue is its
// event loop), a private D-Bus session bus for the whole run (so that no test
// talks to the desktop's bus), and a fresh temporary HOME with its own XDG
// folders for each test.
#include "Dispatch.h"
#include "TestSupport.h"

#include <QCoreApplication>
#ifdef BRIX_TEST_WIDGETS
#include <QApplication>
using TestApplication = QApplication;
#else
using TestApplication = QCoreApplication;
#endif
#include <QDir>
#include <QTemporaryDir>

#include <cstdio>

#include <gtest/gtest.h>

#include <memory>

namespace {

class FreshHome : public ::testing::EmptyTestEventListener {
public:
    void OnTestStart(const ::testing::TestInfo &) override {
        dir_ = std::make_unique<QTemporaryDir>(QDir::tempPath() + "/brix-test-XXXXXX");
        const QString home = dir_->path();
        QDir(home).mkpath(".config");
        QDir(home).mkpath(".local/state");
        QDir(home).mkpath("run");
        QFile::setPermissions(home + "/run", QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        qputenv("HOME", home.toUtf8());
        qputenv("XDG_CONFIG_HOME", (home + "/.config").toUtf8());
        qputenv("XDG_STATE_HOME", (home + "/.local/state").toUtf8());
    }
    void OnTestEnd(const ::testing::TestInfo &) override { dir_.reset(); }

private:
    std::unique_ptr<QTemporaryDir> dir_;
};

} // namespace

int main(int argc, char **argv) {
    brix::dispatch::setMainThread();
    ::testing::InitGoogleTest(&argc, argv);
    // Listing tests must not start a bus.
    if (::testing::GTEST_FLAG(list_tests)) {
        QCoreApplication app(argc, argv);
        return RUN_ALL_TESTS();
    }
    brix::test::PrivateBus bus;
    if (!bus.start()) {
        std::fprintf(stderr, "test main: could not start a private dbus-daemon\n");
        return 1;
    }
    TestApplication app(argc, argv);
    ::testing::UnitTest::GetInstance()->listeners().Append(new FreshHome);
    return RUN_ALL_TESTS();
}
