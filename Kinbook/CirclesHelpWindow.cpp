#include "Kinbook/CirclesHelpWindow.h"

#include "Kinbook/QtText.h"
#include "KinbookKit/records/ContactCircle.h"

#include <QGridLayout>
#include <QLabel>
#include <QPainter>
#include <QScrollArea>
#include <QVBoxLayout>

namespace kinbook {
namespace {

QLabel* paragraph(const QString& text, QWidget* parent) {
    auto* label = new QLabel(text, parent);
    label->setWordWrap(true);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    return label;
}

QLabel* heading(const QString& text, QWidget* parent, qreal scale = 1.15) {
    auto* label = new QLabel(text, parent);
    QFont font = label->font();
    font.setBold(true);
    font.setPointSizeF(font.pointSizeF() * scale);
    label->setFont(font);
    return label;
}

} // namespace

CirclesDiagram::CirclesDiagram(QWidget* parent) : QWidget(parent) {
    setAccessibleName(CirclesHelpWindow::kTitle);
    setAccessibleDescription(CirclesHelpWindow::kDiagramDescription);
    setMinimumSize(220, 220);
}

QSize CirclesDiagram::sizeHint() const {
    return {300, 300};
}

void CirclesDiagram::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const auto circles = allCircles();
    const QPointF centre = QRectF(rect()).center();
    const qreal outer = std::min(width(), height()) / 2.0 - 4;
    const qreal step = outer / static_cast<qreal>(circles.size());
    const QColor ink = palette().color(QPalette::Text);
    const QColor accent = palette().color(QPalette::Highlight);

    // Outermost first, so each inner disc is painted over the one around it.
    for (std::size_t i = circles.size(); i-- > 0;) {
        const qreal radius = step * static_cast<qreal>(i + 1);
        QColor fill = accent;
        fill.setAlphaF(0.08f + 0.07f * static_cast<float>(circles.size() - i));
        painter.setPen(QPen(ink, 1));
        painter.setBrush(fill);
        painter.drawEllipse(centre, radius, radius);

        // The badge sits at the top of its ring; the innermost one in the middle.
        const QString badge = qt(circleBadge(circles[i]));
        const qreal y = i == 0 ? centre.y() : centre.y() - radius + step / 2;
        const QRectF box(centre.x() - step, y - step / 2, 2 * step, step);
        painter.setPen(ink);
        painter.drawText(box, Qt::AlignCenter, badge);
    }
}

CirclesHelpWindow::CirclesHelpWindow(QWidget* parent) : QWidget(parent, Qt::Window) {
    setObjectName(kObjectName);
    setWindowTitle(kTitle);
    resize(520, 680);

    auto* content = new QWidget;
    auto* layout = new QVBoxLayout(content);
    layout->setContentsMargins(24, 20, 24, 20);
    layout->setSpacing(12);

    layout->addWidget(heading("What are circles?", content, 1.5));
    layout->addWidget(paragraph(
        "An anthropologist who studied how people keep in touch found that we hold our relationships in "
        "layers, each about three times the size of the one inside it: about 5 closest people, 15 good "
        "friends, 50 friends, 150 meaningful relationships, 500 people you know, and up to 1,500 faces you "
        "can put a name to.",
        content));

    auto* diagram = new CirclesDiagram(content);
    layout->addWidget(diagram, 0, Qt::AlignHCenter);

    // One row per circle: its badge, its name and what it is for.
    auto* table = new QGridLayout;
    table->setHorizontalSpacing(12);
    int row = 0;
    for (ContactCircle circle : allCircles()) {
        auto* badge = new QLabel(qt(circleBadge(circle)), content);
        badge->setAlignment(Qt::AlignCenter);
        badge->setMinimumWidth(36);
        badge->setStyleSheet(
            "QLabel { border: 1px solid palette(mid); border-radius: 9px; padding: 1px 6px; }");
        auto* title = heading(qt(circleTitle(circle)), content, 1.0);
        auto* blurb = paragraph(qt(circleBlurb(circle)), content);
        table->addWidget(badge, row, 0);
        table->addWidget(title, row, 1);
        table->addWidget(blurb, row, 2);
        ++row;
    }
    table->setColumnStretch(2, 1);
    layout->addLayout(table);

    layout->addWidget(heading("How it works here", content));
    layout->addWidget(
        paragraph("Put each contact in a circle from their page. A circle's size counts everyone "
                  "inside it, so your 15 includes your 5. When a circle is full, move someone out "
                  "before adding someone new. Acquaintances have no limit.",
                  content));
    layout->addWidget(
        paragraph("They make you choose. Time together is what keeps people close, and the layers "
                  "reflect how much time and attention you really have.",
                  content));
    layout->addWidget(
        paragraph("A small sparkle under a notch is the app's guess, from how often you're in touch "
                  "and the tone of your messages. It never moves anyone by itself. Tap Use to "
                  "accept it.",
                  content));
    layout->addWidget(heading("Archive is separate", content));
    layout->addWidget(
        paragraph("Archived contacts stay in your accounts, so calls and mail are still recognized. "
                  "They're just left out of your list.",
                  content));
    layout->addWidget(
        paragraph("A contact's circle is stored in the contact itself and syncs with it to your "
                  "other devices. Apple's own apps don't show it.",
                  content));
    layout->addStretch(1);

    auto* scroll = new QScrollArea(this);
    scroll->setWidget(content);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);
    outer->addWidget(scroll);
}

} // namespace kinbook
