#include "Kinbook/CirclePicker.h"

#include "Kinbook/QtText.h"

#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QToolButton>
#include <QVBoxLayout>

namespace kinbook {

CirclePicker::CirclePicker(QWidget* parent) : QWidget(parent) {
    setObjectName("CirclePicker");
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(4);

    auto* notches = new QGridLayout;
    notches->setHorizontalSpacing(6);
    notches->setVerticalSpacing(0);
    const auto circles = allCircles();
    for (std::size_t i = 0; i < circles.size(); ++i) {
        const ContactCircle circle = circles[i];
        auto* notch = new QToolButton(this);
        notch->setText(qt(circleBadge(circle)));
        notch->setCheckable(true);
        notch->setAutoRaise(false);
        notch->setMinimumSize(40, 28);
        notch->setToolTip(QString("%1: %2").arg(qt(circleTitle(circle)), qt(circleBlurb(circle))));
        notch->setAccessibleName(qt(circleTitle(circle)));
        connect(notch, &QToolButton::clicked, this, [this, circle] {
            choose(m_current == circle ? std::nullopt : std::optional<ContactCircle>(circle));
        });
        auto* sparkle = new QLabel(QString::fromUtf8("\u2726"), this);
        sparkle->setAlignment(Qt::AlignHCenter | Qt::AlignTop);
        sparkle->setToolTip("The app's guess");
        // Keeps its place when hidden, so the notches don't move.
        QSizePolicy policy = sparkle->sizePolicy();
        policy.setRetainSizeWhenHidden(true);
        sparkle->setSizePolicy(policy);
        sparkle->hide();
        notches->addWidget(notch, 0, static_cast<int>(i));
        notches->addWidget(sparkle, 1, static_cast<int>(i));
        m_notches[i] = notch;
        m_sparkles[i] = sparkle;
    }
    auto* notchRow = new QHBoxLayout;
    notchRow->addLayout(notches);
    notchRow->addStretch(1);
    layout->addLayout(notchRow);

    m_caption = new QLabel(this);
    m_caption->setObjectName("CircleCaption");
    layout->addWidget(m_caption);

    m_refusal = new QLabel(this);
    m_refusal->setObjectName("CircleRefusal");
    m_refusal->setWordWrap(true);
    m_refusal->setStyleSheet("QLabel { color: #b3261e; }");
    m_refusal->hide();
    layout->addWidget(m_refusal);

    m_suggestionRow = new QWidget(this);
    auto* suggestionLayout = new QHBoxLayout(m_suggestionRow);
    suggestionLayout->setContentsMargins(0, 0, 0, 0);
    m_suggestionLine = new QLabel(m_suggestionRow);
    m_suggestionLine->setObjectName("CircleSuggestion");
    m_use = new QPushButton("Use", m_suggestionRow);
    connect(m_use, &QPushButton::clicked, this, [this] {
        if (const auto& shown = m_suggestion ? m_suggestion : m_saved) {
            choose(shown->circle);
        }
    });
    suggestionLayout->addWidget(m_suggestionLine);
    suggestionLayout->addWidget(m_use);
    suggestionLayout->addStretch(1);
    m_suggestionRow->hide();
    layout->addWidget(m_suggestionRow);
    refresh();
}

void CirclePicker::setPerson(std::optional<ContactCircle> current, const CircleCounts& counts,
                             std::optional<CircleSuggestion> suggestion) {
    if (current != m_current) {
        // A refusal is about the move the user just tried; another person or
        // another circle makes it stale.
        m_refusal->hide();
    }
    m_current = current;
    m_counts = counts;
    m_suggestion = std::move(suggestion);
    refresh();
}

void CirclePicker::showSavedSuggestion(std::optional<CircleSuggestion> suggestion) {
    m_saved = std::move(suggestion);
    refresh();
}

void CirclePicker::showRefusal(const CircleError& error) {
    m_refusal->setText(qt(error.pickerDescription(m_counts)));
    m_refusal->show();
}

void CirclePicker::clearRefusal() {
    m_refusal->hide();
}

QString CirclePicker::refusalText() const {
    return m_refusal->isHidden() ? QString() : m_refusal->text();
}

QString CirclePicker::suggestionText() const {
    return m_suggestionRow->isHidden() ? QString() : m_suggestionLine->text();
}

void CirclePicker::choose(std::optional<ContactCircle> circle) {
    if (auto allowed = checkCircleCapacity(m_counts, circle, m_current); !allowed) {
        showRefusal(allowed.error());
        refresh();
        return;
    }
    m_refusal->hide();
    Q_EMIT circleChosen(circle);
}

void CirclePicker::refresh() {
    const auto& suggestion = m_suggestion ? m_suggestion : m_saved;
    const auto circles = allCircles();
    for (std::size_t i = 0; i < circles.size(); ++i) {
        m_notches[i]->setChecked(m_current == circles[i]);
        m_sparkles[i]->setVisible(suggestion && suggestion->circle == circles[i]);
    }
    m_caption->setText(m_current
                           ? QString("%1 · %2").arg(qt(circleTitle(*m_current)), qt(circleBlurb(*m_current)))
                           : QString("No circle"));
    if (suggestion) {
        m_suggestionLine->setText(qt(suggestion->line()));
        m_suggestionLine->setToolTip(qt(suggestion->explanation()));
        m_use->setToolTip(qt(suggestion->explanation()));
        // A guess of the circle the person is already in has nothing to use.
        m_use->setVisible(suggestion->circle != m_current);
        m_suggestionRow->show();
    } else {
        m_suggestionRow->hide();
    }
}

} // namespace kinbook
