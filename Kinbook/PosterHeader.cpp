#include "Kinbook/PosterHeader.h"

#include <QPainter>
#include <algorithm>

namespace kinbook {
namespace {

constexpr int kPosterHeight = 150;

} // namespace

PosterHeader::PosterHeader(QWidget* parent) : QWidget(parent) {
    setObjectName("PosterHeader");
}

void PosterHeader::setPoster(const QImage& poster, QPointF focus) {
    m_poster = poster;
    m_focus = QPointF(std::clamp(focus.x(), 0.0, 1.0), std::clamp(focus.y(), 0.0, 1.0));
    // Tall enough for the face to be seen above and below the name.
    setMinimumHeight(kPosterHeight);
    update();
}

void PosterHeader::clearPoster() {
    m_poster = QImage();
    m_focus = QPointF(0.5, 0.5);
    setMinimumHeight(0);
    update();
}

QRectF PosterHeader::visiblePart(QSize picture, QSize area, QPointF focus) {
    if (picture.isEmpty() || area.isEmpty()) {
        return {};
    }
    // Scale to cover: the window in picture pixels has the area's shape and
    // fits the picture along one side.
    const double scale =
        std::max(double(area.width()) / picture.width(), double(area.height()) / picture.height());
    const double width = std::min<double>(picture.width(), area.width() / scale);
    const double height = std::min<double>(picture.height(), area.height() / scale);
    const double left = std::clamp(focus.x() * picture.width() - width / 2, 0.0, picture.width() - width);
    const double top = std::clamp(focus.y() * picture.height() - height / 2, 0.0, picture.height() - height);
    return {left, top, width, height};
}

void PosterHeader::paintEvent(QPaintEvent*) {
    if (m_poster.isNull()) {
        return;
    }
    QPainter painter(this);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    painter.drawImage(QRectF(rect()), m_poster, visiblePart(m_poster.size(), size(), m_focus));
    QColor wash = palette().color(QPalette::Window);
    wash.setAlpha(150);
    painter.fillRect(rect(), wash);
}

} // namespace kinbook
