#include "Kinbook/StoreNotice.h"

#include "Kinbook/QtText.h"
#include "KinbookKit/Executor.h"
#include "KinbookKit/addressbook/HealthCheck.h"

#include <QDialog>
#include <QDialogButtonBox>
#include <QFontDatabase>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPointer>
#include <QPushButton>
#include <QVBoxLayout>

namespace kinbook {

QString StoreNotice::text(const LoadReport& report) {
    QStringList parts;
    if (report.skippedFiles > 0) {
        parts << (report.skippedFiles == 1
                      ? QString("1 file in your address book was not read.")
                      : QString("%1 files in your address book were not read.").arg(report.skippedFiles));
    }
    if (report.unreadableFolders > 0) {
        parts << (report.unreadableFolders == 1
                      ? QString("1 account folder can't be read; its cards are missing.")
                      : QString("%1 account folders can't be read; their cards are missing.")
                            .arg(report.unreadableFolders));
    }
    if (!report.duplicates.empty()) {
        parts << (report.duplicates.size() == 1
                      ? QString(
                            "Two or more cards share one UID; each is shown, but sync tools may mix them up.")
                      : QString(
                            "%1 UIDs are each shared by several cards; each card is shown, but sync tools "
                            "may mix them up.")
                            .arg(report.duplicates.size()));
    }
    return parts.join(' ');
}

StoreNotice* StoreNotice::make(const LoadReport& report, std::filesystem::path root, Executor& main,
                               Executor& background, QWidget* parent) {
    const QString said = text(report);
    return said.isEmpty() ? nullptr : new StoreNotice(said, std::move(root), main, background, parent);
}

StoreNotice::StoreNotice(const QString& text, std::filesystem::path root, Executor& main,
                         Executor& background, QWidget* parent)
    : QToolBar(parent), m_root(std::move(root)), m_main(main), m_background(background) {
    setObjectName("storeNotice");
    setMovable(false);
    setFloatable(false);
    auto* label = new QLabel(text, this);
    label->setObjectName("storeNoticeText");
    label->setWordWrap(true);
    label->setContentsMargins(8, 4, 8, 4);
    addWidget(label);
    auto* button = new QPushButton("Check…", this);
    button->setObjectName("storeNoticeCheck");
    button->setToolTip("Look through the address book and say what to do about each problem");
    addWidget(button);
    connect(button, &QPushButton::clicked, this, &StoreNotice::check);
}

void StoreNotice::check() {
    // A large address book takes a while to look through: off the main
    // thread, and the answer comes back only if the window is still there.
    m_background.post([self = QPointer(this), &main = m_main, root = m_root] {
        std::string report = describe(checkAddressBook(root));
        main.post([self, report = std::move(report)] {
            if (self) {
                self->showReport(qt(report));
            }
        });
    });
}

void StoreNotice::showReport(const QString& report) {
    auto* dialog = new QDialog(window());
    dialog->setObjectName("storeCheckDialog");
    dialog->setWindowTitle("Address Book Check");
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    auto* layout = new QVBoxLayout(dialog);
    auto* text = new QPlainTextEdit(report, dialog);
    text->setObjectName("storeCheckReport");
    text->setReadOnly(true);
    text->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    text->setMinimumSize(640, 360);
    layout->addWidget(text);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, dialog);
    connect(buttons, &QDialogButtonBox::rejected, dialog, &QDialog::close);
    layout->addWidget(buttons);
    dialog->show();
}

} // namespace kinbook
