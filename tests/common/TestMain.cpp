// Test main: one application object for the whole run (the main queue is its
// event loop) and a fresh temporary HOME with its own XDG folders for each test.
#include "Dispatch.h"

#include <QCoreApplication>
#include <QDir>
#include <QTemporaryDir>

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
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::UnitTest::GetInstance()->listeners().Append(new FreshHome);
    return RUN_ALL_TESTS();
}
