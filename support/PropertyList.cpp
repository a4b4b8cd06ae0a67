#include "PropertyList.h"

#include "Describe.h"
#include "Logger.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QStringDecoder>
#include <QStringList>
#include <QTimeZone>

#include <plist/plist.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

namespace brix {

namespace {

// --- log texts ---------------------------------------------------------------

const QString kErrorInside = QStringLiteral("Error inside %1: %2");
const QString kExpectedDictionary = QStringLiteral("Error in %1: expected dictionary but found %2");
const QString kErrorDecoding = QStringLiteral("ERROR decoding %1");
const QString kJsonInfo = QStringLiteral("%1 -> jsonInfo: %2");

const QString kStringWithPlistObjectName = QStringLiteral("+[NSString(OKVA_plist) stringWithPlistObject:]");
const QString kPlistObjectWithMutabilityName =
    QStringLiteral("-[NSString(OKVA_plist) plistObjectWithMutability:]");
const QString kFromBase64Name =
    QStringLiteral("+[NSDictionary(OKVA_plist) fromBase64EncodedString:mutability:]");
const QString kValueForKeyName = QStringLiteral("-[NSString(OKVA_plist) asJSONObjectValueForKey:]");

const QByteArray kJsonDataUrlPrefix = QByteArrayLiteral("data:application/json;base64,");

// Seconds between 1970-01-01 and the property-list epoch 2001-01-01 (UTC).
constexpr int64_t kPlistEpochOffset = 978307200;

// Upper bound on the size a binary property list may expand to when objects
// referenced more than once are copied out: one unit per object plus its bytes.
constexpr uint64_t kMaxExpandedWeight = uint64_t(64) << 20;

// Formatting with arg() would re-read %N inside the arguments themselves.
QString fill(const QString &format, const QString &a, const QString &b = QString()) {
    QString out = format;
    const qsizetype i = out.indexOf(QLatin1String("%1"));
    out.replace(i, 2, a);
    if (!b.isNull()) {
        const qsizetype j = out.indexOf(QLatin1String("%2"), i + a.size());
        if (j >= 0)
            out.replace(j, 2, b);
    }
    return out;
}

void setError(QString *error, const QString &text) {
    if (error)
        *error = text;
}

struct PlistDeleter {
    void operator()(void *node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

// --- Qt value -> plist_t --------------------------------------------------------

plist_t toNode(const QVariant &value, int depth, bool wholeSeconds, QString *error);

plist_t toDictNode(const QVariantMap &map, int depth, bool wholeSeconds, QString *error) {
    PlistPtr dict(plist_new_dict());
    for (auto it = map.constBegin(); it != map.constEnd(); ++it) {
        if (it.key().contains(QChar(0))) {
            setError(error, QStringLiteral("dictionary key contains a NUL character"));
            return nullptr;
        }
        plist_t child = toNode(it.value(), depth + 1, wholeSeconds, error);
        if (!child)
            return nullptr;
        plist_dict_set_item(dict.get(), it.key().toUtf8().constData(), child);
    }
    return dict.release();
}

plist_t toArrayNode(const QVariantList &list, int depth, bool wholeSeconds, QString *error) {
    PlistPtr array(plist_new_array());
    for (const QVariant &item : list) {
        plist_t child = toNode(item, depth + 1, wholeSeconds, error);
        if (!child)
            return nullptr;
        plist_array_append_item(array.get(), child);
    }
    return array.release();
}

plist_t toNode(const QVariant &value, int depth, bool wholeSeconds, QString *error) {
    if (depth > PropertyList::kMaxDepth) {
        setError(error, QStringLiteral("value nested deeper than %1 levels").arg(PropertyList::kMaxDepth));
        return nullptr;
    }
    switch (value.typeId()) {
    case QMetaType::Bool:
        return plist_new_bool(value.toBool() ? 1 : 0);
    case QMetaType::Char:
    case QMetaType::SChar:
    case QMetaType::Short:
    case QMetaType::Int:
    case QMetaType::Long:
    case QMetaType::LongLong:
    case QMetaType::UChar:
    case QMetaType::UShort:
    case QMetaType::UInt:
        // Integers are stored as 64-bit two's complement.
        return plist_new_uint(uint64_t(value.toLongLong()));
    case QMetaType::ULong:
    case QMetaType::ULongLong: {
        const qulonglong v = value.toULongLong();
        if (v > qulonglong(std::numeric_limits<qint64>::max())) {
            setError(error, QStringLiteral("integer %1 does not fit in 64 signed bits").arg(v));
            return nullptr;
        }
        return plist_new_uint(uint64_t(v));
    }
    case QMetaType::Float:
    case QMetaType::Double:
        return plist_new_real(value.toDouble());
    case QMetaType::QString: {
        const QString s = value.toString();
        if (s.contains(QChar(0))) {
            setError(error, QStringLiteral("string contains a NUL character"));
            return nullptr;
        }
        return plist_new_string(s.toUtf8().constData());
    }
    case QMetaType::QByteArray: {
        const QByteArray b = value.toByteArray();
        return plist_new_data(b.constData(), uint64_t(b.size()));
    }
    case QMetaType::QDateTime: {
        const QDateTime dt = value.toDateTime();
        if (!dt.isValid()) {
            setError(error, QStringLiteral("invalid date"));
            return nullptr;
        }
        int64_t ms = dt.toMSecsSinceEpoch() - kPlistEpochOffset * 1000;
        // XML keeps whole seconds and its writer truncates towards 2001: round
        // down here so that earlier dates keep their second too. The reader
        // also cannot tell the sign of a fraction within the first second
        // before 2001, so that second is kept whole as well.
        if (wholeSeconds || (ms < 0 && ms > -1000))
            ms = ms >= 0 ? ms - ms % 1000 : ms - (1000 + ms % 1000) % 1000;
        const int64_t sec = ms / 1000; // truncates; the fraction keeps the sign
        if (sec < std::numeric_limits<int32_t>::min() || sec > std::numeric_limits<int32_t>::max()) {
            setError(error, QStringLiteral("date %1 is out of the property-list date range")
                                .arg(dt.toUTC().toString(Qt::ISODate)));
            return nullptr;
        }
        return plist_new_date(int32_t(sec), int32_t((ms % 1000) * 1000));
    }
    case QMetaType::QVariantMap:
        return toDictNode(value.toMap(), depth, wholeSeconds, error);
    case QMetaType::QVariantHash: {
        const QVariantHash hash = value.toHash();
        QVariantMap map;
        for (auto it = hash.constBegin(); it != hash.constEnd(); ++it)
            map.insert(it.key(), it.value());
        return toDictNode(map, depth, wholeSeconds, error);
    }
    case QMetaType::QVariantList:
    case QMetaType::QStringList:
        return toArrayNode(value.toList(), depth, wholeSeconds, error);
    default:
        break;
    }
    if (!value.isValid())
        setError(error, QStringLiteral("nil is not a property-list value"));
    else
        setError(error, QStringLiteral("a value of type %1 is not a property-list value")
                            .arg(QString::fromLatin1(value.typeName())));
    return nullptr;
}

// --- plist_t -> Qt value --------------------------------------------------------

bool strictUtf8(QByteArrayView bytes, QString *out) {
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    *out = decoder(bytes);
    return !decoder.hasError() && !out->contains(QChar(0));
}

QVariant fromNode(plist_t node, int depth, QString *error);

QVariant fromDictNode(plist_t node, int depth, QString *error) {
    QVariantMap map;
    plist_dict_iter iter = nullptr;
    plist_dict_new_iter(node, &iter);
    if (!iter) {
        setError(error, QStringLiteral("out of memory"));
        return {};
    }
    QVariant result;
    for (;;) {
        char *key = nullptr;
        plist_t child = nullptr;
        plist_dict_next_item(node, iter, &key, &child);
        if (!child) {
            std::free(key);
            result = map;
            break;
        }
        QString keyText;
        const bool keyOk = key && strictUtf8(QByteArrayView(key, qsizetype(std::strlen(key))), &keyText);
        std::free(key);
        if (!keyOk) {
            setError(error, QStringLiteral("dictionary key is not valid UTF-8"));
            break;
        }
        QVariant v = fromNode(child, depth + 1, error);
        if (!v.isValid())
            break;
        map.insert(keyText, v);
    }
    std::free(iter);
    return result;
}

QVariant fromArrayNode(plist_t node, int depth, QString *error) {
    QVariantList list;
    const uint32_t n = plist_array_get_size(node);
    list.reserve(qsizetype(n));
    plist_array_iter iter = nullptr;
    plist_array_new_iter(node, &iter);
    if (!iter) {
        setError(error, QStringLiteral("out of memory"));
        return {};
    }
    QVariant result;
    for (;;) {
        plist_t child = nullptr;
        plist_array_next_item(node, iter, &child);
        if (!child) {
            result = list;
            break;
        }
        QVariant v = fromNode(child, depth + 1, error);
        if (!v.isValid())
            break;
        list.append(v);
    }
    std::free(iter);
    return result;
}

QVariant fromNode(plist_t node, int depth, QString *error) {
    if (depth > PropertyList::kMaxDepth) {
        setError(error,
                 QStringLiteral("property list nested deeper than %1 levels").arg(PropertyList::kMaxDepth));
        return {};
    }
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        uint8_t b = 0;
        plist_get_bool_val(node, &b);
        return QVariant(b != 0);
    }
    case PLIST_UINT: {
        uint64_t v = 0;
        plist_get_uint_val(node, &v);
        return QVariant(qlonglong(int64_t(v)));
    }
    case PLIST_REAL: {
        double d = 0;
        plist_get_real_val(node, &d);
        return QVariant(d);
    }
    case PLIST_STRING: {
        uint64_t length = 0;
        const char *s = plist_get_string_ptr(node, &length);
        QString text;
        if (s && !strictUtf8(QByteArrayView(s, qsizetype(length)), &text)) {
            setError(error, QStringLiteral("string is not valid UTF-8"));
            return {};
        }
        return QVariant(text.isNull() ? QString(QLatin1String("")) : text);
    }
    case PLIST_DATA: {
        char *d = nullptr;
        uint64_t len = 0;
        plist_get_data_val(node, &d, &len);
        QByteArray bytes = d ? QByteArray(d, qsizetype(len)) : QByteArray("");
        std::free(d);
        return QVariant(bytes);
    }
    case PLIST_DATE: {
        int32_t sec = 0, usec = 0;
        plist_get_date_val(node, &sec, &usec);
        // The fraction comes back without its sign; it follows the seconds.
        const int64_t frac = (int64_t(usec) + 500) / 1000; // the reader truncates to microseconds
        const int64_t ms = (int64_t(sec) + kPlistEpochOffset) * 1000 + (sec < 0 ? -frac : frac);
        return QVariant(QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC));
    }
    case PLIST_ARRAY:
        return fromArrayNode(node, depth, error);
    case PLIST_DICT:
        return fromDictNode(node, depth, error);
    case PLIST_UID:
        setError(error, QStringLiteral("archiver UID values are not supported"));
        return {};
    default:
        setError(error, QStringLiteral("unknown property-list node"));
        return {};
    }
}

// --- input checks before libplist sees the bytes ---------------------------------

uint64_t readBigEndian(const uchar *p, unsigned n) {
    uint64_t v = 0;
    for (unsigned i = 0; i < n; ++i)
        v = (v << 8) | p[i];
    return v;
}

// Walks the binary format's object graph without building anything: every
// object and reference lies inside the file, no object contains itself, the
// nesting stays within kMaxDepth, and objects shared between several parents
// cannot expand into more than kMaxExpandedWeight when copied out.
class BinaryChecker {
public:
    explicit BinaryChecker(const QByteArray &data)
        : d_(reinterpret_cast<const uchar *>(data.constData())), size_(uint64_t(data.size())) {}

