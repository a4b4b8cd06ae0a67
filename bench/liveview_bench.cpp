// Live view in the window: frames painted per second against a simulated
// source, and the main thread's busy share while it shows them.
//
// Usage: liveview_bench [seconds=10] [source fps=60]
// Runs on whatever Qt platform is set (QT_QPA_PLATFORM=xcb under Xvfb, or offscreen).
#include "AppDelegate.h"
#include "CameraPanelModel.h"
#include "Dispatch.h"
#include "EdsSdk.h"
#include "HistogramController.h"
#include "LiveViewController.h"
#include "MainWindow.h"
#include "OKVA_CanonCamera.h"
#include "SimulatorControl.h"
#include "ViewController.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

#include <cstdio>
#include <cstdlib>
#include <ctime>

using namespace brix;

namespace {

double threadCpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

void runFor(double seconds) {
    QEventLoop loop;
    QTimer::singleShot(int(seconds * 1000), &loop, &QEventLoop::quit);
    loop.exec();
}

class PaintCounter : public QObject {
public:
    quint64 paints = 0;
    bool eventFilter(QObject *, QEvent *e) override {
        if (e->type() == QEvent::Paint)
            ++paints;
        return false;
    }
};

} // namespace

int main(int argc, char **argv) {
    dispatch::setMainThread();
    QApplication app(argc, argv);
    const double seconds = argc > 1 ? std::atof(argv[1]) : 10.0;
    const double sourceFps = argc > 2 ? std::atof(argv[2]) : 60.0;

    std::string why;
    std::shared_ptr<eds::EdsSdk> sim(eds::createSimulatorSdk(&why));
    if (!sim) {
        std::fprintf(stderr, "no simulator: %s\n", why.c_str());
        return 1;
    }
    eds::simulatorControl(*sim)->setLiveViewRate(sourceFps);

    AppDelegate delegate;
    CameraPanelModel panel;
    panel.setCameraProvider([&] { return delegate.currentCamera(); });
    delegate.setControls(&panel);
    delegate.awakeFromNib();
    ViewController vc;
    vc.setDisplaysImages(true);
    vc.setCameraControls(&panel);
    vc.setCameraStarter([&] { return OKVA_CanonCamera::initialize(sim); });
    LiveViewController live;
    live.setCameraProvider([&] { return delegate.currentCamera(); });
    HistogramController histogram;
    MainWindow window(vc, panel, live, histogram);
    window.show();
    vc.viewDidLoad();
    QElapsedTimer wait;
    wait.start();
    while (!delegate.currentCamera() && wait.elapsed() < 20000)
        runFor(0.05);
    if (!delegate.currentCamera()) {
        std::fprintf(stderr, "no camera\n");
        return 1;
    }
    PaintCounter counter;
    QWidget *pane = window.findChild<QWidget *>(QStringLiteral("liveview"));
    pane->installEventFilter(&counter);
    live.start();
    runFor(1.0); // the stream settles

    const quint64 frames0 = live.framesShown();
    const quint64 paints0 = counter.paints;
    const double cpu0 = threadCpuSeconds();
    QElapsedTimer wall;
    wall.start();
    runFor(seconds);
    const double elapsed = double(wall.nsecsElapsed()) / 1e9;
    const double cpu = threadCpuSeconds() - cpu0;
    const quint64 frames = live.framesShown() - frames0;
    const quint64 paints = counter.paints - paints0;
    live.stop();

    std::printf("platform %s, source %.0f fps, %.1f s\n", qPrintable(QGuiApplication::platformName()),
                sourceFps, elapsed);
    std::printf("frames received by the window: %.2f /s\n", double(frames) / elapsed);
    std::printf("live-view pane paints:         %.2f /s\n", double(paints) / elapsed);
    std::printf("main thread busy:              %.1f %%\n", 100.0 * cpu / elapsed);
    // The figures are out; skip the orderly teardown of the simulated body.
    std::fflush(stdout);
    std::_Exit(0);
}
