// Image files' properties and metadata, read and rewritten without touching the
// pixels, and the station's private XMP tag: a dictionary stored inside the
// image itself (brix:image_attr, base64 of a binary property list).
//
// Every operation works on the file named by a file URL, checks first that the
// file's content is an image, logs any failure as one line and never throws; a
// failed rewrite leaves the file as it was, since the new bytes replace the old
// file atomically. A rewrite keeps the file's modification and access times (the
// station orders its captures by them).
//
// Threads: any; callers rewriting the same file serialise themselves. Returned
// values are copies owned by the caller.
#pragma once

#include <QMetaType>
#include <QString>
#include <QUrl>
#include <QVariantMap>

#include <memory>
#include <optional>

namespace brix {

// The metadata of one image (EXIF, IPTC and XMP). XMP values are addressed as
// "prefix:name"; any entry also by its full key ("Exif.Image.Make",
// "Xmp.dc.title").
class ImageMetadata {
public:
    ImageMetadata();
    ~ImageMetadata();
    ImageMetadata(const ImageMetadata &other);
    ImageMetadata &operator=(const ImageMetadata &other);

    bool isEmpty() const;
    // Makes `prefix` stand for the namespace URI in XMP paths.
    bool registerNamespace(const QString &namespaceURI, const QString &prefix, QString *error = nullptr);
    bool setValue(const QString &path, const QString &value, QString *error = nullptr);
    // Empty when there is no such entry.
    QString stringValue(const QString &path) const;
    // "{Exif}", "{IPTC}" and "{XMP}": full key to text of the value.
    QVariantMap properties() const;

    struct Data;
    const Data &data() const { return *d_; }
    Data &data() { return *d_; }

private:
    std::unique_ptr<Data> d_;
};

class ImageFile {
public:
    // The private tag.
    static constexpr const char *kBrixNamespace = "http://ns.okvasoft.com/brix/1.0/";
    static constexpr const char *kBrixPrefix = "brix";
    static constexpr const char *kBrixName = "image_attr";
    // Property keys that rewrite metadata: the metadata to write, and whether it
    // is merged into what the file holds (otherwise it replaces it).
    static constexpr const char *kDestinationMetadata = "DestinationMetadata";
    static constexpr const char *kMergeMetadata = "MergeMetadata";

    // The type of the file's content ("image/jpeg"), recognised from its bytes.
    static QString UTI(const QUrl &url);
    static bool conformsToUTType(const QUrl &url, const QString &type);

    // "PixelWidth", "PixelHeight", "MIMEType" and the metadata groups of
    // ImageMetadata::properties(); nullopt when unreadable.
    static std::optional<QVariantMap> imageProperties(const QUrl &url);
    static std::optional<ImageMetadata> imageMetadata(const QUrl &url);

    // Rewrites the image with the properties: kDestinationMetadata (an
    // ImageMetadata in a QVariant) with kMergeMetadata, and/or groups "{Exif}",
    // "{IPTC}", "{XMP}" of key -> text (an empty text removes the entry). The
    // result goes to `destination` (empty = the file itself); a destination
    // whose extension does not fit the image type gets the preferred one
    // appended.
    static bool changeImageProperties(const QUrl &url, const QVariantMap &properties,
                                      const QUrl &savingToDestination = {});
    // Rewrites with `metadata` merged into the file's own; nullptr is refused.
    static bool mergeImageMetadata(const QUrl &url, const ImageMetadata *metadata,
                                   const QUrl &savingToDestination = {});

    static bool setImageXMP(const QUrl &url, const QVariantMap &dictionary, const QString &namespaceURI,
                            const QString &prefix, const QString &name);
    static std::optional<QVariantMap> imageXMPForPrefix(const QUrl &url, const QString &prefix,
                                                        const QString &name);
    static bool setBrixXMP(const QUrl &url, const QVariantMap &dictionary);
    static std::optional<QVariantMap> brixXMP(const QUrl &url);
};

} // namespace brix

Q_DECLARE_METATYPE(brix::ImageMetadata)
