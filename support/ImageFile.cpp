#include "ImageFile.h"

#include "AtomicFile.h"
#include "Describe.h"
#include "Logger.h"
#include "PropertyList.h"

#include <exiv2/exiv2.hpp>

#include <QFile>
#include <QFileInfo>
#include <QMimeDatabase>
#include <QRegularExpression>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>

namespace brix {

namespace {

constexpr const char *kNotAnImage =
    "ERROR calling %1\n\t\t file with UT Type \"%2\" at \"%3\" is not recognized as an image type";
constexpr const char *kCopyFailed = "Failed to copy image source at %1:%2";
constexpr const char *kIncorrectArg = "ERROR: incorrect arg at %1";
constexpr int kIncorrectArgLine = 1340;
constexpr const char *kSerializeFailed = "Failed to serialize dict %1";
constexpr const char *kRegisterFailed = "Failed to register metadata namespace '%1' for prefix '%2'";
constexpr const char *kSetValueFailed = "Failed to set metadata value at path %1";
constexpr const char *kPathFormat = "%1:%2";
constexpr const char *kImageType = "image/";
// Files larger than this are not taken in whole into memory.
constexpr qint64 kMaxImageBytes = qint64(1) << 30;
// Enough of a file's start for every signature the image library knows.
constexpr qint64 kSignatureBytes = 4096;

QString op(const char *name) {
    return QStringLiteral("brix::ImageFile::%1").arg(QLatin1String(name));
}

void exivLog(int level, const char *message) {
    QString text = QString::fromLocal8Bit(message).trimmed();
    if (level >= Exiv2::LogMsg::error)
        Logger::setDebug(QStringLiteral("Exiv2: %1").arg(text));
    else
        Logger::setVerbose(QStringLiteral("Exiv2: %1").arg(text));
}

void xmpLock(void *data, bool lock) {
    auto *m = static_cast<std::recursive_mutex *>(data);
    if (lock)
        m->lock();
    else
        m->unlock();
}

// The XMP toolkit and its namespace registry are process-wide and not safe
// for concurrent use; every use of them here holds this lock.
std::recursive_mutex &exivMutex() {
    static std::recursive_mutex m;
    static std::once_flag once;
    std::call_once(once, [] {
        Exiv2::LogMsg::setHandler(exivLog);
        Exiv2::XmpParser::initialize(xmpLock, &m);
    });
    return m;
}

// "prefix:name" (XMP) or a full key.
std::string exivKey(const QString &path) {
    if (path.startsWith(QLatin1String("Exif.")) || path.startsWith(QLatin1String("Iptc.")) ||
        path.startsWith(QLatin1String("Xmp.")))
        return path.toStdString();
    const qsizetype colon = path.indexOf(':');
    if (colon <= 0)
        return {};
    return QStringLiteral("Xmp.%1.%2").arg(path.left(colon), path.mid(colon + 1)).toStdString();
}

QString text(const std::string &s) {
    return QString::fromStdString(s);
}

bool notAnImage(const QUrl &url, const char *operation) {
    if (url.isLocalFile() && ImageFile::conformsToUTType(url, QLatin1String(kImageType)))
        return false;
    Logger::setError(
        QString::fromLatin1(kNotAnImage).arg(op(operation), ImageFile::UTI(url), url.toString()));
    return true;
}

// The file's bytes opened as an image with its metadata read.
struct Opened {
    std::unique_ptr<Exiv2::Image> image;
    QByteArray bytes;
};

std::optional<Opened> openImage(const QUrl &url, QString *error) {
    QFile file(url.toLocalFile());
    if (!file.open(QIODevice::ReadOnly)) {
        *error = file.errorString();
        return std::nullopt;
    }
    if (file.size() > kMaxImageBytes) {
        *error = QStringLiteral("file too large (%1 bytes)").arg(file.size());
        return std::nullopt;
    }
    Opened o;
    o.bytes = file.readAll();
    try {
        o.image.reset(Exiv2::ImageFactory::open(reinterpret_cast<const Exiv2::byte *>(o.bytes.constData()),
                                                long(o.bytes.size()))
                          .release());
        if (!o.image) {
            *error = QStringLiteral("unknown image format");
            return std::nullopt;
        }
        o.image->readMetadata();
        if (!o.image->good()) {
            *error = QStringLiteral("unreadable image");
            return std::nullopt;
        }
    } catch (const std::exception &e) {
        *error = QString::fromLocal8Bit(e.what());
        return std::nullopt;
    }
    return std::optional<Opened>(std::move(o));
}

// A rewrite would carry over what a damaged file lacks or garble what it has,
// so it is refused: a JPEG must end with its end-of-image marker (a transfer
// cut short does not), and an XMP packet must parse.
bool fitForRewrite(const Opened &o, QString *error) {
    if (o.image->mimeType() == "image/jpeg") {
        qsizetype end = o.bytes.size();
        while (end > 0 && o.bytes[end - 1] == '\0')
            --end;
        if (end < 4 || uchar(o.bytes[end - 2]) != 0xFF || uchar(o.bytes[end - 1]) != 0xD9) {
            *error = QStringLiteral("the JPEG data is truncated (no end-of-image marker)");
            return false;
        }
    }
    if (!o.image->xmpPacket().empty()) {
        Exiv2::XmpData check;
        if (Exiv2::XmpParser::decode(check, o.image->xmpPacket()) != 0) {
            *error = QStringLiteral("the XMP packet is malformed");
            return false;
        }
    }
    return true;
}

bool holdsIntended(const QByteArray &bytes, const std::vector<std::pair<std::string, std::string>> &xmp,
                   const std::vector<std::string> &keys) {
    std::unique_ptr<Exiv2::Image> image(
        Exiv2::ImageFactory::open(reinterpret_cast<const Exiv2::byte *>(bytes.constData()),
                                  long(bytes.size()))
            .release());
    if (!image)
        return false;
    image->readMetadata();
    for (const auto &[key, value] : xmp) {
        auto it = image->xmpData().findKey(Exiv2::XmpKey(key));
        if (it == image->xmpData().end() || it->toString() != value)
            return false;
    }
    for (const std::string &key : keys) {
        const bool found = key.rfind("Exif.", 0) == 0
                               ? image->exifData().findKey(Exiv2::ExifKey(key)) != image->exifData().end()
                               : image->iptcData().findKey(Exiv2::IptcKey(key)) != image->iptcData().end();
        if (!found)
            return false;
    }
    return true;
}

template <typename Data> void putAll(Data &into, const Data &from) {
    for (const auto &datum : from)
        into[datum.key()].setValue(&datum.value());
}

} // namespace

struct ImageMetadata::Data {
    Exiv2::ExifData exif;
    Exiv2::IptcData iptc;
    Exiv2::XmpData xmp;
};

ImageMetadata::ImageMetadata() : d_(std::make_unique<Data>()) {}
ImageMetadata::~ImageMetadata() = default;
ImageMetadata::ImageMetadata(const ImageMetadata &other) : d_(std::make_unique<Data>(*other.d_)) {}
ImageMetadata &ImageMetadata::operator=(const ImageMetadata &other) {
    *d_ = *other.d_;
    return *this;
}

bool ImageMetadata::isEmpty() const {
    return d_->exif.empty() && d_->iptc.empty() && d_->xmp.empty();
}

bool ImageMetadata::registerNamespace(const QString &namespaceURI, const QString &prefix, QString *error) {
    static const QRegularExpression name(QStringLiteral("^[A-Za-z_][A-Za-z0-9_-]*$"));
    if (namespaceURI.isEmpty() || !name.match(prefix).hasMatch()) {
        if (error)
            *error = QStringLiteral("invalid namespace or prefix");
        return false;
    }
    std::lock_guard lock(exivMutex());
    try {
        const std::string ns = namespaceURI.toStdString();
        if (Exiv2::XmpProperties::prefix(ns) == prefix.toStdString())
            return true;
        Exiv2::XmpProperties::registerNs(ns, prefix.toStdString());
        return Exiv2::XmpProperties::prefix(ns) == prefix.toStdString();
    } catch (const std::exception &e) {
        if (error)
            *error = QString::fromLocal8Bit(e.what());
        return false;
    }
}

bool ImageMetadata::setValue(const QString &path, const QString &value, QString *error) {
    const std::string key = exivKey(path);
    std::lock_guard lock(exivMutex());
    try {
        if (key.rfind("Xmp.", 0) == 0)
            d_->xmp[key] = value.toStdString();
        else if (key.rfind("Exif.", 0) == 0)
            d_->exif[key] = value.toStdString();
        else if (key.rfind("Iptc.", 0) == 0)
            d_->iptc[key] = value.toStdString();
        else
            throw std::invalid_argument("not a metadata path");
        return true;
    } catch (const std::exception &e) {
        if (error)
            *error = QString::fromLocal8Bit(e.what());
        return false;
    }
}

QString ImageMetadata::stringValue(const QString &path) const {
    const std::string key = exivKey(path);
    std::lock_guard lock(exivMutex());
    try {
        if (key.rfind("Xmp.", 0) == 0) {
            auto it = d_->xmp.findKey(Exiv2::XmpKey(key));
            return it == d_->xmp.end() ? QString() : text(it->toString());
        }
        if (key.rfind("Exif.", 0) == 0) {
            auto it = d_->exif.findKey(Exiv2::ExifKey(key));
            return it == d_->exif.end() ? QString() : text(it->toString());
        }
        if (key.rfind("Iptc.", 0) == 0) {
            auto it = d_->iptc.findKey(Exiv2::IptcKey(key));
            return it == d_->iptc.end() ? QString() : text(it->toString());
        }
    } catch (const std::exception &) {
        // An unknown prefix or tag name: no such entry.
    }
    return {};
}

QVariantMap ImageMetadata::properties() const {
    std::lock_guard lock(exivMutex());
    QVariantMap exif, iptc, xmp;
    try {
        for (const auto &d : d_->exif)
            exif.insert(text(d.key()), text(d.toString()));
        for (const auto &d : d_->iptc)
            iptc.insert(text(d.key()), text(d.toString()));
        for (const auto &d : d_->xmp)
            xmp.insert(text(d.key()), text(d.toString()));
    } catch (const std::exception &) {
        // Entries read so far are kept.
    }
    return {
        {QStringLiteral("{Exif}"), exif}, {QStringLiteral("{IPTC}"), iptc}, {QStringLiteral("{XMP}"), xmp}};
}

QString ImageFile::UTI(const QUrl &url) {
    static const QMimeDatabase db;
    const QString path = url.toLocalFile();
    // The image formats are told by their signatures first: the general
    // content sniffing can take a JPEG whose XMP text holds certain words for
    // an XML document.
    QFile file(path);
    if (file.open(QIODevice::ReadOnly)) {
        const QByteArray head = file.read(kSignatureBytes);
        std::lock_guard lock(exivMutex());
        try {
            std::unique_ptr<Exiv2::Image> image(
                Exiv2::ImageFactory::open(reinterpret_cast<const Exiv2::byte *>(head.constData()),
                                          long(head.size()))
                    .release());
            const QString mime = image ? text(image->mimeType()) : QString();
            if (mime.startsWith(QLatin1String(kImageType)))
                return mime;
        } catch (const std::exception &) {
            // Not a format with a known signature: sniff below.
        }
    }
    return db.mimeTypeForFile(path, QMimeDatabase::MatchContent).name();
}

bool ImageFile::conformsToUTType(const QUrl &url, const QString &type) {
    static const QMimeDatabase db;
    const QString mime = UTI(url);
    if (type.endsWith('/'))
        return mime.startsWith(type);
    return db.mimeTypeForName(mime).inherits(type);
}

std::optional<ImageMetadata> ImageFile::imageMetadata(const QUrl &url) {
    if (notAnImage(url, "imageMetadata"))
        return std::nullopt;
    std::lock_guard lock(exivMutex());
    QString error;
    auto opened = openImage(url, &error);
    if (!opened) {
        Logger::setError(QStringLiteral("Failed to read image metadata at %1:%2").arg(url.toString(), error));
        return std::nullopt;
    }
    ImageMetadata m;
    m.data().exif = opened->image->exifData();
    m.data().iptc = opened->image->iptcData();
    m.data().xmp = opened->image->xmpData();
    return m;
}

std::optional<QVariantMap> ImageFile::imageProperties(const QUrl &url) {
    if (notAnImage(url, "imageProperties"))
        return std::nullopt;
    std::lock_guard lock(exivMutex());
    QString error;
    auto opened = openImage(url, &error);
    if (!opened) {
        Logger::setError(
            QStringLiteral("Failed to read image properties at %1:%2").arg(url.toString(), error));
        return std::nullopt;
    }
    ImageMetadata m;
    m.data().exif = opened->image->exifData();
    m.data().iptc = opened->image->iptcData();
    m.data().xmp = opened->image->xmpData();
    QVariantMap props = m.properties();
    props.insert(QStringLiteral("PixelWidth"), qlonglong(opened->image->pixelWidth()));
    props.insert(QStringLiteral("PixelHeight"), qlonglong(opened->image->pixelHeight()));
    props.insert(QStringLiteral("MIMEType"), text(opened->image->mimeType()));
    return props;
}

bool ImageFile::changeImageProperties(const QUrl &url, const QVariantMap &properties,
                                      const QUrl &savingToDestination) {
    const QString source = url.toLocalFile();
    // The times as they were before the reads below touched the access time.
    struct stat before {};
    const int statResult = ::stat(QFile::encodeName(source).constData(), &before);
    if (notAnImage(url, "changeImageProperties"))
        return false;
    if (statResult != 0) {
        Logger::setError(
            QString::fromLatin1(kCopyFailed).arg(url.toString(), QString::fromLocal8Bit(strerror(errno))));
        return false;
    }
    std::lock_guard lock(exivMutex());
    QString error;
    auto opened = openImage(url, &error);
    QByteArray rewritten;
    if (opened && fitForRewrite(*opened, &error)) {
        try {
            Exiv2::Image &image = *opened->image;
            const QVariant given = properties.value(QLatin1String(kDestinationMetadata));
            if (given.canConvert<ImageMetadata>()) {
                const ImageMetadata m = given.value<ImageMetadata>();
                if (properties.value(QLatin1String(kMergeMetadata)).toBool()) {
                    putAll(image.exifData(), m.data().exif);
                    putAll(image.iptcData(), m.data().iptc);
                    putAll(image.xmpData(), m.data().xmp);
                } else {
                    image.setExifData(m.data().exif);
                    image.setIptcData(m.data().iptc);
                    image.setXmpData(m.data().xmp);
                }
            }
            const QVariantMap exif = properties.value(QStringLiteral("{Exif}")).toMap();
            for (auto it = exif.begin(); it != exif.end(); ++it) {
                const Exiv2::ExifKey key(it.key().toStdString());
                if (it.value().toString().isEmpty()) {
                    auto found = image.exifData().findKey(key);
                    if (found != image.exifData().end())
                        image.exifData().erase(found);
                } else {
                    image.exifData()[key.key()] = it.value().toString().toStdString();
                }
            }
            const QVariantMap iptc = properties.value(QStringLiteral("{IPTC}")).toMap();
            for (auto it = iptc.begin(); it != iptc.end(); ++it) {
                const Exiv2::IptcKey key(it.key().toStdString());
                if (it.value().toString().isEmpty()) {
                    auto found = image.iptcData().findKey(key);
                    if (found != image.iptcData().end())
                        image.iptcData().erase(found);
                } else {
                    image.iptcData()[key.key()] = it.value().toString().toStdString();
                }
            }
            const QVariantMap xmp = properties.value(QStringLiteral("{XMP}")).toMap();
            for (auto it = xmp.begin(); it != xmp.end(); ++it) {
                const Exiv2::XmpKey key(it.key().toStdString());
                if (it.value().toString().isEmpty()) {
                    auto found = image.xmpData().findKey(key);
                    if (found != image.xmpData().end())
                        image.xmpData().erase(found);
                } else {
                    image.xmpData()[key.key()] = it.value().toString().toStdString();
                }
            }
            // Only the metadata segments are rewritten; the compressed pixels
            // are copied as they are.
            std::vector<std::pair<std::string, std::string>> intendedXmp;
            for (const auto &datum : image.xmpData())
                intendedXmp.emplace_back(datum.key(), datum.toString());
            std::vector<std::string> intendedKeys;
            for (const auto &datum : image.exifData())
                intendedKeys.push_back(datum.key());
            for (const auto &datum : image.iptcData())
                intendedKeys.push_back(datum.key());
            image.writeMetadata();
            // The rewritten file is the image's own buffer, used in place.
            Exiv2::BasicIo &io = image.io();
            rewritten =
                QByteArray::fromRawData(reinterpret_cast<const char *>(io.mmap()), qsizetype(io.size()));
            // Some damaged files take the rewrite but lose what was written;
            // only a result that reads back as intended replaces the file.
            if (!holdsIntended(rewritten, intendedXmp, intendedKeys))
                throw std::runtime_error("the rewritten image does not hold the new metadata");
        } catch (const std::exception &e) {
            error = QString::fromLocal8Bit(e.what());
            rewritten.clear();
        }
    }
    if (rewritten.isEmpty()) {
        Logger::setError(QString::fromLatin1(kCopyFailed).arg(url.toString(), error));
        return false;
    }

    QString target = savingToDestination.isEmpty() ? source : savingToDestination.toLocalFile();
    static const QMimeDatabase db;
    const QMimeType type = db.mimeTypeForName(text(opened->image->mimeType()));
    const QMimeType named = db.mimeTypeForFile(target, QMimeDatabase::MatchExtension);
    if (type.isValid() && !named.inherits(type.name()) && !type.preferredSuffix().isEmpty())
        target += '.' + type.preferredSuffix();

    if (!AtomicFile::write(target, rewritten, &error)) {
        Logger::setError(QString::fromLatin1(kCopyFailed).arg(url.toString(), error));
        return false;
    }
    // The new file keeps the old one's permissions and times. Linux has no
    // call that sets a birth time, so the creation date becomes the time of
    // the rewrite; the modification and access times are what the station
    // orders captures by.
    const QByteArray targetName = QFile::encodeName(target);
    ::chmod(targetName.constData(), before.st_mode & 07777);
    const struct timespec times[2] = {before.st_atim, before.st_mtim};
    if (::utimensat(AT_FDCWD, targetName.constData(), times, 0) != 0)
        Logger::setError(QStringLiteral("Failed to keep the dates of %1: %2")
                             .arg(target, QString::fromLocal8Bit(strerror(errno))));
    return true;
}

bool ImageFile::mergeImageMetadata(const QUrl &url, const ImageMetadata *metadata,
                                   const QUrl &savingToDestination) {
    if (!metadata) {
        Logger::setError(QString::fromLatin1(kIncorrectArg).arg(kIncorrectArgLine));
        return false;
    }
    return changeImageProperties(url,
                                 {{QLatin1String(kDestinationMetadata), QVariant::fromValue(*metadata)},
                                  {QLatin1String(kMergeMetadata), true}},
                                 savingToDestination);
}

bool ImageFile::setImageXMP(const QUrl &url, const QVariantMap &dictionary, const QString &namespaceURI,
                            const QString &prefix, const QString &name) {
    QString error;
    const QString encoded = PropertyList::base64EncodedFromPropertyListWithError(dictionary, &error);
    if (encoded.isNull()) {
        Logger::setError(QString::fromLatin1(kSerializeFailed).arg(describe(dictionary)));
        return false;
    }
    ImageMetadata metadata;
    if (!metadata.registerNamespace(namespaceURI, prefix)) {
        Logger::setError(QString::fromLatin1(kRegisterFailed).arg(namespaceURI, prefix));
        return false;
    }
    const QString path = QString::fromLatin1(kPathFormat).arg(prefix, name);
    if (!metadata.setValue(path, encoded)) {
        Logger::setError(QString::fromLatin1(kSetValueFailed).arg(path));
        return false;
    }
    return mergeImageMetadata(url, &metadata);
}

std::optional<QVariantMap> ImageFile::imageXMPForPrefix(const QUrl &url, const QString &prefix,
                                                        const QString &name) {
    const std::optional<ImageMetadata> metadata = imageMetadata(url);
    if (!metadata)
        return std::nullopt;
    const QString value = metadata->stringValue(QString::fromLatin1(kPathFormat).arg(prefix, name));
    if (value.isEmpty())
        return std::nullopt;
    return PropertyList::fromBase64EncodedString(value);
}

bool ImageFile::setBrixXMP(const QUrl &url, const QVariantMap &dictionary) {
    return setImageXMP(url, dictionary, QLatin1String(kBrixNamespace), QLatin1String(kBrixPrefix),
                       QLatin1String(kBrixName));
}

std::optional<QVariantMap> ImageFile::brixXMP(const QUrl &url) {
    return imageXMPForPrefix(url, QLatin1String(kBrixPrefix), QLatin1String(kBrixName));
}

} // namespace brix