    bool check(QString *error) {
        constexpr uint64_t kHeader = 8, kTrailer = 32;
        if (size_ < kHeader + kTrailer + 1)
            return fail(error, QStringLiteral("binary property list is truncated"));
        const uchar *t = d_ + size_ - kTrailer;
        offsetSize_ = t[6];
        refSize_ = t[7];
        numObjects_ = readBigEndian(t + 8, 8);
        const uint64_t root = readBigEndian(t + 16, 8);
        tableOffset_ = readBigEndian(t + 24, 8);
        const uint64_t end = size_ - kTrailer;
        if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8)
            return fail(error,
                        QStringLiteral("binary property list has invalid integer sizes in its trailer"));
        if (numObjects_ == 0 || numObjects_ > end)
            return fail(error, QStringLiteral("binary property list declares an impossible object count"));
        if (root >= numObjects_)
            return fail(error, QStringLiteral("binary property list root object is out of range"));
        if (tableOffset_ < kHeader || tableOffset_ >= end || (end - tableOffset_) / offsetSize_ < numObjects_)
            return fail(error, QStringLiteral("binary property list offset table is out of range"));

        state_.assign(size_t(numObjects_), 0);
        weight_.assign(size_t(numObjects_), 0);
        depth_.assign(size_t(numObjects_), 0);
        return walk(root, error);
    }

private:
    struct Object {
        uint64_t refs = 0;     // position of the first object reference
        uint64_t refCount = 0; // number of references (twice the entries for a dictionary)
        uint64_t payload = 0;  // bytes of its own
    };
    struct Frame {
        uint64_t index;
        Object object;
        uint64_t next = 0;
    };

