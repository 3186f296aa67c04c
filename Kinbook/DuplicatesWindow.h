#pragma once

#include "KinbookKit/Executor.h"
#include "KinbookKit/people/NotDuplicates.h"
#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/people/PeopleMerge.h"

#include <QDialog>
#include <filesystem>
#include <optional>
#include <vector>

class QCheckBox;
class QLabel;
class QVBoxLayout;

namespace kinbook {

class MergeSheet;

// The duplicates list: the groups of people who look like the same human,
// found off the GUI thread, each with its reasons, "Merge N Cards" (the merge
// sheet) and "Not Duplicates" (remembered in the sidecar folder when there is
// one).
//
// Lives on the GUI thread, the list's main executor. The list and the
// executors must outlive it.
class DuplicatesWindow final : public QDialog {
    Q_OBJECT
public:
    DuplicatesWindow(PeopleList& list, Executor& main, Executor& background,
                     std::optional<std::filesystem::path> answersFile, MergePhotoKeeper keepPhotos,
                     QWidget* parent = nullptr);
    ~DuplicatesWindow() override;

    // Looks for the groups again (after a merge, or when the list changed).
    void refresh();
    bool isSearching() const { return m_searching; }
    // The groups shown, after the answers and the toggle.
    const std::vector<DuplicateGroup>& shownGroups() const { return m_shown; }
    QCheckBox* strongOnly() const { return m_strongOnly; }
    QLabel* statusLabel() const { return m_status; }
    // Opens the merge sheet for a shown group; the sheet, for tests.
    MergeSheet* openMerge(std::size_t group);
    void markNotDuplicates(std::size_t group);

private:
    void showGroups(std::vector<DuplicateGroup> groups);
    void rebuild();

    PeopleList& m_list;
    Executor& m_main;
    Executor& m_background;
    std::optional<std::filesystem::path> m_answersFile;
    MergePhotoKeeper m_keepPhotos;
    std::vector<DuplicateGroup> m_groups; // as found
    std::vector<DuplicateGroup> m_shown;
    std::shared_ptr<int> m_alive = std::make_shared<int>(0);
    std::uint64_t m_search = 0;
    std::uint64_t m_observer = 0;
    bool m_searching = false;

    QLabel* m_status = nullptr;
    QLabel* m_statusText = nullptr;
    QCheckBox* m_strongOnly = nullptr;
    QVBoxLayout* m_rows = nullptr;
};

} // namespace kinbook
