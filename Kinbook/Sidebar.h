#pragma once

#include "KinbookKit/records/Account.h"
#include "KinbookKit/records/ContactCircle.h"

#include <QListWidget>
#include <QStyledItemDelegate>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kinbook {

// What the sidebar can show: everyone, one account's people, one circle's,
// the hidden people, or the Trash.
struct SidebarChoice {
    enum class Kind { all, account, circle, hidden, trash };
    Kind kind = Kind::all;
    std::string accountID;               // for an account
    std::optional<ContactCircle> circle; // for a circle

    bool operator==(const SidebarChoice&) const = default;
};

// The counts the sidebar shows beside its entries.
struct SidebarCounts {
    int everyone = 0; // the people the All entry lists (hidden ones left out)
    std::vector<Account> accounts;
    std::map<std::string, int> accountCounts;
    CircleCounts circleCounts; // per circle
    int hidden = 0;
    int trash = 0; // entries in the Trash

    bool operator==(const SidebarCounts&) const = default;
};

// The column at the window's left edge: All, each account with its count,
// the six circles with their badges and the people in each (what the list
// shows when the circle is chosen), Hidden and the Trash.
class Sidebar final : public QListWidget {
    Q_OBJECT
public:
    enum Role {
        KindRole = Qt::UserRole + 1, // int: SidebarChoice::Kind, or -1 on a group title
        KeyRole,                     // QString: account id, or the circle's raw value
        CountRole,                   // int
        BadgeRole,                   // QString: a circle's badge
    };

    explicit Sidebar(QWidget* parent = nullptr);

    // Rebuilds the entries, keeping the chosen one when it still exists.
    void setCounts(const SidebarCounts& counts);
    // Marks the entry of a choice made elsewhere, without announcing it.
    void showChoice(const SidebarChoice& choice);
    SidebarChoice choice() const { return m_choice; }

Q_SIGNALS:
    void choiceChanged(const kinbook::SidebarChoice& choice);
    void leaveRightRequested();

protected:
    void keyPressEvent(QKeyEvent* event) override;

private:
    QListWidgetItem* addEntry(const QString& title, SidebarChoice choice, int count,
                              const QString& badge = {});
    void addGroupTitle(const QString& title);
    QListWidgetItem* itemFor(const SidebarChoice& choice) const;
    static SidebarChoice choiceOf(const QListWidgetItem* item);

    SidebarCounts m_counts;
    SidebarChoice m_choice;
    bool m_rebuilding = false;
};

// Draws a sidebar entry: badge, title and a count at the right.
class SidebarDelegate final : public QStyledItemDelegate {
    Q_OBJECT
public:
    using QStyledItemDelegate::QStyledItemDelegate;
    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override;
    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;
};

} // namespace kinbook