    static bool fail(QString *error, const QString &text) {
        setError(error, text);
        return false;
    }

    // Big-endian UTF-16 without NUL units and with every surrogate paired.
    static bool validUtf16(const uchar *p, uint64_t units) {
        for (uint64_t i = 0; i < units; ++i) {
            const unsigned u = (unsigned(p[2 * i]) << 8) | p[2 * i + 1];
            if (u == 0 || (u >= 0xDC00 && u <= 0xDFFF))
                return false;
            if (u >= 0xD800 && u <= 0xDBFF) {
                if (++i >= units)
                    return false;
                const unsigned t = (unsigned(p[2 * i]) << 8) | p[2 * i + 1];
                if (t < 0xDC00 || t > 0xDFFF)
                    return false;
            }
        }
        return true;
    }

    bool readObject(uint64_t index, Object *out, QString *error) const {
        const uint64_t offset = readBigEndian(d_ + tableOffset_ + index * offsetSize_, offsetSize_);
        if (offset < 8 || offset >= tableOffset_)
            return fail(error, QStringLiteral("binary property list object offset is out of range"));
        const uint64_t limit = tableOffset_;
        uint64_t pos = offset + 1;
        const uchar marker = d_[offset];
        const unsigned type = marker >> 4, low = marker & 0x0F;
        auto count = [&](uint64_t *n) -> bool {
            if (low != 0x0F) {
                *n = low;
                return true;
            }
            if (pos >= limit || (d_[pos] >> 4) != 0x1 || (d_[pos] & 0x0F) > 3)
                return false;
            const unsigned bytes = 1u << (d_[pos] & 0x0F);
            if (limit - pos - 1 < bytes)
                return false;
            *n = readBigEndian(d_ + pos + 1, bytes);
            pos += 1 + bytes;
            return true;
        };
        auto fits = [&](uint64_t n, uint64_t unit) { return n <= (limit - pos) / unit; };
        uint64_t n = 0;
        switch (type) {
        case 0x0: // null, booleans, fill
            return true;
        case 0x1: // integer of 2^low bytes
        case 0x2: // real of 2^low bytes
            if (low > 4 || !fits(uint64_t(1) << low, 1))
                return fail(error, QStringLiteral("binary property list number is truncated"));
            return true;
        case 0x3: { // date: a big-endian double of seconds since 2001
            if (low != 3 || !fits(8, 1))
                return fail(error, QStringLiteral("binary property list date is truncated"));
            const uint64_t bits = readBigEndian(d_ + pos, 8);
            double seconds;
            std::memcpy(&seconds, &bits, sizeof seconds);
            if (!std::isfinite(seconds) || seconds < double(std::numeric_limits<int32_t>::min()) ||
                seconds >= double(std::numeric_limits<int32_t>::max()))
                return fail(error, QStringLiteral("binary property list date is out of range"));
            return true;
        }
        case 0x4: // data
        case 0x5: // ASCII string
        case 0x6: // UTF-16 string
            if (!count(&n) || !fits(n, type == 0x6 ? 2 : 1))
                return fail(error, QStringLiteral("binary property list string or data runs past its end"));
            out->payload = type == 0x6 ? n * 2 : n;
            // libplist hands strings on as C strings and drops broken UTF-16
            // silently: refuse both kinds of damage here.
            if (type == 0x5 && n > 0 && std::memchr(d_ + pos, 0, size_t(n)))
                return fail(error, QStringLiteral("string contains a NUL character"));
            if (type == 0x6 && !validUtf16(d_ + pos, n))
                return fail(error, QStringLiteral("string is not valid UTF-16"));
            return true;
        case 0x8: // archiver UID
            if (!fits(low + 1, 1))
                return fail(error, QStringLiteral("binary property list UID is truncated"));
            return true;
        case 0xA: // array
        case 0xC: // set
        case 0xD: // dictionary
            if (!count(&n) || !fits(n, refSize_) || (type == 0xD && !fits(n, 2 * uint64_t(refSize_))))
                return fail(error, QStringLiteral("binary property list container count runs past its end"));
            out->refs = pos;
            out->refCount = type == 0xD ? n * 2 : n;
            return true;
        default:
            return fail(error, QStringLiteral("binary property list has an unknown object marker 0x%1")
                                   .arg(unsigned(marker), 2, 16, QLatin1Char('0')));
        }
    }

