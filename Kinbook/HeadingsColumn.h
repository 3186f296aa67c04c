#pragma once

#include "KinbookKit/people/Sections.h"

#include <QListWidget>
#include <optional>
#include <string>
#include <vector>

namespace kinbook {

// The narrow column beside the list with one entry per section: its title
// and how many people it holds. Choosing an entry narrows the list to that
// section; choosing it again shows all sections. It keeps listing every
// section while one is chosen.
class HeadingsColumn final : public QListWidget {
    Q_OBJECT
public:
    explicit HeadingsColumn(QWidget* parent = nullptr);

    void setHeadings(const std::vector<Heading>& headings, const std::optional<std::string>& chosen);
    std::optional<std::string> chosen() const { return m_chosen; }

    static constexpr const char* kShowText =
        "Show the headings column (it steps aside when the window is too narrow)";
    static constexpr const char* kHideText = "Hide the headings column";

Q_SIGNALS:
    // None: every section again.
    void headingChosen(const std::optional<std::string>& title);
    void leaveLeftRequested();
    void leaveRightRequested();

protected:
    void keyPressEvent(QKeyEvent* event) override;

private:
    void choose(const std::optional<std::string>& title);

    std::vector<Heading> m_headings;
    std::optional<std::string> m_chosen;
    bool m_rebuilding = false;
    bool m_movingByKeys = false; // a key press is moving the current heading
};

} // namespace kinbook
