#include "Kinbook/ImportExport.h"

#include "Kinbook/MainWindow.h"
#include "Kinbook/PeopleTable.h"
#include "Kinbook/QtText.h"
#include "KinbookKit/AtomicFile.h"
#include "KinbookKit/addressbook/AddressBook.h"
#include "KinbookKit/people/PeopleList.h"

#include <fmt/core.h>

#include <QAction>
#include <QComboBox>
#include <QDialog>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QLabel>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QVBoxLayout>
#include <cerrno>
#include <cstring>
#include <set>

namespace kinbook {

// What the files hold, read and sorted against the address book in the
// background before the user is asked.
struct ImportExport::Offer {
    std::vector<VCardImport::Source> sources;
    std::optional<std::string> failure; // a file that can't be read or holds no vCard
    std::size_t newCards = 0;
    std::size_t known = 0;
    std::optional<std::string> defaultAccountID;
};

ImportExport::ImportExport(MainWindow& window, PeopleList& list, std::shared_ptr<AddressBook> book,
                           Executor& main, Executor& background)
    : QObject(&window), m_window(window), m_list(list), m_book(std::move(book)), m_main(main),
      m_background(background) {}

ImportExport::~ImportExport() = default;

void ImportExport::addActions(QMenu& menu) {
    QAction* first = menu.actions().isEmpty() ? nullptr : menu.actions().first();
    auto* import = new QAction("Import…", &menu);
    import->setObjectName("ImportAction");
    connect(import, &QAction::triggered, this, &ImportExport::chooseFilesToImport);
    auto* exportAction = new QAction("Export…", &menu);
    exportAction->setObjectName("ExportAction");
    connect(exportAction, &QAction::triggered, this, &ImportExport::chooseExportFile);
    menu.insertAction(first, import);
    menu.insertAction(first, exportAction);
    if (first != nullptr) {
        menu.insertSeparator(first);
    }
}

void ImportExport::chooseFilesToImport() {
    const QStringList files = QFileDialog::getOpenFileNames(&m_window, "Import", QString(),
                                                            "vCard files (*.vcf *.vcard);;All files (*)");
    std::vector<std::filesystem::path> paths;
    for (const auto& file : files) {
        paths.emplace_back(utf8(file));
    }
    if (!paths.empty()) {
        offerImport(std::move(paths));
    }
}

void ImportExport::offerImport(std::vector<std::filesystem::path> files) {
    m_background.post([main = &m_main, alive = std::weak_ptr<int>(m_alive), self = this, book = m_book,
                       files = std::move(files)] {
        auto offer = std::make_shared<Offer>();
        for (const auto& file : files) {
            auto bytes = VCardImport::readFile(file);
            if (!bytes.ok()) {
                offer->failure = bytes.error();
                break;
            }
            offer->sources.push_back({file.filename().string(), std::move(bytes.value())});
        }
        if (!offer->failure) {
            auto known = book->allCardIDs();
            auto plan = VCardImport::plan(offer->sources,
                                          known.ok() ? std::set<std::string>(known->begin(), known->end())
                                                     : std::set<std::string>());
            if (!plan.ok()) {
                offer->failure = plan.error();
            } else {
                offer->newCards = plan->names.size();
                offer->known = plan->duplicates.size();
            }
            offer->defaultAccountID = book->defaultAccountID();
        }
        main->post([alive, self, offer] {
            if (alive.lock()) {
                self->ask(offer);
            }
        });
    });
}

void ImportExport::ask(std::shared_ptr<Offer> offer) {
    if (offer->failure) {
        report("Couldn't Import", qt(*offer->failure), true);
        return;
    }
    if (offer->newCards == 0) {
        report("Nothing to Import",
               offer->known > 0 ? QString("Every card in it is in your address book already.")
                                : QString("It holds no card that can be imported."),
               false);
        return;
    }
    auto* dialog = new QDialog(&m_window);
    dialog->setObjectName("ImportDialog");
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowTitle("Import");
    auto* layout = new QVBoxLayout(dialog);
    const QString what =
        offer->newCards == 1 ? "Import 1 Contact?" : QString("Import %1 Contacts?").arg(offer->newCards);
    auto* title = new QLabel("<b>" + what + "</b>", dialog);
    layout->addWidget(title);
    QString detail = offer->sources.size() == 1
                         ? QString("From %1.").arg(qt(offer->sources.front().name).toHtmlEscaped())
                         : QString("From %1 files.").arg(offer->sources.size());
    if (offer->known > 0) {
        detail += QString(" %1 already in your address book will be left out.").arg(offer->known);
    }
    auto* text = new QLabel(detail, dialog);
    text->setWordWrap(true);
    layout->addWidget(text);

    // The account chosen in the sidebar, else the store's default one.
    auto* accounts = new QComboBox(dialog);
    accounts->setObjectName("ImportAccount");
    const std::optional<std::string> preferred =
        m_list.accountFilter() ? m_list.accountFilter() : offer->defaultAccountID;
    for (const auto& account : m_list.accounts()) {
        accounts->addItem(qt(account.name), qt(account.id));
        if (preferred && account.id == *preferred) {
            accounts->setCurrentIndex(accounts->count() - 1);
        }
    }
    auto* row = new QLabel("Add them to:", dialog);
    layout->addWidget(row);
    layout->addWidget(accounts);

    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Cancel, dialog);
    buttons->addButton("Import", QDialogButtonBox::AcceptRole)->setDefault(true);
    layout->addWidget(buttons);
    connect(buttons, &QDialogButtonBox::accepted, dialog, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, dialog, &QDialog::reject);
    connect(dialog, &QDialog::accepted, this, [this, offer, accounts] {
        const QString chosen = accounts->currentData().toString();
        run(offer, chosen.isEmpty() ? std::nullopt : std::optional<std::string>(utf8(chosen)));
    });
    m_dialog = dialog;
    dialog->open();
}

