#include "Kinbook/ThumbnailImages.h"

#include "Kinbook/QtText.h"

#include <QTimer>

namespace kinbook {
namespace {

// Decoded pictures kept, in kilobytes: a few thousand rows' worth.
constexpr int kCacheKilobytes = 24 * 1024;

} // namespace

ThumbnailImages::ThumbnailImages(BytesSource bytes, Executor& main, Executor& background, int pixels)
    : m_bytes(std::move(bytes)), m_main(main), m_background(background), m_pixels(pixels),
      m_images(kCacheKilobytes) {}

ThumbnailImages::~ThumbnailImages() = default;

QImage ThumbnailImages::decodeSquare(const std::vector<std::uint8_t>& bytes, int pixels) {
    QImage image = QImage::fromData(bytes.data(), static_cast<int>(bytes.size()));
    if (image.isNull()) {
        return {};
    }
    const int side = std::min(image.width(), image.height());
    image = image.copy((image.width() - side) / 2, (image.height() - side) / 2, side, side);
    return image.scaled(pixels, pixels, Qt::IgnoreAspectRatio, Qt::SmoothTransformation)
        .convertToFormat(QImage::Format_ARGB32_Premultiplied);
}

QImage ThumbnailImages::image(const std::string& cardID) {
    const QString key = qt(cardID);
    if (const QImage* cached = m_images.object(key)) {
        return *cached;
    }
    if (m_decoding.contains(cardID) || m_none.contains(cardID)) {
        return {};
    }
    auto bytes = m_bytes(cardID);
    if (!bytes) {
        return {};
    }
    m_decoding.insert(cardID);
    // The task may outlive this object: it holds the executor, which
    // outlives every task, and checks `alive` on the GUI thread before
    // touching anything else.
    Executor* main = &m_main;
    m_background.post([this, main, alive = std::weak_ptr<int>(m_alive), cardID, bytes, pixels = m_pixels] {
        QImage decoded = decodeSquare(*bytes, pixels);
        main->post([this, alive, cardID, decoded = std::move(decoded)]() mutable {
            if (alive.lock()) {
                arrived(cardID, std::move(decoded));
            }
        });
    });
    return {};
}

void ThumbnailImages::clear() {
    m_images.clear();
    m_none.clear();
}

void ThumbnailImages::arrived(const std::string& cardID, QImage image) {
    m_decoding.erase(cardID);
    if (image.isNull()) {
        m_none.insert(cardID);
        return;
    }
    const int kilobytes = std::max<int>(1, static_cast<int>(image.sizeInBytes() / 1024));
    m_images.insert(qt(cardID), new QImage(std::move(image)), kilobytes);
    // Many pictures arrive together while scrolling; one repaint serves them.
    if (!m_announcePending) {
        m_announcePending = true;
        QTimer::singleShot(16, this, [this] {
            m_announcePending = false;
            Q_EMIT imagesReady();
        });
    }
}

} // namespace kinbook
