#include "CameraText.h"

#include "Describe.h"
#include "Logger.h"
#include "OKVA_CanonCamera.h"

#include <QByteArray>
#include <QDateTime>

#include <cstdio>
#include <cstring>
#include <execinfo.h>
#include <pthread.h>
#include <unistd.h>

namespace brix::cameratext {

Arg::Arg(const QVariant &v) : kind(Text), s(describe(v)) {}

namespace {

// Formats one conversion with the C library; `spec` is the conversion without
// its length modifier.
QString one(const QByteArray &spec, char conversion, const Arg *arg) {
    char buffer[512];
    QByteArray full = spec;
    int n = 0;
    switch (conversion) {
    case 'd':
    case 'i': {
        long long v = 0;
        if (arg) {
            if (arg->kind == Arg::Signed)
                v = arg->i;
            else if (arg->kind == Arg::Unsigned)
                v = arg->u <= 0xFFFFFFFFull ? static_cast<long long>(static_cast<int32_t>(arg->u))
                                            : static_cast<long long>(arg->u);
        }
        full += "ll";
        full += conversion;
        n = std::snprintf(buffer, sizeof buffer, full.constData(), v);
        break;
    }
    case 'u':
    case 'x':
    case 'X':
    case 'o': {
        unsigned long long v = 0;
        if (arg) {
            if (arg->kind == Arg::Unsigned)
                v = arg->u;
            else if (arg->kind == Arg::Signed)
                v = (arg->i >= INT32_MIN && arg->i <= INT32_MAX)
                        ? static_cast<unsigned long long>(static_cast<uint32_t>(arg->i))
                        : static_cast<unsigned long long>(arg->i);
        }
        full += "ll";
        full += conversion;
        n = std::snprintf(buffer, sizeof buffer, full.constData(), v);
        break;
    }
    case 'f':
    case 'e':
    case 'g': {
        double v = 0;
        if (arg)
            v = arg->kind == Arg::Floating   ? arg->d
                : arg->kind == Arg::Signed   ? double(arg->i)
                : arg->kind == Arg::Unsigned ? double(arg->u)
                                             : 0.0;
        full += conversion;
        n = std::snprintf(buffer, sizeof buffer, full.constData(), v);
        break;
    }
    case 'p':
        n = std::snprintf(buffer, sizeof buffer, "%p", arg ? arg->p : nullptr);
        break;
    case 'c': {
        const int v = arg ? int(arg->kind == Arg::Signed ? arg->i : arg->u) : 0;
        n = std::snprintf(buffer, sizeof buffer, "%c", v);
        break;
    }
    default:
        return QString();
    }
    if (n < 0)
        return QString();
    return QString::fromUtf8(buffer, std::min<int>(n, int(sizeof buffer) - 1));
}

} // namespace

QString describe(const QVariant &value) {
    // Text stands for itself, as "%@" prints it; anything else is described
    // as every other log line describes values, within the same limits.
    if (value.typeId() == QMetaType::QString) {
        const QString text = value.toString();
        const qsizetype limit = DescribeLimits{}.maxStringChars;
        return text.size() > limit
                   ? text.left(limit) + QStringLiteral("...(%1 more characters)").arg(text.size() - limit)
                   : text;
    }
    return brix::describe(value);
}

QString format(const char *fmt, std::initializer_list<Arg> args) {
    QString out;
    auto next = args.begin();
    const char *p = fmt;
    while (*p) {
        if (*p != '%') {
            const char *start = p;
            while (*p && *p != '%')
                ++p;
            out += QString::fromUtf8(start, int(p - start));
            continue;
        }
        ++p;
        if (*p == '%') {
            out += QLatin1Char('%');
            ++p;
            continue;
        }
        QByteArray spec("%");
        while (*p && std::strchr("-+ #0123456789.", *p))
            spec += *p++;
        while (*p && std::strchr("hlqLjzt", *p))
            ++p; // the argument's own width decides
        const char conversion = *p ? *p++ : '\0';
        const Arg *arg = next != args.end() ? &*next++ : nullptr;
        if (conversion == '@' || conversion == 's') {
            const QString text = arg && arg->kind == Arg::Text ? arg->s : QStringLiteral("(null)");
            out += text;
        } else {
            out += one(spec, conversion, arg);
        }
    }
    return out;
}

QString currentThreadDescription() {
    char name[32] = {0};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return format("<Thread: %p>{number = %d, name = %s}",
                  {reinterpret_cast<const void *>(pthread_self()), static_cast<long long>(gettid()),
                   name[0] ? name : "(null)"});
}

QString callStackReturnAddresses() {
    void *frames[32];
    const int n = backtrace(frames, 32);
    QString out = QStringLiteral("(\n");
    for (int i = 1; i < n; ++i) // 0 is this function
        out += format("    %p", {static_cast<const void *>(frames[i])}) +
               (i + 1 < n ? QStringLiteral(",\n") : QStringLiteral("\n"));
    return out + QLatin1Char(')');
}

void log(const QString &line) {
    Logger::setError(line);
}

} // namespace brix::cameratext
