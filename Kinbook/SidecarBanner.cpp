#include "Kinbook/SidecarBanner.h"

#include <QLabel>

namespace kinbook {

SidecarBanner::SidecarBanner(const QString& configFile, QWidget* parent) : QToolBar(parent) {
    setObjectName("sidecarBanner");
    setMovable(false);
    setFloatable(false);
    auto* label = new QLabel(text(configFile), this);
    label->setObjectName("sidecarBannerText");
    label->setWordWrap(true);
    label->setContentsMargins(8, 4, 8, 4);
    addWidget(label);
}

QString SidecarBanner::text(const QString& configFile) {
    return QString(
               "Set the sidecar folder (\"sidecar\" in %1) to a folder you sync, and make sure it is there. "
               "Vellumary Contacts keeps photos and history there.")
        .arg(configFile);
}

} // namespace kinbook
