#pragma once

#include "KinbookKit/Executor.h"
#include "KinbookKit/addressbook/VCardImport.h"

#include <QObject>
#include <QPointer>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class QDialog;
class QMenu;

namespace kinbook {

class AddressBook;
class MainWindow;
class PeopleList;

// File ▸ Import… and Export…, and the .vcf files the application is opened
// with: vCard files read off the GUI thread, an offer naming how many cards
// they hold and asking which account they go to, the import (each card once
// by its UID, as `kinbook import` does) and its summary; the selected people,
// or everyone, written to a chosen file as their cards are stored.
//
// Dialogs are opened window-modal without blocking, so the list goes on
// showing changes meanwhile. Lives on the GUI thread, the executors' main
// one; the window, the list and the executors must outlive it. Work still
// running in the background when it goes is dropped on return.
class ImportExport final : public QObject {
    Q_OBJECT
public:
    ImportExport(MainWindow& window, PeopleList& list, std::shared_ptr<AddressBook> book, Executor& main,
                 Executor& background);
    ~ImportExport() override;

    // Puts Import… and Export… at the top of the menu.
    void addActions(QMenu& menu);

    // Asks for the files, then offers them.
    void chooseFilesToImport();
    // Reads the files and asks which account their new cards go to ("Import 12
    // Contacts?"); a file that can't be read, or holds no vCard, is said so.
    void offerImport(std::vector<std::filesystem::path> files);

    // Asks for a file, then exports the selected people (everyone when none).
    void chooseExportFile();
    // Writes the people's cards (everyone's when none) to the file, atomically.
    void exportTo(std::filesystem::path file, std::vector<std::string> personIDs);

    // The dialog showing now (the offer or a summary), for tests; null when none.
    QDialog* dialog() const { return m_dialog; }

Q_SIGNALS:
    // A summary or failure was shown (the text shown).
    void reported(const QString& text);

private:
    struct Offer;
    void ask(std::shared_ptr<Offer> offer);
    void run(std::shared_ptr<Offer> offer, std::optional<std::string> accountID);
    void report(const QString& title, const QString& text, bool failed);

    MainWindow& m_window;
    PeopleList& m_list;
    std::shared_ptr<AddressBook> m_book;
    Executor& m_main;
    Executor& m_background;
    QPointer<QDialog> m_dialog;
    std::shared_ptr<int> m_alive = std::make_shared<int>(0);
};

} // namespace kinbook
