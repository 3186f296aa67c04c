#pragma once

#include "KinbookKit/records/ContactDraft.h"
#include "KinbookKit/records/PastJob.h"

#include <QDialog>
#include <QString>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

class QComboBox;
class QLabel;
class QLineEdit;
class QMessageBox;
class QPlainTextEdit;
class QPushButton;
class QVBoxLayout;

namespace kinbook {

class CirclePicker;
class PeopleList;

// One list of entries in the editor (phones, e-mails, web addresses,
// addresses, other dates or links): a row per entry with its label menu,
// its value, a menu to mark it former or current and move it, and a remove
// button; "Add" below. Rows keep the identity of the entry they show, so a
// changed value stays the same entry and a reordered list moves entries.
class EntryRows final : public QWidget {
public:
    enum class Kind { phone, email, url, address, date, link };

    EntryRows(Kind kind, const QString& title, const QString& addText, QWidget* parent = nullptr);

    void setFields(const std::vector<ContactDraft::Field>& fields);
    void setAddresses(const std::vector<ContactDraft::Address>& addresses);
    void setDates(const std::vector<ContactDraft::Date>& dates);
    void setLinks(const std::vector<LinkedAccount>& links);
    std::vector<ContactDraft::Field> fields() const;
    std::vector<ContactDraft::Address> addresses() const;
    std::vector<ContactDraft::Date> dates() const;
    std::vector<LinkedAccount> links() const;

    int count() const { return static_cast<int>(m_rows.size()); }
    // Whether the user moved a row since the entries were set.
    bool isReordered() const { return m_reordered; }
    // Adds an empty row and puts the focus in it.
    void addRow();
    void moveRow(int row, int by);
    // Removes a row; one that could be marked former instead is removed only
    // after the user confirms, the question offering exactly that.
    void requestRemove(int row);
    void removeRow(int row);
    void setRowLabel(int row, const std::string& label);
    std::string rowLabel(int row) const;
    // The value editors of a row, for tests and the quick paths.
    QLineEdit* valueEdit(int row, int part = 0) const;
    // The open deletion question, if any.
    QMessageBox* deletionQuestion() const { return m_question; }

    static std::vector<std::pair<QString, std::string>> stockLabels(Kind kind);

private:
    struct Row;
    Row& makeRow(std::string id, std::string label, bool isNew);
    void relayout();
    bool markable() const {
        return m_kind == Kind::phone || m_kind == Kind::email || m_kind == Kind::address;
    }

    Kind m_kind;
    QVBoxLayout* m_list;
    std::vector<Row*> m_rows;
    bool m_reordered = false; // the user moved a row
    QMessageBox* m_question = nullptr;
};

// The editor of one card of a person, or of a new card: names, phonetic
// name, work, the entry lists, birthday, other dates, links and the note.
// Save applies the draft (only what the user changed reaches the card) and
// the list and page show it at once; Cancel (Escape) discards it. Changing
// the company asks whether to keep the old one as a previous job.
class ContactEditor final : public QDialog {
    Q_OBJECT
public:
    // The cards of the person to choose from, primary first: card id and
    // the text naming it (its account).
    using CardChoices = std::vector<std::pair<std::string, QString>>;
    // Replaces the past jobs of the person whose card was saved.
    using SaveJobs = std::function<void(const std::string& cardID, std::vector<PastJob> jobs)>;
    // Makes a picture file the contact photo of the person whose card was saved.
    using SavePhoto = std::function<void(const std::string& cardID, const QString& file)>;

    ContactEditor(PeopleList& list, CardChoices cards, QWidget* parent = nullptr);
    // A new card in `accountID` (none: the default account).
    ContactEditor(PeopleList& list, std::optional<std::string> accountID, QWidget* parent = nullptr);

    void setSaveJobs(SaveJobs saveJobs) { m_saveJobs = std::move(saveJobs); }
    // Without it the editor offers no photo (no store for one).
    void setSavePhoto(SavePhoto savePhoto);
    // The picture that becomes the contact photo on Save ("Choose Photo…"
    // asks for it); Cancel leaves the photo as it was.
    void choosePhoto(const QString& file);
    const QString& chosenPhoto() const { return m_chosenPhoto; }
    // The person's past jobs, shown under "Previously" with "Add Previous
    // Job"; saved with the card when changed. Until they are given (no
    // sidecar folder), the section stays hidden and no job is kept.
    void setPastJobs(const std::vector<PastJob>& jobs);
    // The past jobs the rows say now, empty ones left out.
    std::vector<PastJob> pastJobs() const;
    // Adds an empty past job to fill in.
    void addPastJob(const PastJob& job = {});

    // Shows a draft in the fields; the draft read when the editor opened is
    // the one every untouched field gives back.
    void setDraft(const ContactDraft& draft);
    // The draft the fields say now.
    ContactDraft draft() const;
    bool isLoaded() const { return m_loaded; }

    // Saves, first asking about the old company when it changed.
    void save();

    QLineEdit* field(const QString& objectName) const;
    EntryRows* rows(EntryRows::Kind kind) const;
    QPlainTextEdit* noteEdit() const { return m_note; }
    QComboBox* cardPicker() const { return m_cardPicker; }
    // The person's circle, when editing a person (none for a new contact):
    // a choice applies at once, like the page's.
    CirclePicker* circlePicker() const { return m_circles; }
    // The open keep-job question, if any.
    QMessageBox* keepJobQuestion() const { return m_keepQuestion; }
    // The last failure shown, empty when none.
    QString errorText() const;

    // The buttons of the keep-job question.
    static constexpr const char* keepJobButton = "Keep as Previous Job";
    static constexpr const char* keepAndMarkButton = "Keep, and Mark Its Work Email and Phone ex-";
    static constexpr const char* dontKeepButton = "Don't Keep";

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

Q_SIGNALS:
    void loaded();
    // The save went through: the card and the person now holding it.
    void saved(const QString& personID, const QString& cardID);

private:
    void build();
    void load(const std::string& cardID);
    void write(ContactDraft draft);
    void showError(const QString& text);

    PeopleList& m_list;
    CardChoices m_cards;
    std::optional<std::string> m_accountID;
    ContactDraft m_original;
    bool m_loaded = false;
    bool m_saving = false;
    SaveJobs m_saveJobs;
    SavePhoto m_savePhoto;
    QString m_chosenPhoto;
    QWidget* m_photoRow = nullptr;
    QLabel* m_photoPreview = nullptr;
    struct JobRow {
        std::string id;
        QLineEdit* title;
        QLineEdit* company;
        QLineEdit* years;
    };
    std::vector<JobRow> m_jobRows;
    std::optional<std::vector<PastJob>> m_shownJobs; // none until given
    QWidget* m_jobs = nullptr;
    QVBoxLayout* m_jobList = nullptr;

    QComboBox* m_cardPicker = nullptr;
    CirclePicker* m_circles = nullptr;
    std::vector<QLineEdit*> m_texts;
    QStringList m_shownTexts; // as the fields showed the draft's texts
    QString m_shownNote;
    QLineEdit* m_birthday = nullptr;
    std::vector<EntryRows*> m_rows;
    QPlainTextEdit* m_note = nullptr;
    QLabel* m_error = nullptr;
    QPushButton* m_save = nullptr;
    QMessageBox* m_keepQuestion = nullptr;
};

// A date as the editor's fields write it: "2026-03-14", or "--03-14" with
// no year. None for anything else.
std::optional<DateComponents> parseEditorDate(const QString& text);
QString editorDateText(const DateComponents& date);

} // namespace kinbook
