#pragma once

#include <QImage>
#include <QPointF>
#include <QRectF>
#include <QSize>
#include <QWidget>

namespace kinbook {

// The top of the contact page, with the person's poster behind it: the
// picture fills the band and is cut around its focus, so that the face stays
// in view however wide the page is. A wash of the window's colour keeps the
// name readable over it. Without a poster it is an ordinary band.
class PosterHeader final : public QWidget {
    Q_OBJECT
public:
    explicit PosterHeader(QWidget* parent = nullptr);

    // `focus` in 0…1, origin at the top left.
    void setPoster(const QImage& poster, QPointF focus);
    void clearPoster();
    bool hasPoster() const { return !m_poster.isNull(); }
    QPointF focus() const { return m_focus; }

    // The part of a picture of `picture` size shown in an `area`: the
    // picture scaled to cover the area, the window centred on the focus and
    // pushed back inside the picture.
    static QRectF visiblePart(QSize picture, QSize area, QPointF focus);

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QImage m_poster;
    QPointF m_focus{0.5, 0.5};
};

} // namespace kinbook