    bool enter(uint64_t index, std::vector<Frame> &stack, QString *error) {
        Object object;
        if (!readObject(index, &object, error))
            return false;
        state_[index] = 1;
        stack.push_back({index, object});
        if (stack.size() > size_t(PropertyList::kMaxDepth) + 1)
            return fail(error, QStringLiteral("binary property list nested deeper than %1 levels")
                                   .arg(PropertyList::kMaxDepth));
        return true;
    }

    bool walk(uint64_t root, QString *error) {
        std::vector<Frame> stack;
        if (!enter(root, stack, error))
            return false;
        while (!stack.empty()) {
            Frame &top = stack.back();
            if (top.next < top.object.refCount) {
                const uint64_t child = readBigEndian(d_ + top.object.refs + top.next * refSize_, refSize_);
                ++top.next;
                if (child >= numObjects_)
                    return fail(error, QStringLiteral("binary property list reference is out of range"));
                if (state_[child] == 1)
                    return fail(error, QStringLiteral("binary property list object contains itself"));
                if (state_[child] == 0 && !enter(child, stack, error))
                    return false;
                continue;
            }
            // All children done: this object's expanded size and depth.
            uint64_t weight = 1 + top.object.payload;
            uint32_t depth = 1;
            for (uint64_t k = 0; k < top.object.refCount; ++k) {
                const uint64_t child = readBigEndian(d_ + top.object.refs + k * refSize_, refSize_);
                weight += weight_[child];
                depth = std::max(depth, depth_[child] + 1);
                if (weight > kMaxExpandedWeight)
                    return fail(error, QStringLiteral("binary property list expands beyond %1 bytes")
                                           .arg(kMaxExpandedWeight));
            }
            if (depth > uint32_t(PropertyList::kMaxDepth) + 1)
                return fail(error, QStringLiteral("binary property list nested deeper than %1 levels")
                                       .arg(PropertyList::kMaxDepth));
            weight_[top.index] = weight;
            depth_[top.index] = depth;
            state_[top.index] = 2;
            stack.pop_back();
        }
        return true;
    }

