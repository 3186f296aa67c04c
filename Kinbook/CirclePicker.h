#pragma once

#include "KinbookKit/records/ContactCircle.h"

#include <QWidget>
#include <array>
#include <optional>

class QLabel;
class QPushButton;
class QToolButton;

namespace kinbook {

// The person's circle on their page: six notches from the closest circle to
// acquaintances, the chosen one filled. Choosing a notch asks to place the
// person there; choosing the filled one again takes them out of every
// circle. A full circle refuses on the spot, with its numbers:
//
//     Your 15 is full (15 of 15). Move someone out of it first.
//
// A stored guess shows as a sparkle under its notch and a line with a Use
// button; it never changes anything by itself.
class CirclePicker final : public QWidget {
    Q_OBJECT
public:
    explicit CirclePicker(QWidget* parent = nullptr);

    // `suggestion` none: the saved suggestion, if any, shows.
    void setPerson(std::optional<ContactCircle> current, const CircleCounts& counts,
                   std::optional<CircleSuggestion> suggestion);
    // The person's saved suggestion ("suggestion.json"), which arrives after
    // the page is shown; none when they have none.
    void showSavedSuggestion(std::optional<CircleSuggestion> suggestion);
    // Shows a refusal that came back from the list.
    void showRefusal(const CircleError& error);

    std::optional<ContactCircle> current() const { return m_current; }
    // Takes a refusal away: the user has moved on to something else.
    void clearRefusal();
    // The refusal shown, or empty.
    QString refusalText() const;
    // The suggestion line shown, or empty.
    QString suggestionText() const;

    // Chooses a notch as a click does (none: the chosen notch again).
    void choose(std::optional<ContactCircle> circle);

Q_SIGNALS:
    // The person should be placed in `circle` (none: out of every circle);
    // the capacity check has passed.
    void circleChosen(std::optional<kinbook::ContactCircle> circle);

private:
    void refresh();

    std::optional<ContactCircle> m_current;
    CircleCounts m_counts;
    std::optional<CircleSuggestion> m_suggestion; // given with the person
    std::optional<CircleSuggestion> m_saved;
    std::array<QToolButton*, 6> m_notches{};
    std::array<QLabel*, 6> m_sparkles{};
    QLabel* m_caption;
    QLabel* m_refusal;
    QWidget* m_suggestionRow;
    QLabel* m_suggestionLine;
    QPushButton* m_use;
};

} // namespace kinbook
