#include "SystemSound.h"

#include <canberra.h>

#include <atomic>
#include <mutex>

namespace brix {

namespace {

std::atomic<int> gBeeps{0};

ca_context *context() {
    static std::once_flag once;
    static ca_context *ctx = nullptr;
    std::call_once(once, [] {
        if (ca_context_create(&ctx) != CA_SUCCESS)
            ctx = nullptr;
    });
    return ctx;
}

QString eventIdFor(const QString &name) {
    if (name.compare(QLatin1String("Grab"), Qt::CaseInsensitive) == 0)
        return QStringLiteral("camera-shutter");
    return name;
}

} // namespace

void SystemSound::beep() {
    ++gBeeps;
    play(QStringLiteral("bell"));
}

void SystemSound::play(const QString &name) {
    if (ca_context *ctx = context())
        ca_context_play(ctx, 0, CA_PROP_EVENT_ID, eventIdFor(name).toUtf8().constData(), nullptr);
}

int SystemSound::beepCount() { return gBeeps.load(); }

} // namespace brix
