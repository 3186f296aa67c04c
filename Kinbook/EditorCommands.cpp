#include "Kinbook/EditorCommands.h"

#include "Kinbook/CirclePicker.h"
#include "Kinbook/PhotoGrid.h"
#include "Kinbook/QtText.h"
#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/setup/KinbookSession.h"

#include <QAction>
#include <QKeySequence>
#include <QPointer>
#include <QWidget>
#include <filesystem>

namespace kinbook {

EditorCommands::EditorCommands(PeopleList& list, QWidget* window, Hooks hooks)
    : QObject(window), m_list(list), m_window(window), m_hooks(std::move(hooks)) {
    m_new = new QAction("New Contact", this);
    m_new->setObjectName("NewContactAction");
    m_new->setShortcut(QKeySequence::New);
    connect(m_new, &QAction::triggered, this, &EditorCommands::newContact);

    m_edit = new QAction("Edit Contact", this);
    m_edit->setObjectName("EditContactAction");
    m_edit->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_E));
    connect(m_edit, &QAction::triggered, this, [this] {
        if (const std::string id = m_hooks.shownPersonID(); !id.empty()) {
            editPerson(id);
        }
    });

    m_undo = new QAction("Undo", this);
    m_undo->setObjectName("UndoAction");
    m_undo->setShortcut(QKeySequence::Undo);
    connect(m_undo, &QAction::triggered, this, [this] { m_list.editing().undo(m_hooks.report); });
    m_redo = new QAction("Redo", this);
    m_redo->setObjectName("RedoAction");
    m_redo->setShortcuts({QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_Z), QKeySequence::Redo});
    connect(m_redo, &QAction::triggered, this, [this] { m_list.editing().redo(m_hooks.report); });

    m_list.editing().setOnHistoryChange([self = QPointer(this)] {
        if (self) {
            self->refreshTitles();
        }
    });
    refreshTitles();
}

void EditorCommands::refreshTitles() {
    const auto undo = m_list.editing().undoTitle();
    const auto redo = m_list.editing().redoTitle();
    m_undo->setText(undo ? qt(*undo) : QString("Undo"));
    m_undo->setEnabled(undo.has_value());
    m_redo->setText(redo ? qt(*redo) : QString("Redo"));
    m_redo->setEnabled(redo.has_value());
}

void EditorCommands::open(ContactEditor* editor) {
    if (m_editor) {
        m_editor->close();
    }
    m_editor = editor;
    editor->setAttribute(Qt::WA_DeleteOnClose);
    editor->setSaveJobs([this](const std::string& cardID, std::vector<PastJob> jobs) {
        savePastJobs(cardID, std::move(jobs));
    });
    if (m_session != nullptr && m_session->photos() != nullptr) {
        editor->setSavePhoto(
            [this](const std::string& cardID, const QString& file) { saveContactPhoto(cardID, file); });
    }
    connect(editor, &ContactEditor::saved, this, [this](const QString& personID, const QString&) {
        if (m_hooks.select) {
            m_hooks.select(utf8(personID));
        }
    });
    editor->open();
}

void EditorCommands::newContact() {
    const auto account = m_hooks.chosenAccount ? m_hooks.chosenAccount() : std::nullopt;
    open(new ContactEditor(m_list, account, m_window));
}

std::vector<std::string> EditorCommands::cardIDsOf(const std::string& personID) const {
    const PersonPtr person = m_list.person(personID);
    if (!person) {
        return {};
    }
    if (person->memberIDs.empty()) {
        return {person->id};
    }
    return person->memberIDs.strings();
}

void EditorCommands::editPerson(const std::string& personID) {
    const PersonPtr person = m_list.person(personID);
    if (!person) {
        return;
    }
    std::map<std::string, std::string> accountNames;
    for (const Account& account : m_list.accounts()) {
        accountNames[account.id] = account.name;
    }
    const auto cardAccounts = m_list.cardAccounts(*person);
    ContactEditor::CardChoices cards;
    for (const auto& id : cardIDsOf(personID)) {
        const auto account = cardAccounts.find(id);
        QString text = "Card";
        if (account != cardAccounts.end()) {
            const auto name = accountNames.find(account->second);
            text = qt(name != accountNames.end() ? name->second : account->second);
        }
        cards.emplace_back(id, text);
    }
    auto* editor = new ContactEditor(m_list, std::move(cards), m_window);
    editor->circlePicker()->setPerson(person->circle, m_list.circleCounts(), std::nullopt);
    connect(editor->circlePicker(), &CirclePicker::circleChosen, this,
            [this, id = person->id](std::optional<ContactCircle> circle) { setCircle(id, circle); });
    open(editor);
    loadPastJobs(editor, person->id);
}

