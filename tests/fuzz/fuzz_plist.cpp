// Feeds arbitrary bytes to every reader of property lists, base64 and JSON.
// Besides not crashing, a value that was read and can be written again must
// read back again from both formats.
#include "FuzzTarget.h"
#include "PropertyList.h"

#include <QString>

#include <cstdlib>

using namespace brix;

void fuzzOne(const QByteArray &bytes) {
    const QVariant value = PropertyList::propertyListFromData(bytes, Mutability::Immutable);
    if (value.isValid()) {
        for (PlistFormat format : {PlistFormat::Xml, PlistFormat::Binary}) {
            const QByteArray again = PropertyList::dataFromPropertyList(value, format);
            if (!again.isNull() &&
                !PropertyList::propertyListFromData(again, Mutability::Immutable).isValid())
                std::abort();
        }
    }

    const QString text = QString::fromUtf8(bytes);
    (void)PropertyList::plistObject(text);
    (void)PropertyList::fromBase64EncodedString(QString::fromLatin1(bytes));
    (void)PropertyList::asJSONObjectFromBase64Encoding(text);
    (void)PropertyList::asJSONObjectValueForKey(text, QStringLiteral("k"));
}
