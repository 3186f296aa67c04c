#pragma once

#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/people/PeopleMerge.h"

#include <QDialog>
#include <map>
#include <optional>
#include <string>
#include <vector>

class QButtonGroup;
class QComboBox;
class QLabel;
class QListWidget;
class QPlainTextEdit;
class QPushButton;
class QVBoxLayout;

namespace kinbook {

// The merge sheet: the user picks the primary card and composes the merged
// person from every card's names, work and entries, then merges. It reads the
// cards and their notes through the list, and merges through it; the cards
// stay in their accounts.
//
// Lives on the GUI thread, the list's main executor. The list must outlive it.
class MergeSheet final : public QDialog {
    Q_OBJECT
public:
    enum class Entries { phones, emails, addresses, links };

    MergeSheet(PeopleList& list, std::vector<std::string> selectedIDs, MergePhotoKeeper keepPhotos,
               QWidget* parent = nullptr);

    // The cards and their notes are read and the sheet filled.
    bool isReady() const { return m_ready; }
    // The cards of the merge, primary first.
    const std::vector<Duplicates::MergeCard>& cards() const { return m_cards; }
    void choosePrimary(const std::string& cardID);

    // The parts, for tests.
    QComboBox* field(const QString& title) const;
    QListWidget* entries(Entries kind) const;
    QPlainTextEdit* noteEdit() const { return m_note; }
    QLabel* planLabel() const { return m_plan; }
    QLabel* errorLabel() const { return m_error; }
    QPushButton* mergeButton() const { return m_merge; }
    QButtonGroup* photoChoice() const { return m_photos; }
    // Moves the selected entry of a list up or down; marks it former or current.
    void moveEntry(Entries kind, int steps);
    void toggleFormer(Entries kind);

    // The result as the sheet now composes it.
    ContactDraft result() const;

Q_SIGNALS:
    // The merge is done; the person's id.
    void merged(const QString& personID);

private:
    void read();
    void fill();
    void fillEntries();
    void updatePlan();
    void startMerge();
    QWidget* entriesSection(Entries kind, const QString& title);

    PeopleList& m_list;
    std::vector<std::string> m_selected;
    MergePhotoKeeper m_keepPhotos;
    std::vector<Duplicates::MergeCard> m_cards;
    std::map<std::string, ContactDraft> m_drafts;
    std::map<std::string, std::string> m_notes;
    std::map<std::string, std::string> m_names; // card id to the name shown for it
    std::map<std::string, bool> m_hasPicture;
    bool m_ready = false;

    // What the lists show, by their rows' data: the entries of the prefill.
    ContactDraft m_entries;

    QVBoxLayout* m_layout = nullptr;
    QButtonGroup* m_primary = nullptr;
    QLabel* m_plan = nullptr;
    std::map<QString, QComboBox*> m_fields;
    std::map<Entries, QListWidget*> m_lists;
    QPlainTextEdit* m_note = nullptr;
    QButtonGroup* m_photos = nullptr;
    QLabel* m_error = nullptr;
    QPushButton* m_merge = nullptr;
};

} // namespace kinbook
