#include "CameraPanelView.h"

#include "CameraPanelModel.h"

#include <QComboBox>
#include <QFormLayout>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalBlocker>

namespace brix {

namespace {

// Labels an operator reads; the property names stay the widgets' identifiers.
QString labelFor(const PanelControl &c) {
    static const std::map<quint32, QString> labels = {
        {0x400, QStringLiteral("Shooting mode")}, {0x405, QStringLiteral("Aperture")},
        {0x406, QStringLiteral("Shutter speed")}, {0x407, QStringLiteral("Exposure comp.")},
        {0x106, QStringLiteral("White balance")}, {0x402, QStringLiteral("ISO")},
        {0x404, QStringLiteral("AF mode")},       {0x401, QStringLiteral("Drive mode")},
        {0x403, QStringLiteral("Metering")},      {0x100, QStringLiteral("Image quality")},
        {0x50E, QStringLiteral("Live view AF")},  {0x8, QStringLiteral("Battery")},
        {0x10, QStringLiteral("Battery health")}, {0x7, QStringLiteral("Firmware")},
        {0x419, QStringLiteral("Copyright")},     {0x4, QStringLiteral("Owner")},
        {0x418, QStringLiteral("Artist")},
    };
    const auto it = labels.find(c.tag);
    return it != labels.end() ? it->second : c.name;
}

} // namespace

CameraPanelView::CameraPanelView(CameraPanelModel &model, QWidget *parent) : QWidget(parent), model_(model) {
    setObjectName(QStringLiteral("camerapanelview"));
    setAccessibleName(QStringLiteral("Camera settings"));
    auto *form = new QFormLayout(this);
    form->setFieldGrowthPolicy(QFormLayout::AllNonFixedFieldsGrow);
    for (const PanelControl &c : model.controls()) {
        QWidget *w = nullptr;
        const quint32 tag = c.tag;
        switch (c.kind) {
        case ControlKind::PopUp: {
            auto *box = new QComboBox(this);
            connect(box, &QComboBox::activated, this,
                    [this, box, tag](int index) { model_.ibSetCameraProperty(tag, box->itemText(index)); });
            w = box;
            break;
        }
        case ControlKind::TextField: {
            auto *field = new QLineEdit(this);
            field->setReadOnly(true);
            w = field;
            break;
        }
        case ControlKind::Other: {
            auto *button = new QPushButton(QStringLiteral("Start Camera"), this);
            connect(button, &QPushButton::clicked, this, &CameraPanelView::startCameraRequested);
            w = button;
            break;
        }
        }
        w->setObjectName(c.name);
        w->setAccessibleName(c.kind == ControlKind::Other ? QStringLiteral("Start camera") : labelFor(c));
        w->setProperty("tag", QVariant::fromValue(tag));
        widgets_[tag] = w;
        if (c.kind == ControlKind::Other)
            form->addRow(w);
        else
            form->addRow(labelFor(c), w);
        refresh(tag);
    }
    connect(&model, &CameraPanelModel::controlChanged, this, &CameraPanelView::refresh);
}

QWidget *CameraPanelView::widgetForTag(quint32 tag) const {
    const auto it = widgets_.find(tag);
    return it == widgets_.end() ? nullptr : it->second;
}

void CameraPanelView::refresh(quint32 tag) {
    const PanelControl *c = model_.controlWithTag(tag);
    QWidget *w = widgetForTag(tag);
    if (!c || !w)
        return;
    w->setEnabled(c->enabled);
    w->setToolTip(c->toolTip);
    if (auto *box = qobject_cast<QComboBox *>(w)) {
        const QSignalBlocker block(box);
        QStringList current;
        for (int i = 0; i < box->count(); ++i)
            current << box->itemText(i);
        if (current != c->titles) {
            box->clear();
            box->addItems(c->titles);
        }
        box->setCurrentIndex(int(c->titles.indexOf(c->selectedTitle)));
    } else if (auto *field = qobject_cast<QLineEdit *>(w)) {
        field->setText(c->text);
    }
}

} // namespace brix