    const uchar *d_;
    uint64_t size_;
    unsigned offsetSize_ = 0, refSize_ = 0;
    uint64_t numObjects_ = 0, tableOffset_ = 0;
    std::vector<uint8_t> state_; // 0 unseen, 1 on the path from the root, 2 done
    std::vector<uint64_t> weight_;
    std::vector<uint32_t> depth_;
};

bool startsWithAt(const QByteArray &data, qsizetype pos, const char *text) {
    const qsizetype n = qsizetype(std::strlen(text));
    return pos + n <= data.size() && std::memcmp(data.constData() + pos, text, size_t(n)) == 0;
}

// The XML reader itself is iterative, but freeing and converting its tree are
// not: refuse nesting beyond kMaxDepth before parsing. Comments and CDATA
// sections are skipped so that their text does not count.
bool checkXmlNesting(const QByteArray &data, QString *error) {
    // XML cannot contain NUL, and libplist would end its strings there.
    if (data.contains('\0')) {
        setError(error, QStringLiteral("XML property list contains a NUL byte"));
        return false;
    }
    int depth = 0;
    const qsizetype n = data.size();
    for (qsizetype i = 0; i < n; ++i) {
        if (data[i] != '<')
            continue;
        if (startsWithAt(data, i, "<!--")) {
            const qsizetype e = data.indexOf("-->", i + 4);
            if (e < 0)
                break;
            i = e + 2;
        } else if (startsWithAt(data, i, "<![CDATA[")) {
            const qsizetype e = data.indexOf("]]>", i + 9);
            if (e < 0)
                break;
            i = e + 2;
        } else if (startsWithAt(data, i, "<array") || startsWithAt(data, i, "<dict")) {
            const qsizetype e = data.indexOf('>', i);
            if (e < 0)
                break;
            if (data[e - 1] != '/' && ++depth > PropertyList::kMaxDepth) {
                setError(error, QStringLiteral("XML property list nested deeper than %1 levels")
                                    .arg(PropertyList::kMaxDepth));
                return false;
            }
            i = e;
        } else if (startsWithAt(data, i, "</array") || startsWithAt(data, i, "</dict")) {
            --depth;
        }
    }
    return true;
}

