#pragma once

#include <QString>
#include <QToolBar>

namespace kinbook {

// The strip across the top of the window when there is no sidecar folder:
// the setting is off, or the folder's parent is not there (an unmounted
// share). People still list; photos, posters and past jobs wait for it.
class SidecarBanner final : public QToolBar {
    Q_OBJECT
public:
    // `configFile` is where the "sidecar" setting lives.
    explicit SidecarBanner(const QString& configFile, QWidget* parent = nullptr);

    // "Set the sidecar folder …": the product's "Sign in to iCloud and turn
    // on iCloud Drive" for a system whose cloud is a folder the user syncs.
    static QString text(const QString& configFile);
};

} // namespace kinbook