void EditorCommands::loadPastJobs(ContactEditor* editor, const std::string& personID) {
    ContactPhotos* photos = m_session != nullptr ? m_session->photos() : nullptr;
    const PersonPtr person = m_list.person(personID);
    if (photos == nullptr || !person) {
        return;
    }
    const PersonKey key{person->kinID.value_or(""), std::string(person->displayName())};
    photos->ask(
        m_session->main(),
        [key](ContactPhotos& store) {
            return key.kinID.empty() ? std::vector<PastJob>{} : store.pastJobs(key);
        },
        [editor = QPointer(editor)](std::vector<PastJob> jobs) {
            if (editor) {
                editor->setPastJobs(jobs);
            }
        });
}

void EditorCommands::quickEdit(const std::string& cardID, const std::string& entryID) {
    if (m_quick) {
        m_quick->close();
    }
    m_quick = new QuickEditor(m_list, cardID, entryID, m_window);
    m_quick->setAttribute(Qt::WA_DeleteOnClose);
    m_quick->open();
}

void EditorCommands::markFormer(const std::string& cardID, const std::string& entryID, bool former) {
    m_list.editing().record(
        former ? "Mark as Former" : "Mark as Current", {cardID},
        [this, cardID, entryID, former](std::function<void(ActionResult)> done) {
            if (former) {
                m_list.markFormer(cardID, entryID, std::move(done));
            } else {
                m_list.markCurrent(cardID, entryID, std::move(done));
            }
        },
        m_hooks.report);
}

void EditorCommands::setCircle(const std::string& personID, std::optional<ContactCircle> circle) {
    m_list.editing().record(
        "Change Circle", cardIDsOf(personID),
        [this, personID, circle](std::function<void(ActionResult)> done) {
            m_list.setCircle(personID, circle, std::move(done));
        },
        m_hooks.report);
}

void EditorCommands::setHidden(const std::string& personID, bool hidden) {
    m_list.editing().record(
        hidden ? "Hide Contact" : "Unhide Contact", cardIDsOf(personID),
        [this, personID, hidden](std::function<void(ActionResult)> done) {
            m_list.setHidden(personID, hidden, std::move(done));
        },
        m_hooks.report);
}

void EditorCommands::saveContactPhoto(const std::string& cardID, const QString& file) {
    const PersonPtr person = m_list.person(cardID);
    if (m_session == nullptr || !person) {
        return;
    }
    // Every card of the person gets the photo, as the page's "Use as Contact
    // Photo" does; the head crop and the writes take a few hundred
    // milliseconds, so they run off the window's thread.
    KinbookSession& session = *m_session;
    session.background().post([&session, self = QPointer(this), cards = cardIDsOf(person->id),
                               path = std::filesystem::path(file.toStdString())] {
        Result<void, std::string> result;
        if (auto bytes = readPictureFile(path)) {
            result = session.setContactPhoto(cards, *bytes);
        } else {
            result = failure("couldn't read " + path.string());
        }
        session.main().post([self, result = std::move(result)] {
            if (self && !result.ok()) {
                self->m_hooks.report(failure(ActionError{
                    AddressBookError::store("Couldn't set the contact photo: " + result.error())}));
            }
        });
    });
}

void EditorCommands::savePastJobs(const std::string& cardID, std::vector<PastJob> jobs) {
    ContactPhotos* photos = m_session != nullptr ? m_session->photos() : nullptr;
    const PersonPtr person = m_list.person(cardID);
    if (photos == nullptr || !person) {
        return;
    }
    // Past jobs belong to the person's folder, named by their KinID: one
    // without a KinID gets one in every card first.
    const std::vector<std::string> cards = cardIDsOf(person->id);
    PersonKey key{person->kinID.value_or(""), std::string(person->displayName())};
    const std::string personID = person->id;
    photos->ask(
        m_session->main(),
        [book = m_session->addressBook(), key, cards,
         jobs = std::move(jobs)](ContactPhotos& store) mutable -> Result<void, std::string> {
            for (const auto& id : cards) {
                if (!key.kinID.empty() || !book) {
                    break;
                }
                auto anchor = book->changeAnchor(id, [](KinID::Anchor&) {});
                if (!anchor.ok()) {
                    return failure(anchor.error().description());
                }
                key.kinID = anchor->id;
            }
            if (key.kinID.empty()) {
                return failure(std::string("the contact has no folder for past jobs"));
            }
            return store.setPastJobs(key, jobs);
        },
        [self = QPointer(this), personID](Result<void, std::string> kept) {
            if (!self) {
                return;
            }
            if (!kept.ok()) {
                self->m_hooks.report(failure(ActionError{
                    AddressBookError::store("Couldn't save the previous jobs: " + kept.error())}));
                return;
            }
            self->m_list.reloadPastJobs();
        });
}

} // namespace kinbook