QByteArray decodeBase64IgnoringUnknown(QByteArrayView text, bool *ok) {
    QByteArray clean;
    clean.reserve(text.size());
    for (char c : text) {
        if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
            c == '/' || c == '=')
            clean.append(c);
    }
    // Whole groups of four only, with padding only at the end.
    const qsizetype pad = clean.indexOf('=');
    if (clean.size() % 4 != 0 || (pad >= 0 && pad < clean.size() - 2) ||
        (pad >= 0 && pad == clean.size() - 2 && clean.back() != '=')) {
        *ok = false;
        return {};
    }
    auto result = QByteArray::fromBase64Encoding(clean, QByteArray::AbortOnBase64DecodingErrors);
    *ok = bool(result);
    return *ok ? *result : QByteArray();
}

} // namespace

// --- general reader and writer ------------------------------------------------

QByteArray PropertyList::dataFromPropertyList(const QVariant &value, PlistFormat format, QString *error) {
    PlistPtr root(toNode(value, 0, format == PlistFormat::Xml, error));
    if (!root)
        return {};
    char *bytes = nullptr;
    uint32_t length = 0;
    if (format == PlistFormat::Binary)
        plist_to_bin(root.get(), &bytes, &length);
    else
        plist_to_xml(root.get(), &bytes, &length);
    if (!bytes) {
        setError(error, QStringLiteral("the property list could not be serialised"));
        return {};
    }
    QByteArray out(bytes, qsizetype(length));
    if (format == PlistFormat::Binary)
        plist_to_bin_free(bytes);
    else
        plist_to_xml_free(bytes);
    return out;
}

QVariant PropertyList::propertyListFromData(const QByteArray &data, Mutability, QString *error,
                                            PlistFormat *format) {
    if (data.isEmpty()) {
        setError(error, QStringLiteral("cannot read a property list from empty data"));
        return {};
    }
    if (uint64_t(data.size()) > std::numeric_limits<uint32_t>::max()) {
        setError(error, QStringLiteral("property list data is too large"));
        return {};
    }
    plist_t raw = nullptr;
    if (data.startsWith("bplist00")) {
        if (!BinaryChecker(data).check(error))
            return {};
        plist_from_bin(data.constData(), uint32_t(data.size()), &raw);
        if (format)
            *format = PlistFormat::Binary;
    } else {
        // XML, possibly after a byte-order mark and white space.
        qsizetype i = data.startsWith("\xEF\xBB\xBF") ? 3 : 0;
        while (i < data.size() && (data[i] == ' ' || data[i] == '\t' || data[i] == '\r' || data[i] == '\n'))
            ++i;
        if (i >= data.size() || data[i] != '<') {
            setError(error, QStringLiteral("data is neither an XML nor a binary property list"));
            return {};
        }
        if (!checkXmlNesting(data, error))
            return {};
        // libplist wants the document to begin with its first tag.
        plist_from_xml(data.constData() + i, uint32_t(data.size() - i), &raw);
        if (format)
            *format = PlistFormat::Xml;
    }
    PlistPtr root(raw);
    if (!root) {
        setError(error, QStringLiteral("the property list is malformed"));
        return {};
    }
    return fromNode(root.get(), 0, error);
}

QString PropertyList::describe(const QVariant &value) {
    return brix::describe(value);
}