void ImportExport::run(std::shared_ptr<Offer> offer, std::optional<std::string> accountID) {
    m_background.post([main = &m_main, alive = std::weak_ptr<int>(m_alive), self = this, book = m_book, offer,
                       accountID = std::move(accountID)] {
        auto summary = std::make_shared<Result<VCardImport::Summary, std::string>>(
            VCardImport::run(*book, offer->sources, accountID));
        main->post([alive, self, summary] {
            if (!alive.lock()) {
                return;
            }
            if (!summary->ok()) {
                self->report("Couldn't Import", qt(summary->error() + "; nothing was imported."), true);
                return;
            }
            const auto& done = summary->value();
            // The new people show at once, the first of them selected.
            std::optional<std::string> first;
            if (!done.addedIDs.empty()) {
                first = done.addedIDs.front();
            }
            self->m_list.refetch(done.addedIDs, [alive, self, first] {
                if (alive.lock() && first) {
                    self->m_window.selectPerson(*first);
                }
            });
            self->report("Import", qt(done.text()), false);
        });
    });
}

void ImportExport::chooseExportFile() {
    std::vector<std::string> personIDs;
    for (const auto& id : m_window.table()->selectedIDs()) {
        personIDs.push_back(utf8(id));
    }
    const QString suggested = personIDs.size() == 1 ? "Contact.vcf" : "Contacts.vcf";
    const QString file = QFileDialog::getSaveFileName(
        &m_window, personIDs.empty() ? "Export Everyone" : "Export", suggested, "vCard files (*.vcf)");
    if (!file.isEmpty()) {
        exportTo(utf8(file), std::move(personIDs));
    }
}

void ImportExport::exportTo(std::filesystem::path file, std::vector<std::string> personIDs) {
    // A person's every card goes out, so that each account's card comes back.
    std::vector<std::string> cardIDs;
    std::set<std::string> seen;
    const auto add = [&](const Person& person) {
        if (person.memberIDs.empty() && seen.insert(person.id).second) {
            cardIDs.push_back(person.id);
        }
        for (const auto id : person.memberIDs) {
            if (seen.insert(std::string(id)).second) {
                cardIDs.emplace_back(id);
            }
        }
    };
    if (personIDs.empty()) {
        for (const auto& person : m_list.people()) {
            add(*person);
        }
    } else {
        for (const auto& id : personIDs) {
            if (const auto person = m_list.person(id)) {
                add(*person);
            }
        }
    }
    m_background.post([main = &m_main, alive = std::weak_ptr<int>(m_alive), self = this, book = m_book,
                       cardIDs = std::move(cardIDs), file = std::move(file)] {
        std::optional<std::string> failure;
        auto text = book->exportVCards(cardIDs);
        if (!text.ok()) {
            failure = text.error().description();
        } else if (!writeFileAtomically(file, text.value())) {
            failure = fmt::format("Couldn't write {}: {}", file.string(), std::strerror(errno));
        }
        const std::size_t count = cardIDs.size();
        main->post([alive, self, failure, count, name = file.filename().string()] {
            if (!alive.lock()) {
                return;
            }
            if (failure) {
                self->report("Couldn't Export", qt(*failure), true);
            } else {
                self->report(
                    "Export",
                    QString("Wrote %1 to %2.")
                        .arg(count == 1 ? QString("1 card") : QString("%1 cards").arg(count), qt(name)),
                    false);
            }
        });
    });
}

void ImportExport::report(const QString& title, const QString& text, bool failed) {
    auto* box = new QMessageBox(failed ? QMessageBox::Warning : QMessageBox::Information, title, text,
                                QMessageBox::Ok, &m_window);
    box->setObjectName("ImportExportReport");
    box->setAttribute(Qt::WA_DeleteOnClose);
    m_dialog = box;
    box->open();
    Q_EMIT reported(text);
}

} // namespace kinbook
