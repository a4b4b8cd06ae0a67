#include "CameraText.h"

#include "DateFormat.h"
#include "Logger.h"
#include "OKVA_CanonCamera.h"

#include <QByteArray>
#include <QDateTime>
#include <QImage>

#include <cstdio>
#include <cstring>
#include <execinfo.h>
#include <pthread.h>
#include <unistd.h>

namespace brix::cameratext {

Arg::Arg(const QVariant &v) : kind(Text), s(describe(v)) {}

namespace {

QString describeIndented(const QVariant &value, int depth);

QString indent(int depth) {
    return QString(depth * 4, QLatin1Char(' '));
}

QString describeIndented(const QVariant &value, int depth) {
    if (!value.isValid() || value.isNull())
        return QStringLiteral("(null)");
    const auto type = value.metaType();
    if (type == QMetaType::fromType<QString>())
        return value.toString();
    if (type == QMetaType::fromType<QDateTime>())
        return DateFormat::format(value.toDateTime(), QStringLiteral("yyyy-MM-dd HH:mm:ss Z"),
                                  QStringLiteral("UTC"));
    if (type == QMetaType::fromType<QVariantMap>()) {
        const QVariantMap map = value.toMap();
        QString out = QStringLiteral("{\n");
        for (auto it = map.begin(); it != map.end(); ++it)
            out += indent(depth + 1) + QLatin1Char('"') + it.key() + QStringLiteral("\" = ") +
                   describeIndented(it.value(), depth + 1) + QStringLiteral(";\n");
        return out + indent(depth) + QLatin1Char('}');
    }
    if (type == QMetaType::fromType<QVariantList>()) {
        const QVariantList list = value.toList();
        QString out = QStringLiteral("(\n");
        for (int i = 0; i < list.size(); ++i)
            out += indent(depth + 1) + describeIndented(list[i], depth + 1) +
                   (i + 1 < list.size() ? QStringLiteral(",\n") : QStringLiteral("\n"));
        return out + indent(depth) + QLatin1Char(')');
    }
    if (type == QMetaType::fromType<QByteArray>()) {
        const QByteArray bytes = value.toByteArray();
        return QStringLiteral("{length = %1, bytes = 0x%2%3}")
            .arg(bytes.size())
            .arg(QString::fromLatin1(bytes.left(16).toHex()))
            .arg(bytes.size() > 16 ? QStringLiteral("...") : QString());
    }
    if (type == QMetaType::fromType<CameraPtr>()) {
        const auto camera = value.value<CameraPtr>();
        return camera ? camera->description() : QStringLiteral("(null)");
    }
    if (type == QMetaType::fromType<QImage>()) {
        const auto image = value.value<QImage>();
        return QStringLiteral("<QImage %1x%2>").arg(image.width()).arg(image.height());
    }
    if (type == QMetaType::fromType<ErrorValue>())
        return value.value<ErrorValue>().description();
    if (value.canConvert<QString>())
        return value.toString();
    return QStringLiteral("<%1>").arg(QString::fromLatin1(type.name()));
}

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
    return describeIndented(value, 0);
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
