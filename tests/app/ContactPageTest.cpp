#include "Kinbook/ContactPage.h"

#include <gtest/gtest.h>

#include <QAction>
#include <QLabel>

namespace kinbook {
namespace {

Person jane() {
    Person person;
    person.id = "card-1";
    person.givenName = "Jane";
    person.familyName = "Doe";
    person.accountIDs = {"home", "work"};
    person.circle = ContactCircle::friends;
    person.derive();
    return person;
}

ContactCard janesCard() {
    ContactCard card;
    card.id = "card-1";
    card.givenName = "Jane";
    card.familyName = "Doe";
    card.organization = "Acme";
    card.jobTitle = "Engineer";
    card.emails = {{"ex-work", "jane@old.example", "e1"},
                   {"home", "jane@home.example", "e2"},
                   {"Ex-School", "jane@school.example", "e3"},
                   {"work", "jane@acme.example", "e4"}};
    card.phones = {{"mobile", "+1 555 0100", "p1"}};
    card.birthday = "March 4";
    return card;
}

struct Row {
    QString label;
    QString value;
    QTreeWidgetItem* item;
};

std::vector<Row> rowsOf(ContactPage& page) {
    std::vector<Row> rows;
    for (int i = 0; i < page.fields()->topLevelItemCount(); ++i) {
        QTreeWidgetItem* item = page.fields()->topLevelItem(i);
        rows.push_back({item->text(0), item->text(1), item});
    }
    return rows;
}

TEST(ContactPage, FormerEntriesComeLastAndOfferToTurnBack) {
    ContactPage page;
    page.showPerson(jane(), {{"home", "On My Computer"}, {"work", "Work"}});
    page.showCard(janesCard());

    QStringList emails;
    bool inEmails = false;
    for (const Row& row : rowsOf(page)) {
        if (row.value.isEmpty()) {
            inEmails = row.label == "E-mail";
            continue;
        }
        if (inEmails) {
            emails << row.label + " " + row.value;
        }
    }
    EXPECT_EQ(emails, (QStringList{"home jane@home.example", "work jane@acme.example",
                                   "ex-work jane@old.example", "Ex-School jane@school.example"}));

    std::vector<QString> menus;
    for (const Row& row : rowsOf(page)) {
        const auto actions = page.entryActions(row.item, &page);
        for (QAction* action : actions) {
            menus.push_back(row.value + ": " + action->text());
        }
    }
    EXPECT_EQ(menus, (std::vector<QString>{"+1 555 0100: Mark as Former (ex-mobile)",
                                           "jane@home.example: Mark as Former (ex-home)",
                                           "jane@acme.example: Mark as Former (ex-work)",
                                           "jane@old.example: Mark as Current",
                                           "jane@school.example: Mark as Current"}));
}

TEST(ContactPage, MarkingNamesTheCardAndTheEntry) {
    ContactPage page;
    page.showPerson(jane(), {});
    page.showCard(janesCard());
    std::vector<QString> requests;
    QObject::connect(&page, &ContactPage::markFormerRequested,
                     [&](const QString& card, const QString& entry) {
                         requests.push_back(QString("former %1 %2").arg(card, entry));
                     });
    QObject::connect(&page, &ContactPage::markCurrentRequested,
                     [&](const QString& card, const QString& entry) {
                         requests.push_back(QString("current %1 %2").arg(card, entry));
                     });

    for (const Row& row : rowsOf(page)) {
        if (row.value == "jane@acme.example" || row.value == "jane@old.example") {
            page.entryActions(row.item, &page).front()->trigger();
        }
    }
    EXPECT_EQ(requests, (std::vector<QString>{"former card-1 e4", "current card-1 e1"}));
}

TEST(ContactPage, ShowsWorkDatesAndCircle) {
    ContactPage page;
    page.showPerson(jane(), {{"home", "On My Computer"}, {"work", "Work"}});
    page.showCard(janesCard());

    QStringList values;
    for (const Row& row : rowsOf(page)) {
        values << (row.value.isEmpty() ? row.label : row.label + "=" + row.value);
    }
    EXPECT_TRUE(values.contains("birthday=March 4")) << values.join(" | ").toStdString();
    // The accounts are the check list under the page, not rows of it.
    EXPECT_FALSE(values.contains("=On My Computer")) << values.join(" | ").toStdString();
    EXPECT_TRUE(values.contains("=Friends (50)")) << values.join(" | ").toStdString();
    EXPECT_EQ(page.findChild<QLabel*>("ContactWork")->text(), QString::fromUtf8("Engineer \u00B7 Acme"));
}

TEST(ContactPage, ACardOfSomeoneElseArrivingLateIsIgnored) {
    ContactPage page;
    page.showPerson(jane(), {});
    ContactCard other = janesCard();
    other.id = "card-2";
    other.phones = {{"mobile", "+1 555 0199", "p9"}};
    page.showCard(other);

    for (const Row& row : rowsOf(page)) {
        EXPECT_NE(row.value, "+1 555 0199");
    }
}

} // namespace
} // namespace kinbook
