#include "SimulatorControl.h"

#include <QString>

namespace brix::eds {

namespace {
// Bodies older than the SDK's device subtypes: they report subtype 0 and take
// host commands only while their controls are locked.
const char *const kLegacyModels[] = {
    "Canon EOS 20D",
    "Canon EOS 30D",
    "Canon EOS 40D",
    "Canon EOS 5D",
    "Canon EOS 350D DIGITAL",
    "Canon EOS 400D DIGITAL",
    "Canon EOS-1D Mark III",
    "Canon EOS-1Ds Mark III",
    "Canon EOS DIGITAL REBEL XT",
    "Canon EOS DIGITAL REBEL XTi",
};
} // namespace

bool SimulatorControl::isLegacyModelName(const std::string &model) {
    const QString m = QString::fromStdString(model).trimmed();
    for (const char *legacy : kLegacyModels)
        if (m.compare(QLatin1String(legacy), Qt::CaseInsensitive) == 0)
            return true;
    return false;
}

SimulatorControl *simulatorControl(EdsSdk &sdk) {
    return dynamic_cast<SimulatorControl *>(&sdk);
}

} // namespace brix::eds
