#pragma once

#include "KinbookKit/records/Account.h"
#include "KinbookKit/records/ContactCard.h"
#include "KinbookKit/records/PastJob.h"
#include "KinbookKit/records/Person.h"

#include <QImage>
#include <QTreeWidget>
#include <QWidget>
#include <map>
#include <optional>
#include <string>
#include <vector>

class QAction;
class QLabel;
class QPushButton;

namespace kinbook {

class CirclePicker;
class PhotoGrid;
class PosterHeader;

// The fields of the page, one row per entry, grouped under titles. Up and
// down move between entries; left asks to go back to the list.
class ContactFields final : public QTreeWidget {
    Q_OBJECT
public:
    enum Role {
        EntryIDRole = Qt::UserRole + 1, // QString: the entry's id; empty on titles and fixed rows
        MarkableRole,                   // bool: a phone, e-mail or address, which can be marked former
        LabelRole,                      // QString: the entry's label as stored
    };

    explicit ContactFields(QWidget* parent = nullptr);

Q_SIGNALS:
    void leaveLeftRequested();
    // F2: edit this row in place.
    void editRowRequested(QTreeWidgetItem* row);
    // Enter: open the editor on the person.
    void editPersonRequested();

protected:
    void keyPressEvent(QKeyEvent* event) override;
};

// The page of the selected person, read-only, and of every card they hold:
// names and work from the leading card, then section by section the
// phones, e-mails and addresses of all the cards (the same value once,
// former ones last and marked, each with its account where the person is in
// several), the other cards' work, links, dates, related people, past jobs,
// notes, the accounts that hold the person, and the circle. An entry's menu
// marks it former or current on the card it came from; the Hide button takes
// the person out of the list (and Unhide puts them back).
class ContactPage final : public QWidget {
    Q_OBJECT
public:
    enum Role {
        CardIDRole = ContactFields::LabelRole + 1, // QString: the card an entry row came from
    };

    explicit ContactPage(QWidget* parent = nullptr);

    // Shows a person. Their cards come later (read from the store), or not
    // at all when they have gone; cards already shown that are still the
    // person's stay. `accountNames` names the accounts, and `cardAccounts`
    // says which account holds each card.
    void showPerson(const Person& person, const std::map<std::string, std::string>& accountNames,
                    const std::map<std::string, std::string>& cardAccounts = {});
    // One of the person's cards, in full; a card that is not theirs is ignored.
    void showCard(const ContactCard& card);
    // The notes of the person's cards, by card id; empty ones are left out.
    void showNotes(const std::map<std::string, std::string>& notes);
    void showPicture(const QImage& picture);
    void showNobody();
    // Puts a section (the accounts) below the entries, above the photos.
    void addSection(QWidget* section);

    const std::optional<Person>& person() const { return m_person; }
    // Whether every card of the person is on the page.
    bool hasAllCards() const;
    CirclePicker* circlePicker() const { return m_picker; }
    ContactFields* fields() const { return m_fields; }
    PhotoGrid* photoGrid() const { return m_photos; }
    PosterHeader* posterHeader() const { return m_poster; }
    QPushButton* hideButton() const { return m_hide; }

    // The actions of an entry row's menu, made children of `parent`: "Mark
    // as Former (ex-work)" on a current phone, e-mail or address, "Mark as
    // Current" on a former one; none on other rows.
    QList<QAction*> entryActions(QTreeWidgetItem* row, QObject* parent);

    // The menu items an entry row offers ("Mark as Former (ex-work)" or
    // "Mark as Current"); none for rows that can't be marked.
    static QString formerMenuText(const QString& label);

Q_SIGNALS:
    // `cardID` is the card the entry is on; `entryID` the entry's id there.
    void markFormerRequested(const QString& cardID, const QString& entryID);
    void markCurrentRequested(const QString& cardID, const QString& entryID);
    void hiddenChangeRequested(const QString& personID, bool hidden);
    // The Edit button: open the editor on the person.
    void editRequested(const QString& personID);
    // Double-click or F2 on an entry row: edit it in place.
    void quickEditRequested(const QString& cardID, const QString& entryID);
    void leaveLeftRequested();

private:
    class Rows;

    void rebuildFields();
    void showHeader();
    void drawPicture();
    void showEntryMenu(const QPoint& position);

    // The sections of the page, in order; each adds its title and rows, or
    // nothing when it has nothing to show.
    void addEntrySections(Rows& rows) const;
    void addWorkSection(Rows& rows) const;
    void addLinksSection(Rows& rows) const;
    void addDatesSection(Rows& rows) const;
    void addRelatedSection(Rows& rows) const;
    void addNotesSection(Rows& rows) const;
    void addCircleSection(Rows& rows) const;

    // The person's cards that are here, in the person's order of cards.
    std::vector<const ContactCard*> shownCards() const;
    // The leading card when it is here.
    const ContactCard* leadingCard() const;
    // What marks an entry of this card: its account's name where the
    // person's cards are in several accounts, else nothing.
    QString accountMark(const std::string& cardID) const;

    std::optional<Person> m_person;
    std::map<std::string, ContactCard> m_cards; // by card id
    std::map<std::string, std::string> m_notes; // by card id
    std::map<std::string, std::string> m_accountNames;
    std::map<std::string, std::string> m_cardAccounts;

    QLabel* m_picture;
    QImage m_pictureImage;
    QLabel* m_name;
    QLabel* m_details; // nickname, phonetic name
    QLabel* m_work;
    CirclePicker* m_picker;
    QPushButton* m_hide;
    ContactFields* m_fields;
    PosterHeader* m_poster;
    PhotoGrid* m_photos;
    QWidget* m_body;
    QLabel* m_empty;
};

} // namespace kinbook
