#pragma once

#include <QWidget>

namespace kinbook {

// The window that explains the six circles: why they exist, how their sizes
// count, what the sparkle means, and that hiding someone is a separate thing.
// Opened from Help ▸ Circles; one window, raised again when already open.
// Its object name, "circles-help", identifies it.
class CirclesHelpWindow final : public QWidget {
    Q_OBJECT
public:
    explicit CirclesHelpWindow(QWidget* parent = nullptr);

    static constexpr const char* kObjectName = "circles-help";
    static constexpr const char* kTitle = "Circles";
    // What the diagram says to assistive technology.
    static constexpr const char* kDiagramDescription =
        "Circles: closest 5, good friends 15, friends 50, meaningful 150, people you know 500, "
        "acquaintances 1,500, around you.";
};

// The six circles drawn one around the other, each with its badge, the
// innermost in the middle.
class CirclesDiagram final : public QWidget {
    Q_OBJECT
public:
    explicit CirclesDiagram(QWidget* parent = nullptr);

    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
};

} // namespace kinbook