// --- string conversions ----------------------------------------------------------

QString PropertyList::stringWithPlistObject(const QVariant &object) {
    QString error;
    const QByteArray xml = dataFromPropertyList(object, PlistFormat::Xml, &error);
    if (xml.isNull()) {
        Logger::setError(fill(kErrorInside, kStringWithPlistObjectName, error));
        return {};
    }
    return QString::fromUtf8(xml);
}

QVariant PropertyList::plistObjectWithMutability(const QString &text, Mutability mutability) {
    QString error;
    QVariant value = propertyListFromData(text.toUtf8(), mutability, &error);
    if (!value.isValid())
        Logger::setError(fill(kErrorInside, kPlistObjectWithMutabilityName, error));
    return value;
}

QVariant PropertyList::plistObject(const QString &text) {
    return plistObjectWithMutability(text, Mutability::Immutable);
}

// --- base64 ----------------------------------------------------------------------

QString PropertyList::encodedBase64(const QByteArray &data) {
    // Never null, even for no bytes: an empty text is still a valid encoding.
    return QString::fromLatin1(data.toBase64()) + QLatin1String("");
}

QString PropertyList::base64EncodedFromPropertyListWithError(const QVariantMap &dictionary, QString *error) {
    QString why;
    const QByteArray binary = dataFromPropertyList(dictionary, PlistFormat::Binary, &why);
    if (binary.isNull()) {
        setError(error, QStringLiteral("base64EncodedFromPropertyListWithError: ") + why);
        return {};
    }
    return encodedBase64(binary);
}

QString PropertyList::asBase64EncodedString(const QVariantMap &dictionary) {
    return base64EncodedFromPropertyListWithError(dictionary, nullptr);
}

std::optional<QVariantMap> PropertyList::fromBase64EncodedString(const QString &text, Mutability mutability) {
    bool ok = false;
    const QByteArray data = decodeBase64IgnoringUnknown(text.toUtf8(), &ok);
    QString error;
    QVariant value;
    if (!ok)
        error = QStringLiteral("the text is not valid base64");
    else
        value = propertyListFromData(data, mutability, &error);
    if (!value.isValid()) {
        Logger::setError(fill(kErrorInside, kFromBase64Name, error));
        return std::nullopt;
    }
    if (value.typeId() != QMetaType::QVariantMap) {
        Logger::setError(fill(kExpectedDictionary, kFromBase64Name, describe(value)));
        return std::nullopt;
    }
    return value.toMap();
}

std::optional<QVariantMap> PropertyList::fromBase64EncodedString(const QString &text) {
    return fromBase64EncodedString(text, Mutability::Immutable);
}

// --- JSON ------------------------------------------------------------------------

QVariant PropertyList::asJSONObjectFromBase64Encoding(const QString &text) {
    const QByteArray utf8 = text.toUtf8();
    const qsizetype last = utf8.lastIndexOf(kJsonDataUrlPrefix);
    const QByteArrayView piece =
        last < 0 ? QByteArrayView(utf8) : QByteArrayView(utf8).sliced(last + kJsonDataUrlPrefix.size());
    bool ok = false;
    const QByteArray json = decodeBase64IgnoringUnknown(piece, &ok);
    if (!ok) {
        Logger::setError(fill(kErrorDecoding, QStringLiteral("the text is not valid base64")));
        return {};
    }
    QJsonParseError parseError;
    const QJsonDocument doc = QJsonDocument::fromJson(json, &parseError);
    if (parseError.error != QJsonParseError::NoError || doc.isNull()) {
        Logger::setError(
            fill(kErrorDecoding,
                 QStringLiteral("%1 at offset %2").arg(parseError.errorString()).arg(parseError.offset)));
        return {};
    }
    return doc.isObject() ? QVariant(doc.object().toVariantMap()) : QVariant(doc.array().toVariantList());
}

QVariant PropertyList::asJSONObjectValueForKey(const QString &text, const QString &key) {
    const QVariant info = asJSONObjectFromBase64Encoding(text);
    Logger::setError(fill(kJsonInfo, kValueForKeyName, describe(info)));
    if (info.typeId() != QMetaType::QVariantMap)
        return {};
    return info.toMap().value(key);
}

} // namespace brix
