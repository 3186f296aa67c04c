#pragma once

#include "KinbookKit/records/Account.h"
#include "KinbookKit/records/ContactCard.h"
#include "KinbookKit/records/Person.h"

#include <QImage>
#include <QTreeWidget>
#include <QWidget>
#include <map>
#include <optional>
#include <string>

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

protected:
    void keyPressEvent(QKeyEvent* event) override;
};

// The page of the selected person, read-only: names, work, phones, e-mails
// and addresses (former ones last and marked), links, birthday and other
// dates, the accounts that hold the person, and the circle. An entry's menu
// marks it former or current; the Hide button takes the person out of the
// list (and Unhide puts them back).
class ContactPage final : public QWidget {
    Q_OBJECT
public:
    explicit ContactPage(QWidget* parent = nullptr);

    // Shows a person. The card comes later (read from the store), or not at
    // all when it has gone. `accountNames` names the person's accounts.
    void showPerson(const Person& person, const std::map<std::string, std::string>& accountNames);
    void showCard(const ContactCard& card);
    void showPicture(const QImage& picture);
    void showNobody();

    const std::optional<Person>& person() const { return m_person; }
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
    // `cardID` is the card the page shows; `entryID` the entry's id there.
    void markFormerRequested(const QString& cardID, const QString& entryID);
    void markCurrentRequested(const QString& cardID, const QString& entryID);
    void hiddenChangeRequested(const QString& personID, bool hidden);
    void leaveLeftRequested();

private:
    void rebuildFields();
    void drawPicture();
    void showEntryMenu(const QPoint& position);

    std::optional<Person> m_person;
    std::optional<ContactCard> m_card;
    std::map<std::string, std::string> m_accountNames;

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
