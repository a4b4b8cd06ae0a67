#include "ErrorAlerts.h"

#include "Logger.h"
#include "Scheduling.h"

#include <cxxabi.h>
#include <execinfo.h>

#include <cstdlib>
#include <cstring>
#include <mutex>

namespace brix {

namespace {

constexpr const char *kPresentErrorFormat = "presentError: %1";

struct PresenterSlot {
    std::mutex m;
    ErrorAlerts::Presenter presenter;
};

PresenterSlot &presenterSlot() {
    static auto *slot = new PresenterSlot;
    return *slot;
}

// "binary(mangled+0x1f) [0x...]" -> "binary(demangled+0x1f) [0x...]"
QString demangledSymbol(const char *symbol) {
    QString text = QString::fromLocal8Bit(symbol);
    const char *open = std::strchr(symbol, '(');
    const char *plus = open ? std::strchr(open, '+') : nullptr;
    if (!open || !plus || plus == open + 1)
        return text;
    std::string mangled(open + 1, plus);
    int status = 0;
    char *plain = abi::__cxa_demangle(mangled.c_str(), nullptr, nullptr, &status);
    if (status == 0 && plain) {
        text = QString::fromLocal8Bit(symbol, open + 1 - symbol) + QString::fromLocal8Bit(plain) +
               QString::fromLocal8Bit(plus);
    }
    std::free(plain);
    return text;
}

} // namespace

QStringList ErrorAlerts::callStackSymbols() {
    void *frames[128];
    const int count = backtrace(frames, 128);
    QStringList out;
    char **symbols = backtrace_symbols(frames, count);
    if (!symbols)
        return out;
    // Frame 0 is this function itself.
    for (int i = 1; i < count; ++i)
        out << demangledSymbol(symbols[i]);
    std::free(symbols);
    return out;
}

void ErrorAlerts::displayErrorAlert(const std::optional<ErrorValue> &error) {
    ErrorValue shown;
    if (!error) {
        // Whoever asked for an alert without an error must be found from the log.
        for (const QString &symbol : callStackSymbols())
            Logger::setError(symbol);
        shown =
            ErrorValue{QString::fromLatin1(kUnknownErrorDomain), -1, QString::fromLatin1(kUnknownErrorText)};
    } else {
        shown = *error;
    }
    Scheduling::performAsyncOnMainQueue([shown] {
        Presenter presenter;
        {
            auto &slot = presenterSlot();
            std::lock_guard lk(slot.m);
            presenter = slot.presenter;
        }
        if (presenter)
            presenter(shown);
        else
            logPresenter(shown);
    });
}

void ErrorAlerts::setPresenter(Presenter presenter) {
    auto &slot = presenterSlot();
    std::lock_guard lk(slot.m);
    slot.presenter = std::move(presenter);
}

void ErrorAlerts::logPresenter(const ErrorValue &error) {
    Logger::setError(QString::fromLatin1(kPresentErrorFormat).arg(error.description()));
}

} // namespace brix
