// Finding and refusing libEDSDK.so: the station must start, and answer "not
// available" with a clear log line, whatever is (or is not) installed.
#include "EdsdkLibrary.h"
#include "EdsdkSdk.h"
#include "LogCapture.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace brix;
using namespace brix::eds;

namespace {

// Sets an environment variable for one scope.
class ScopedEnv {
public:
    ScopedEnv(const char *name, const QByteArray &value)
        : name_(name), old_(qgetenv(name)), had_(qEnvironmentVariableIsSet(name)) {
        qputenv(name, value);
    }
    ~ScopedEnv() {
        if (had_)
            qputenv(name_, old_);
        else
            qunsetenv(name_);
    }

private:
    const char *name_;
    QByteArray old_;
    bool had_;
};

} // namespace

TEST(EdsdkLoader, MissingLibraryIsRefusedWithTheReasonAndTheBackendIsNotAvailable) {
    QTemporaryDir dir;
    const QString missing = dir.filePath("nowhere/libEDSDK.so");
    ScopedEnv env(kEdsdkPathVariable, missing.toUtf8());
    // Nothing beside the test program or on the loader's path either, on a
    // machine without Canon's library.
    test::LogCapture log;
    std::string why;
    EXPECT_EQ(createEdsdkSdk(&why), nullptr);
    EXPECT_NE(why.find(missing.toStdString()), std::string::npos) << why;
    EXPECT_NE(why.find(kEdsdkLibraryName), std::string::npos) << why;
    const std::string text = log.text().toStdString();
    EXPECT_NE(text.find("EDSDK could not be loaded from " + missing.toStdString() + ": "), std::string::npos)
        << text;
    EXPECT_NE(text.find("EDSDK not available: "), std::string::npos) << text;
    EXPECT_EQ(text.find("EDSDK loaded"), std::string::npos) << text;

    // The chooser says the same for an explicit request.
    std::string chosenWhy;
    EXPECT_EQ(createSdk("edsdk", &chosenWhy), nullptr);
    EXPECT_NE(chosenWhy.find("not available"), std::string::npos) << chosenWhy;
}

TEST(EdsdkLoader, LibraryLackingAFunctionIsRefusedNamingIt) {
    test::LogCapture log;
    std::string why;
    EXPECT_EQ(EdsdkLibrary::openFile(BRIX_EDSDK_INCOMPLETE_LIBRARY, &why), nullptr);
    EXPECT_NE(why.find("EdsDownloadEvfImage"), std::string::npos) << why;
    EXPECT_NE(log.text().toStdString().find(std::string("EDSDK at ") + BRIX_EDSDK_INCOMPLETE_LIBRARY +
                                            " lacks the function EdsDownloadEvfImage; not used"),
              std::string::npos)
        << log.text().toStdString();

    // Found through BRIX_EDSDK_PATH as a folder, it is refused the same way
    // and the search goes on (to nothing, here).
    QTemporaryDir dir;
    ASSERT_TRUE(QFile::link(BRIX_EDSDK_INCOMPLETE_LIBRARY, dir.filePath(kEdsdkLibraryName)));
    ScopedEnv env(kEdsdkPathVariable, dir.path().toUtf8());
    EXPECT_EQ(createEdsdkSdk(&why), nullptr);
    EXPECT_NE(why.find(QDir(dir.path()).filePath(kEdsdkLibraryName).toStdString() +
                       ": the function EdsDownloadEvfImage is missing"),
              std::string::npos)
        << why;
}

TEST(EdsdkLoader, FileThatIsNoLibraryIsRefused) {
    QTemporaryDir dir;
    const QString path = dir.filePath(kEdsdkLibraryName);
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.write("this is not an ELF object");
    f.close();
    test::LogCapture log;
    std::string why;
    EXPECT_EQ(EdsdkLibrary::openFile(path.toStdString(), &why), nullptr);
    EXPECT_NE(log.text().toStdString().find("EDSDK could not be loaded from " + path.toStdString()),
              std::string::npos)
        << log.text().toStdString();
}
