#pragma once

#include "KinbookKit/Executor.h"

#include <QCache>
#include <QImage>
#include <QObject>
#include <QString>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace kinbook {

// The small pictures of the list's rows, decoded and scaled off the GUI
// thread: a row asks, gets nothing the first time, and is repainted when the
// picture is ready. Decoded pictures are kept for the rows scrolled back to.
//
// Lives on the GUI thread. The background executor must outlive it; a
// picture decoded after it is gone is dropped.
class ThumbnailImages final : public QObject {
    Q_OBJECT
public:
    // The JPEG bytes of a card's thumbnail when known (null otherwise: the
    // source then calls `refresh()` when it has them). Called on the GUI thread.
    using BytesSource =
        std::function<std::shared_ptr<const std::vector<std::uint8_t>>(const std::string& cardID)>;

    ThumbnailImages(BytesSource bytes, Executor& main, Executor& background, int pixels);
    ~ThumbnailImages() override;

    // The card's picture, square, `pixels` a side; null while it is being
    // made or when there is none.
    QImage image(const std::string& cardID);
    // Forgets every picture: the people were read again and a card's photo
    // may have changed.
    void clear();
    // New bytes may be known: rows that got nothing may try again.
    void refresh() { Q_EMIT imagesReady(); }

    // A square picture `pixels` a side, cut from the middle of the decoded
    // bytes; null when they are no image.
    static QImage decodeSquare(const std::vector<std::uint8_t>& bytes, int pixels);

Q_SIGNALS:
    // Some pictures became ready; repaint the rows (at most once a frame).
    void imagesReady();

private:
    void arrived(const std::string& cardID, QImage image);

    BytesSource m_bytes;
    Executor& m_main;
    Executor& m_background;
    const int m_pixels;
    QCache<QString, QImage> m_images;
    std::set<std::string> m_decoding;
    std::set<std::string> m_none; // bytes that held no image
    bool m_announcePending = false;
    std::shared_ptr<int> m_alive = std::make_shared<int>(0);
};

} // namespace kinbook
