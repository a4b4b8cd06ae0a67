#include "CameraPanelModel.h"

#include "Logger.h"
#include "PropertyDisplay.h"

namespace brix {

namespace {

bool isTextField(eds::EdsPropertyID id) {
    switch (id) {
    case eds::kEdsPropID_BatteryLevel:
    case eds::kEdsPropID_BatteryQuality:
    case eds::kEdsPropID_FirmwareVersion:
    case eds::kEdsPropID_Copyright:
    case eds::kEdsPropID_OwnerName:
    case eds::kEdsPropID_Artist:
        return true;
    default:
        return false;
    }
}

QString kindName(ControlKind kind) {
    switch (kind) {
    case ControlKind::PopUp:
        return QStringLiteral("PopUp");
    case ControlKind::TextField:
        return QStringLiteral("TextField");
    case ControlKind::Other:
        break;
    }
    return QStringLiteral("Control");
}

} // namespace

QString PanelControl::description() const {
    QString d = QStringLiteral("<%1 %2 tag=%3").arg(kindName(kind), name).arg(tag);
    if (kind == ControlKind::PopUp)
        d += QStringLiteral(" selected=\"%1\" items=%2").arg(selectedTitle).arg(titles.size());
    else if (kind == ControlKind::TextField)
        d += QStringLiteral(" text=\"%1\"").arg(text);
    if (!enabled)
        d += QStringLiteral(" disabled");
    return d + '>';
}

const std::vector<eds::EdsPropertyID> &CameraPanelModel::panelProperties() {
    static const std::vector<eds::EdsPropertyID> ids = {0x400, 0x405, 0x406, 0x407, 0x106, 0x402,
                                                        0x404, 0x401, 0x403, 0x100, 0x50E, 0x8,
                                                        0x10,  0x7,   0x419, 0x4,   0x418};
    return ids;
}

QStringList CameraPanelModel::tabIdentifiers() {
    return {QString::fromLatin1(kPanelTabIdentifier), QString::fromLatin1(kPreferencesTabIdentifier),
            QString::fromLatin1(kMorePrefsTabIdentifier)};
}

CameraPanelModel::CameraPanelModel(QObject *parent) : QObject(parent) {
    for (eds::EdsPropertyID id : panelProperties()) {
        PanelControl c;
        c.tag = id;
        c.kind = isTextField(id) ? ControlKind::TextField : ControlKind::PopUp;
        c.name = eds::stringNameForPropertyID(id);
        controls_.push_back(c);
    }
    PanelControl start;
    start.tag = kStartControlTag;
    start.kind = ControlKind::Other;
    start.name = QStringLiteral("StartCamera");
    controls_.push_back(start);
}

PanelControl *CameraPanelModel::find(quint32 tag) {
    for (PanelControl &c : controls_)
        if (c.tag == tag)
            return &c;
    return nullptr;
}

const PanelControl *CameraPanelModel::controlWithTag(quint32 tag) const {
    return const_cast<CameraPanelModel *>(this)->find(tag);
}

const PanelControl *CameraPanelModel::viewWithTag(quint32 tag) const {
    const QStringList tabs = tabIdentifiers();
    Logger::setError(QStringLiteral("self.fViewController.ibTabView = %1")
                         .arg(QStringLiteral("<TabView: %1 items>").arg(tabs.size())));
    Logger::setError(
        QStringLiteral("self.fViewController.ibTabView = (%1)").arg(tabs.join(QStringLiteral(", "))));
    Logger::setError(QStringLiteral("tabviewitem = <TabViewItem: %1>").arg(tabs.first()));
    Logger::setError(QStringLiteral("tabviewitem.view = <Panel: %1 controls>").arg(controls_.size()));
    return controlWithTag(tag);
}

QString CameraPanelModel::selectedTitle(quint32 tag) const {
    const PanelControl *c = controlWithTag(tag);
    return c ? c->selectedTitle : QString();
}

void CameraPanelModel::setPopUpTitles(quint32 tag, const QStringList &titles) {
    PanelControl *c = find(tag);
    if (!c || c->kind != ControlKind::PopUp)
        return;
    c->titles = titles;
    if (!titles.contains(c->selectedTitle))
        c->selectedTitle.clear();
    emit controlChanged(tag);
}

void CameraPanelModel::selectPopUpTitle(quint32 tag, const QString &title) {
    PanelControl *c = find(tag);
    if (!c || c->kind != ControlKind::PopUp)
        return;
    if (!title.isEmpty() && !c->titles.contains(title))
        c->titles << title;
    c->selectedTitle = title;
    emit controlChanged(tag);
}

void CameraPanelModel::setToolTip(quint32 tag, const QString &text) {
    if (PanelControl *c = find(tag); c && c->toolTip != text) {
        c->toolTip = text;
        emit controlChanged(tag);
    }
}

void CameraPanelModel::setText(quint32 tag, const QString &text) {
    if (PanelControl *c = find(tag); c && c->kind == ControlKind::TextField && c->text != text) {
        c->text = text;
        emit controlChanged(tag);
    }
}

void CameraPanelModel::setEnabled(quint32 tag, bool enabled) {
    if (PanelControl *c = find(tag); c && c->enabled != enabled) {
        c->enabled = enabled;
        emit controlChanged(tag);
    }
}

bool CameraPanelModel::ibSetCameraProperty(quint32 tag, const QString &title) {
    Logger::setError(
        QStringLiteral("setting value \"%1\" for property %2").arg(title, eds::stringNameForPropertyID(tag)));
    PanelControl *c = find(tag);
    if (!c || c->kind != ControlKind::PopUp)
        return false;
    const CameraPtr camera = cameraProvider_ ? cameraProvider_() : CameraPtr();
    if (!camera) {
        // Nothing to set it on: the pop-up keeps showing what the camera last said.
        emit controlChanged(tag);
        return false;
    }
    c->selectedTitle = title;
    emit controlChanged(tag);
    if (camera->setStringValue(title, tag))
        return true;
    Logger::setError(QStringLiteral("the camera refused \"%1\" for %2; showing its own value")
                         .arg(title, eds::stringNameForPropertyID(tag)));
    showCameraValue(camera, tag);
    return false;
}

void CameraPanelModel::showCameraValue(const CameraPtr &camera, quint32 tag) {
    const QVariant value = camera->valueForPropertyID(tag, 0);
    bool isNumber = false;
    const quint32 number = value.toUInt(&isNumber);
    QString text;
    if (value.metaType().id() == QMetaType::QString)
        text = value.toString();
    else if (isNumber)
        text = eds::stringForPropertyID(tag, number);
    selectPopUpTitle(tag, text);
    setToolTip(tag, text);
}

} // namespace brix
