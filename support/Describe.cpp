#include "Describe.h"

#include "ErrorValue.h"

#include <QDateTime>
#include <QRegularExpression>

namespace brix {

namespace {

QString quoteIfNeeded(const QString &s) {
    static const QRegularExpression plain(QStringLiteral("^[A-Za-z0-9_./:-]+$"));
    if (!s.isEmpty() && plain.match(s).hasMatch())
        return s;
    QString escaped = s;
    escaped.replace('\\', QLatin1String("\\\\")).replace('"', QLatin1String("\\\"")).replace('\n', QLatin1String("\\n"));
    return '"' + escaped + '"';
}

void append(QString &out, const QVariant &v, const DescribeLimits &lim, int depth) {
    const QString indent(4 * (depth + 1), ' ');
    const QString closeIndent(4 * depth, ' ');
    if (depth > lim.maxDepth) {
        out += QStringLiteral("...");
        return;
    }
    switch (v.metaType().id()) {
    case QMetaType::QVariantMap: {
        const QVariantMap m = v.toMap();
        out += QStringLiteral("{\n");
        int n = 0;
        for (auto it = m.begin(); it != m.end(); ++it, ++n) {
            if (n == lim.maxElements) {
                out += indent + QStringLiteral("... (%1 more entries)\n").arg(m.size() - n);
                break;
            }
            out += indent + quoteIfNeeded(it.key().left(lim.maxStringChars)) + QStringLiteral(" = ");
            append(out, it.value(), lim, depth + 1);
            out += QStringLiteral(";\n");
        }
        out += closeIndent + '}';
        return;
    }
    case QMetaType::QVariantList:
    case QMetaType::QStringList: {
        const QVariantList l = v.toList();
        out += QStringLiteral("(\n");
        for (qsizetype i = 0; i < l.size(); ++i) {
            if (i == lim.maxElements) {
                out += indent + QStringLiteral("... (%1 more elements)\n").arg(l.size() - i);
                break;
            }
            out += indent;
            append(out, l[i], lim, depth + 1);
            out += (i + 1 < l.size() ? QStringLiteral(",\n") : QStringLiteral("\n"));
        }
        out += closeIndent + ')';
        return;
    }
    case QMetaType::QString: {
        const QString s = v.toString();
        if (s.size() > lim.maxStringChars)
            out += quoteIfNeeded(s.left(lim.maxStringChars)) + QStringLiteral("...(%1 more characters)").arg(s.size() - lim.maxStringChars);
        else
            out += quoteIfNeeded(s);
        return;
    }
    case QMetaType::QByteArray: {
        const QByteArray b = v.toByteArray();
        out += QStringLiteral("{length = %1, bytes = 0x%2%3}")
                   .arg(b.size())
                   .arg(QString::fromLatin1(b.left(16).toHex()))
                   .arg(b.size() > 16 ? QStringLiteral("...") : QString());
        return;
    }
    case QMetaType::Bool:
        out += v.toBool() ? QStringLiteral("1") : QStringLiteral("0");
        return;
    case QMetaType::QDateTime:
        out += v.toDateTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss ")) + v.toDateTime().timeZoneAbbreviation();
        return;
    case QMetaType::UnknownType:
        out += QStringLiteral("(null)");
        return;
    default:
        if (v.metaType() == QMetaType::fromType<ErrorValue>()) {
            out += v.value<ErrorValue>().description().left(lim.maxStringChars);
            return;
        }
        if (v.canConvert<QString>())
            out += quoteIfNeeded(v.toString().left(lim.maxStringChars));
        else
            out += QStringLiteral("<%1>").arg(QString::fromLatin1(v.typeName()));
        return;
    }
}

} // namespace

QString describe(const QVariant &value, const DescribeLimits &limits) {
    QString out;
    append(out, value, limits, 0);
    return out;
}

} // namespace brix
