#pragma once

#include "KinbookKit/records/ContactCircle.h"
#include "KinbookKit/records/PastJob.h"
#include "KinbookKit/records/Person.h"
#include "KinbookKit/sidecar/ContactPhotos.h"

#include <QImage>
#include <QListWidget>
#include <QString>
#include <QStringList>
#include <QWidget>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

class QLabel;
class QProgressBar;
class QPushButton;

namespace kinbook {

class CirclePicker;
class KinbookSession;
class PosterHeader;

// The bytes of a picture file the user chose; none when it can't be read.
std::optional<std::vector<std::uint8_t>> readPictureFile(const std::filesystem::path& path);

// What the page shows from the person's sidecar folder: their past jobs
// under "Previously", their full-size photos as a grid (add from a file
// dialog or by dropping files, delete, "Use as Contact Photo", "Use as
// Poster"), the poster behind the page's header and the saved circle
// suggestion with the circle picker.
//
// Everything is read through the session's photo store, off the GUI thread;
// thumbnails are made on the background executor in small batches, so a
// folder of hundreds of photos never holds up the window. Replies for a
// person no longer shown are dropped.
//
// Lives on the GUI thread. Without attach(), or over a session with no
// sidecar folder, it says where photos would go and does nothing else.
class PhotoGrid final : public QWidget {
    Q_OBJECT
public:
    PhotoGrid(PosterHeader& poster, CirclePicker& picker, QWidget* parent = nullptr);
    ~PhotoGrid() override;

    // The session must outlive the grid.
    void attach(KinbookSession& session);

    // Reads the person's folder again when another person is shown.
    void showPerson(const Person& person);
    void showNobody();
    // Reads the shown person's photos, poster, suggestion and past jobs again.
    void reload();

    // Adds the files as new photos, with progress while they go in; a file
    // that is not a picture adds nothing and says "That wasn't a picture.".
    void addFiles(const QStringList& files);
    void deletePhoto(int row);
    // The photo, cut around the face, becomes the cards' contact photo.
    void useAsContactPhoto(int row);
    void useAsPoster(int row);

    QListWidget* photoList() const { return m_list; }
    // The photo a row shows.
    std::filesystem::path photoAt(int row) const;
    // The message under the grid (a refusal or an error), or empty.
    QString messageText() const;
    QString pastJobsText() const;
    // Rows whose thumbnail has been drawn.
    int thumbnailsShown() const { return m_thumbnailsShown; }
    bool isBusy() const { return m_busy > 0; }

    // Thumbnails are this many pixels a side.
    static constexpr int kThumbnailPixels = 96;
    // Made in batches of this many, each a task of the background executor.
    static constexpr int kThumbnailBatch = 12;

Q_SIGNALS:
    // The person's folder was read and the grid lists its photos.
    void photosListed();
    // Every thumbnail of the listing is drawn.
    void thumbnailsDone();
    // A write finished (added, deleted, set), successfully or not.
    void changeFinished();

protected:
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    struct Contents;
    void clearShown();
    void showContents(std::uint64_t generation, Contents contents);
    void makeThumbnails(std::uint64_t generation, std::vector<std::pair<int, PhotoItem>> photos);
    void showError(const QString& title, const QString& error);
    void showMessage(const QString& text);
    void showMenu(const QPoint& position);
    void chooseFiles();
    void beginWork(const QString& what);
    void endWork();

    KinbookSession* m_session = nullptr;
    PosterHeader& m_poster;
    CirclePicker& m_picker;

    std::optional<Person> m_person;
    PersonKey m_key;
    std::vector<std::string> m_cardIDs;
    std::uint64_t m_generation = 0; // which reading the replies belong to
    int m_thumbnailsShown = 0;
    int m_busy = 0;

    QLabel* m_jobsTitle;
    QLabel* m_jobs;
    QLabel* m_photosTitle;
    QPushButton* m_add;
    QListWidget* m_list;
    QProgressBar* m_progress;
    QLabel* m_message;
    std::shared_ptr<int> m_alive = std::make_shared<int>(0);
};

} // namespace kinbook
