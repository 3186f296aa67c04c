#include "Kinbook/PeopleTable.h"

#include "Kinbook/PeopleTableModel.h"
#include "Kinbook/QtText.h"
#include "KinbookKit/records/KinID.h"

#include <QDrag>
#include <QHeaderView>
#include <QKeyEvent>
#include <QMimeData>
#include <QPainter>
#include <QPainterPath>

namespace kinbook {
namespace {

constexpr int kRowHeight = 36;
constexpr int kAvatar = 26;
constexpr int kMargin = 10;

// A steady colour per person for the initials disc, so people are told apart
// at a glance and keep their colour between launches.
QColor discColour(const QString& seed) {
    const auto hash = qHash(seed);
    return QColor::fromHsl(static_cast<int>(hash % 360), 90, 150);
}

} // namespace

QSize PersonRowDelegate::sizeHint(const QStyleOptionViewItem& option, const QModelIndex&) const {
    return {option.rect.width() > 0 ? option.rect.width() : 200, kRowHeight};
}

void PersonRowDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option,
                              const QModelIndex& index) const {
    painter->save();
    painter->setRenderHint(QPainter::Antialiasing);
    const QPalette& palette = option.palette;
    const QRect rect = option.rect;

    if (index.data(PeopleTableModel::IsSectionRole).toBool()) {
        painter->fillRect(rect, palette.color(QPalette::AlternateBase));
        QFont font = option.font;
        font.setBold(true);
        painter->setFont(font);
        painter->setPen(palette.color(QPalette::PlaceholderText));
        painter->drawText(rect.adjusted(kMargin, 0, -kMargin, 0), Qt::AlignVCenter | Qt::AlignLeft,
                          index.data(Qt::DisplayRole).toString());
        painter->restore();
        return;
    }

    const bool selected = option.state & QStyle::State_Selected;
    if (selected) {
        const bool active = option.state & QStyle::State_Active;
        painter->fillRect(rect,
                          palette.color(active ? QPalette::Active : QPalette::Inactive, QPalette::Highlight));
    }
    const QColor text = palette.color(selected ? QPalette::HighlightedText : QPalette::Text);
    const QColor quiet = selected ? text : palette.color(QPalette::PlaceholderText);

    // The picture, or the initials on a disc.
    const QRect avatar(rect.left() + kMargin, rect.top() + (rect.height() - kAvatar) / 2, kAvatar, kAvatar);
    const QImage picture = index.data(Qt::DecorationRole).value<QImage>();
    if (!picture.isNull()) {
        QPainterPath circle;
        circle.addEllipse(avatar);
        painter->setClipPath(circle);
        painter->drawImage(avatar, picture);
        painter->setClipping(false);
    } else {
        const QString initials = index.data(PeopleTableModel::InitialsRole).toString();
        painter->setPen(Qt::NoPen);
        painter->setBrush(discColour(index.data(PeopleTableModel::PersonIDRole).toString()));
        painter->drawEllipse(avatar);
        QFont small = option.font;
        small.setPointSizeF(small.pointSizeF() * 0.8);
        small.setBold(true);
        painter->setFont(small);
        painter->setPen(Qt::white);
        painter->drawText(avatar, Qt::AlignCenter, initials);
    }

    // The circle's badge at the right end.
    int right = rect.right() - kMargin;
    const QString badge = index.data(PeopleTableModel::CircleBadgeRole).toString();
    if (!badge.isEmpty()) {
        QFont small = option.font;
        small.setPointSizeF(small.pointSizeF() * 0.8);
        painter->setFont(small);
        const int width = painter->fontMetrics().horizontalAdvance(badge) + 12;
        const QRect pill(right - width, rect.top() + (rect.height() - 18) / 2, width, 18);
        painter->setPen(QPen(quiet, 1));
        painter->setBrush(Qt::NoBrush);
        painter->drawRoundedRect(pill, 9, 9);
        painter->drawText(pill, Qt::AlignCenter, badge);
        right = pill.left() - 8;
    }

    // The name, then the company in a quieter ink, cut to fit.
    QRect textRect(avatar.right() + 10, rect.top(), right - avatar.right() - 10, rect.height());
    painter->setFont(option.font);
    painter->setPen(text);
    const QString name = index.data(Qt::DisplayRole).toString();
    const QFontMetrics metrics(option.font);
    const QString shownName = metrics.elidedText(name, Qt::ElideRight, textRect.width());
    painter->drawText(textRect, Qt::AlignVCenter | Qt::AlignLeft, shownName);
    const QString subtitle = index.data(PeopleTableModel::SubtitleRole).toString();
    const int nameWidth = metrics.horizontalAdvance(shownName);
    if (!subtitle.isEmpty() && nameWidth + 24 < textRect.width()) {
        textRect.setLeft(textRect.left() + nameWidth + 12);
        painter->setPen(quiet);
        painter->drawText(textRect, Qt::AlignVCenter | Qt::AlignLeft,
                          metrics.elidedText(subtitle, Qt::ElideRight, textRect.width()));
    }
    painter->restore();
}

PeopleTable::PeopleTable(QWidget* parent) : QTableView(parent) {
    setObjectName("PeopleTable");
    horizontalHeader()->hide();
    horizontalHeader()->setStretchLastSection(true);
    verticalHeader()->hide();
    verticalHeader()->setSectionResizeMode(QHeaderView::Fixed);
    verticalHeader()->setMinimumSectionSize(kRowHeight);
    verticalHeader()->setDefaultSectionSize(kRowHeight);
    setShowGrid(false);
    setWordWrap(false);
    setTabKeyNavigation(false);
    setCornerButtonEnabled(false);
    setSelectionBehavior(QAbstractItemView::SelectRows);
    // Several people are selected (Ctrl or Shift with a click) to merge them.
    setSelectionMode(QAbstractItemView::ExtendedSelection);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
    setItemDelegate(new PersonRowDelegate(this));
    setFrameShape(QFrame::NoFrame);
    setAccessibleName("People");
    // People are dragged onto an account in the sidebar to move them there.
    setDragEnabled(true);
    setDragDropMode(QAbstractItemView::DragOnly);
}

