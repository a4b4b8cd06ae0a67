// Property-list conversions and the preference store: what one shot's XMP
// attributes and one preference read or save cost.
#include "Preferences.h"
#include "PropertyList.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

using namespace brix;

namespace {

// The kind of dictionary a shot carries in its XMP attribute.
QVariantMap imageAttributes() {
    return {{"camera", "Canon EOS 5D Mark IV"},
            {"serial", "012345678901"},
            {"shot", qlonglong(1234)},
            {"when", QDateTime::fromSecsSinceEpoch(1763700000, Qt::UTC)},
            {"iso", 400},
            {"aperture", 5.6},
            {"shutter", "1/125"},
            {"tags", QVariantList{"wedding", "table 7", "guest"}},
            {"crop", QVariantMap{{"x", 0.1}, {"y", 0.2}, {"w", 0.5}, {"h", 0.5}}},
            {"thumb", QByteArray(512, '\x5a')}};
}

// A preference file of realistic size: the factory keys plus settings for a few models.
QVariantMap preferenceDocument() {
    QVariantMap models;
    for (int m = 0; m < 5; ++m) {
        QVariantMap settings;
        for (int p = 0; p < 20; ++p)
            settings.insert(QString("property%1").arg(p), QString("value %1").arg(p * m));
        models.insert(QString("Canon EOS model %1").arg(m), settings);
    }
    QVariantList sizes;
    for (int i = 1; i <= 4; ++i)
        sizes << QVariantMap{{"displayname", QString("Size %1").arg(i)}, {"somevalue", QString("pref%1").arg(i)},
                             {"width", 350.0}, {"heightoffset", 30.0}};
    return {{"prefCanonSettings", QVariantMap{{"version", "v2"}, {"description", "canonsettings"}, {"models", models}}},
            {"prefMiniSizesInfoArray", sizes},
            {"prefSaveFolderPath", "/home/station/Users/Shared/CanonFolder"},
            {"prefScanForNewImageInSeconds", 0.0}};
}

void BM_AttributesToBase64(benchmark::State &state) {
    const QVariantMap attrs = imageAttributes();
    for (auto _ : state)
        benchmark::DoNotOptimize(PropertyList::asBase64EncodedString(attrs));
}
BENCHMARK(BM_AttributesToBase64);

void BM_AttributesFromBase64(benchmark::State &state) {
    const QString text = PropertyList::asBase64EncodedString(imageAttributes());
    for (auto _ : state)
        benchmark::DoNotOptimize(PropertyList::fromBase64EncodedString(text));
}
BENCHMARK(BM_AttributesFromBase64);

void BM_PreferenceDocumentXmlRead(benchmark::State &state) {
    const QByteArray xml = PropertyList::dataFromPropertyList(preferenceDocument(), PlistFormat::Xml);
    state.counters["bytes"] = double(xml.size());
    for (auto _ : state)
        benchmark::DoNotOptimize(PropertyList::propertyListFromData(xml, Mutability::Immutable));
}
BENCHMARK(BM_PreferenceDocumentXmlRead);

void BM_PreferenceRead(benchmark::State &state) {
    QTemporaryDir dir;
    Preferences p(dir.path() + "/bench.plist");
    p.registerDefaults(preferenceDocument());
    p.setObject("/tmp/shots", "prefSaveFolderPath");
    for (auto _ : state)
        benchmark::DoNotOptimize(p.stringForKey("prefSaveFolderPath"));
}
BENCHMARK(BM_PreferenceRead);

void BM_PreferenceWriteAndSynchronize(benchmark::State &state) {
    QTemporaryDir dir;
    Preferences p(dir.path() + "/bench.plist");
    const QVariantMap doc = preferenceDocument();
    for (auto it = doc.begin(); it != doc.end(); ++it)
        p.setObject(it.value(), it.key());
    int i = 0;
    for (auto _ : state) {
        p.setObject(QString("{%1, 20}").arg(i++), "prefMiniSize3Position");
        benchmark::DoNotOptimize(p.synchronize());
    }
}
BENCHMARK(BM_PreferenceWriteAndSynchronize)->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