QMimeData* PeopleTable::dragData() const {
    QStringList lines;
    for (const QString& id : selectedIDs()) {
        lines << qt(KinID::dragText(utf8(id)));
    }
    if (lines.isEmpty()) {
        return nullptr;
    }
    auto* carried = new QMimeData;
    carried->setText(lines.join('\n'));
    return carried;
}

void PeopleTable::startDrag(Qt::DropActions supportedActions) {
    QMimeData* carried = dragData();
    if (carried == nullptr) {
        return;
    }
    auto* drag = new QDrag(this);
    drag->setMimeData(carried);
    drag->exec(supportedActions & (Qt::MoveAction | Qt::CopyAction), Qt::MoveAction);
}

void PeopleTable::setPeopleModel(PeopleTableModel* model) {
    m_model = model;
    setModel(model);
    // The page follows the selection, not the keyboard's current row: a
    // list that takes the focus makes its first row current without
    // choosing anyone.
    connect(selectionModel(), &QItemSelectionModel::selectionChanged, this,
            [this] { Q_EMIT selectedPersonChanged(selectedID()); });
}

void PeopleTable::selectPersonRow(int row) {
    const QModelIndex index = m_model->index(row);
    if (!index.isValid()) {
        return;
    }
    selectionModel()->setCurrentIndex(index, QItemSelectionModel::ClearAndSelect);
    scrollTo(index);
}

void PeopleTable::moveSelection(int steps) {
    if (m_model == nullptr || steps == 0) {
        return;
    }
    const int direction = steps > 0 ? 1 : -1;
    const QModelIndex current = currentIndex();
    int row = current.isValid() ? current.row() : -1;
    std::optional<int> target;
    if (row < 0) {
        target = m_model->personRowFrom(0, 1);
    } else if (!selectionModel()->isSelected(current)) {
        // A current row nobody chose yet is the first step.
        target = row;
        for (int i = 1; i < std::abs(steps); ++i) {
            const auto next = m_model->personRowFrom(*target + direction, direction);
            if (!next) {
                break;
            }
            target = next;
        }
    } else {
        for (int i = 0; i < std::abs(steps); ++i) {
            const auto next = m_model->personRowFrom(row + direction, direction);
            if (!next) {
                break;
            }
            row = *next;
            target = row;
        }
    }
    if (target) {
        selectPersonRow(*target);
    }
}

QString PeopleTable::selectedID() const {
    const QModelIndex current = currentIndex();
    return current.isValid() && selectionModel()->isSelected(current)
               ? current.data(PeopleTableModel::PersonIDRole).toString()
               : QString();
}

QStringList PeopleTable::selectedIDs() const {
    QStringList ids;
    for (const QModelIndex& index : selectionModel()->selectedRows()) {
        const QString id = index.data(PeopleTableModel::PersonIDRole).toString();
        if (!id.isEmpty()) {
            ids << id;
        }
    }
    return ids;
}

QModelIndex PeopleTable::moveCursor(CursorAction cursorAction, Qt::KeyboardModifiers modifiers) {
    if (m_model == nullptr) {
        return QTableView::moveCursor(cursorAction, modifiers);
    }
    const QModelIndex current = currentIndex();
    const int row = current.isValid() ? current.row() : -1;
    const int page = std::max(1, viewport()->height() / kRowHeight - 1);
    std::optional<int> target;
    switch (cursorAction) {
    case MoveDown:
    case MoveNext:
        target = m_model->personRowFrom(row + 1, 1);
        break;
    case MoveUp:
    case MovePrevious:
        target = row < 0 ? m_model->personRowFrom(0, 1) : m_model->personRowFrom(row - 1, -1);
        break;
    case MoveHome:
        target = m_model->personRowFrom(0, 1);
        break;
    case MoveEnd:
        target = m_model->personRowFrom(m_model->rowCount() - 1, -1);
        break;
    case MovePageDown:
        target = m_model->personRowFrom(std::min(row + page, m_model->rowCount() - 1), -1);
        break;
    case MovePageUp:
        target = m_model->personRowFrom(std::max(row - page, 0), 1);
        break;
    default:
        return QTableView::moveCursor(cursorAction, modifiers);
    }
    return target ? m_model->index(*target) : current;
}

void PeopleTable::keyPressEvent(QKeyEvent* event) {
    if (event->modifiers() == Qt::NoModifier || event->modifiers() == Qt::KeypadModifier) {
        if (event->key() == Qt::Key_Right || event->key() == Qt::Key_Return ||
            event->key() == Qt::Key_Enter) {
            if (!selectedID().isEmpty()) {
                Q_EMIT enterPageRequested();
            }
            event->accept();
            return;
        }
        if (event->key() == Qt::Key_Left) {
            Q_EMIT leaveLeftRequested();
            event->accept();
            return;
        }
        // A current row nobody chose yet (the list just took the focus) is
        // where up and down start.
        const QModelIndex current = currentIndex();
        if ((event->key() == Qt::Key_Down || event->key() == Qt::Key_Up) && current.isValid() &&
            !selectionModel()->isSelected(current)) {
            selectPersonRow(current.row());
            event->accept();
            return;
        }
    }
    QTableView::keyPressEvent(event);
}

} // namespace kinbook
