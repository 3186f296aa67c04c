#include "Kinbook/PhotoGrid.h"

#include "Kinbook/CirclePicker.h"
#include "Kinbook/PosterHeader.h"
#include "Kinbook/QtText.h"
#include "KinbookKit/setup/KinbookSession.h"
#include "KinbookKit/text/KinLog.h"

#include <fmt/format.h>

#include <QAction>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFile>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QImageReader>
#include <QLabel>
#include <QMenu>
#include <QMessageBox>
#include <QMimeData>
#include <QPainter>
#include <QPointer>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>

namespace kinbook {

std::optional<std::vector<std::uint8_t>> readPictureFile(const std::filesystem::path& path) {
    QFile file(qt(path.string()));
    if (!file.open(QIODevice::ReadOnly)) {
        return std::nullopt;
    }
    const QByteArray data = file.readAll();
    return std::vector<std::uint8_t>(data.begin(), data.end());
}

namespace {

constexpr int kPathRole = Qt::UserRole + 1;
// The poster is decoded at most this size: the page's head view.
constexpr int kPosterPixels = 1200;

// A square thumbnail cut from the middle of the photo, its orientation
// applied. libvips decodes a JPEG shrunk on load, which is what makes
// hundreds cheap; twice the side leaves the shorter side enough pixels for
// any photo up to 2:1.
QImage thumbnailOf(PictureCodec& codec, const std::filesystem::path& path, int pixels) {
    const auto bytes = readPictureFile(path);
    const auto decoded = bytes ? codec.decode(*bytes, 2 * pixels) : std::nullopt;
    if (!decoded || decoded->empty()) {
        return {};
    }
    const QImage image(decoded->rgb.data(), decoded->width, decoded->height, 3 * decoded->width,
                       QImage::Format_RGB888);
    const int side = std::min(image.width(), image.height());
    return image.copy((image.width() - side) / 2, (image.height() - side) / 2, side, side)
        .scaled(pixels, pixels, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
}

QImage posterImage(const std::filesystem::path& path) {
    QImageReader reader(qt(path.string()));
    reader.setAutoTransform(true);
    const QSize size = reader.size();
    if (size.isValid() && std::max(size.width(), size.height()) > kPosterPixels) {
        reader.setScaledSize(size.scaled(kPosterPixels, kPosterPixels, Qt::KeepAspectRatio));
    }
    return reader.read();
}

// A person with no KinID yet gets one in every card before anything is
// written for them, so that their folder finds them again after a rename.
Result<PersonKey, std::string> keyForWriting(KinbookSession& session, PersonKey key,
                                             const std::vector<std::string>& cardIDs) {
    if (!key.kinID.empty()) {
        return key;
    }
    const auto& book = session.addressBook();
    if (!book) {
        return failure(std::string("the address book is not open"));
    }
    for (const auto& cardID : cardIDs) {
        auto anchor = book->changeAnchor(cardID, [&](KinID::Anchor& written) {
            if (!key.kinID.empty()) {
                written.id = key.kinID;
            }
        });
        if (!anchor) {
            return failure(anchor.error().description());
        }
        key.kinID = anchor->id;
    }
    return key;
}

} // namespace

struct PhotoGrid::Contents {
    std::vector<PhotoItem> photos;
    std::optional<Poster> poster;
    QImage posterPicture;
    std::optional<CircleSuggestion> suggestion;
    std::vector<PastJob> jobs;
};

PhotoGrid::PhotoGrid(PosterHeader& poster, CirclePicker& picker, QWidget* parent)
    : QWidget(parent), m_poster(poster), m_picker(picker) {
    setObjectName("PhotoGrid");
    setAcceptDrops(true);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(4);

    QFont bold = font();
    bold.setBold(true);
    m_jobsTitle = new QLabel("Previously", this);
    m_jobsTitle->setFont(bold);
    m_jobs = new QLabel(this);
    m_jobs->setObjectName("PastJobs");
    m_jobs->setWordWrap(true);
    m_jobs->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(m_jobsTitle);
    layout->addWidget(m_jobs);

    auto* titleRow = new QHBoxLayout;
    m_photosTitle = new QLabel("Photos", this);
    m_photosTitle->setFont(bold);
    m_add = new QPushButton("Add Photos…", this);
    m_add->setObjectName("AddPhotosButton");
    connect(m_add, &QPushButton::clicked, this, &PhotoGrid::chooseFiles);
    titleRow->addWidget(m_photosTitle);
    titleRow->addStretch(1);
    titleRow->addWidget(m_add);
    layout->addLayout(titleRow);

    m_list = new QListWidget(this);
    m_list->setObjectName("PhotoList");
    m_list->setAccessibleName("Photos");
    m_list->setViewMode(QListView::IconMode);
    m_list->setIconSize(QSize(kThumbnailPixels, kThumbnailPixels));
    m_list->setGridSize(QSize(kThumbnailPixels + 12, kThumbnailPixels + 12));
    m_list->setResizeMode(QListView::Adjust);
    m_list->setMovement(QListView::Static);
    m_list->setUniformItemSizes(true);
    m_list->setSelectionMode(QAbstractItemView::SingleSelection);
    m_list->setContextMenuPolicy(Qt::CustomContextMenu);
    m_list->setMinimumHeight(kThumbnailPixels + 24);
    connect(m_list, &QWidget::customContextMenuRequested, this, &PhotoGrid::showMenu);
    layout->addWidget(m_list);

    m_progress = new QProgressBar(this);
    m_progress->setObjectName("PhotoProgress");
    m_progress->hide();
    layout->addWidget(m_progress);

    m_message = new QLabel(this);
    m_message->setObjectName("PhotoMessage");
    m_message->setWordWrap(true);
    m_message->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_message->hide();
    layout->addWidget(m_message);
    showNobody();
}

PhotoGrid::~PhotoGrid() = default;

void PhotoGrid::attach(KinbookSession& session) {
    m_session = &session;
    if (m_person) {
        reload();
    }
}

void PhotoGrid::showNobody() {
    m_person.reset();
    m_key = {};
    m_cardIDs.clear();
    clearShown();
}

void PhotoGrid::clearShown() {
    ++m_generation;
    m_list->clear();
    m_thumbnailsShown = 0;
    m_jobsTitle->hide();
    m_jobs->hide();
    m_message->hide();
    m_poster.clearPoster();
    m_picker.showSavedSuggestion(std::nullopt);
}

void PhotoGrid::showPerson(const Person& person) {
    const bool same = m_person && m_person->id == person.id && m_person->kinID == person.kinID;
    m_person = person;
    m_key = PersonKey{person.kinID.value_or(""), std::string(person.displayName())};
    m_cardIDs.clear();
    for (std::string_view id : person.memberIDs) {
        m_cardIDs.emplace_back(id);
    }
    if (m_cardIDs.empty()) {
        m_cardIDs.push_back(person.id);
    }
    if (!same) {
        clearShown();
        reload();
    }
}

void PhotoGrid::reload() {
    if (!m_person) {
        return;
    }
    ContactPhotos* store = m_session != nullptr ? m_session->photos() : nullptr;
    m_add->setEnabled(store != nullptr);
    if (store == nullptr) {
        showMessage("Set a sidecar folder to attach photos.");
        return;
    }
    const std::uint64_t generation = ++m_generation;
    store->ask(
        m_session->main(),
        [key = m_key](ContactPhotos& photos) {
            Contents contents;
            if (key.kinID.empty()) {
                return contents; // no KinID, no folder yet
            }
            contents.photos = photos.photos(key);
            contents.poster = photos.poster(key);
            if (contents.poster && contents.poster->isLocal) {
                contents.posterPicture = posterImage(contents.poster->url);
            }
            contents.suggestion = photos.suggestion(key);
            contents.jobs = photos.pastJobs(key);
            return contents;
        },
        [self = QPointer(this), generation](Contents contents) {
            if (self && self->m_generation == generation) {
                self->showContents(generation, std::move(contents));
            }
        });
}

void PhotoGrid::showContents(std::uint64_t generation, Contents contents) {
    QStringList jobs;
    for (const PastJob& job : contents.jobs) {
        if (!job.isEmpty()) {
            jobs << qt(job.summary());
        }
    }
    m_jobs->setText(jobs.join("\n"));
    m_jobsTitle->setVisible(!jobs.isEmpty());
    m_jobs->setVisible(!jobs.isEmpty());

    if (contents.poster && !contents.posterPicture.isNull()) {
        m_poster.setPoster(contents.posterPicture,
                           QPointF(contents.poster->focus.x, contents.poster->focus.y));
    } else {
        m_poster.clearPoster();
    }
    m_picker.showSavedSuggestion(contents.suggestion);

    // Every row at once, with an empty frame; the pictures follow.
    m_list->setUpdatesEnabled(false);
    m_list->clear();
    m_thumbnailsShown = 0;
    QPixmap blank(kThumbnailPixels, kThumbnailPixels);
    blank.fill(palette().color(QPalette::Midlight));
    const QIcon waiting(blank);
    std::vector<std::pair<int, PhotoItem>> local;
    for (const PhotoItem& photo : contents.photos) {
        auto* item = new QListWidgetItem(waiting, QString(), m_list);
        item->setData(kPathRole, qt(photo.url.string()));
        item->setToolTip(photo.isLocal
                             ? qt(photo.url.filename().string())
                             : QString("%1 (still downloading)").arg(qt(photo.url.filename().string())));
        if (photo.isLocal) {
            local.emplace_back(m_list->count() - 1, photo);
        } else {
            item->setFlags(item->flags() & ~Qt::ItemIsEnabled);
        }
    }
    m_list->setUpdatesEnabled(true);
    m_photosTitle->setText(contents.photos.empty() ? QString("Photos")
                                                   : QString("Photos (%1)").arg(contents.photos.size()));
    Q_EMIT photosListed();
    makeThumbnails(generation, std::move(local));
}

void PhotoGrid::makeThumbnails(std::uint64_t generation, std::vector<std::pair<int, PhotoItem>> photos) {
    if (photos.empty()) {
        Q_EMIT thumbnailsDone();
        return;
    }
    auto remaining = std::make_shared<std::size_t>(photos.size());
    const qreal ratio = devicePixelRatioF();
    const int pixels = qRound(kThumbnailPixels * ratio);
    for (std::size_t start = 0; start < photos.size(); start += kThumbnailBatch) {
        const auto first = photos.begin() + static_cast<std::ptrdiff_t>(start);
        const auto last =
            photos.begin() + static_cast<std::ptrdiff_t>(std::min(photos.size(), start + kThumbnailBatch));
        m_session->background().post([self = QPointer(this), &main = m_session->main(),
                                      codec = m_session->sharedPictureCodec(), generation, remaining, pixels,
                                      ratio, batch = std::vector(first, last)] {
            std::vector<std::pair<int, QImage>> made;
            for (const auto& [row, photo] : batch) {
                QImage image = thumbnailOf(*codec, photo.url, pixels);
                image.setDevicePixelRatio(ratio);
                made.emplace_back(row, std::move(image));
            }
            main.post([self, generation, remaining, made = std::move(made)] {
                // Rows stay as they were while the reading they belong to is shown.
                if (!self || self->m_generation != generation) {
                    return;
                }
                for (const auto& [row, image] : made) {
                    if (QListWidgetItem* item = self->m_list->item(row); item != nullptr && !image.isNull()) {
                        item->setIcon(QIcon(QPixmap::fromImage(image)));
                    }
                    ++self->m_thumbnailsShown;
                }
                *remaining -= made.size();
                if (*remaining == 0) {
                    Q_EMIT self->thumbnailsDone();
                }
            });
        });
    }
}

std::filesystem::path PhotoGrid::photoAt(int row) const {
    QListWidgetItem* item = m_list->item(row);
    return item != nullptr ? std::filesystem::path(utf8(item->data(kPathRole).toString()))
                           : std::filesystem::path();
}

QString PhotoGrid::messageText() const {
    return m_message->isHidden() ? QString() : m_message->text();
}

QString PhotoGrid::pastJobsText() const {
    return m_jobs->isHidden() ? QString() : m_jobs->text();
}

void PhotoGrid::showMessage(const QString& text) {
    m_message->setText(text);
    m_message->setVisible(!text.isEmpty());
}

void PhotoGrid::showError(const QString& title, const QString& error) {
    // A picture the codec refused is said as it is; anything else names what
    // failed and why.
    if (error == "That wasn't a picture.") {
        showMessage(error);
    } else {
        showMessage(QString("%1\n%2").arg(title, error));
    }
}

void PhotoGrid::beginWork(const QString& what) {
    ++m_busy;
    m_message->hide();
    m_progress->setRange(0, 0);
    m_progress->setFormat(what);
    m_progress->setTextVisible(true);
    m_progress->show();
}

void PhotoGrid::endWork() {
    if (--m_busy == 0) {
        m_progress->hide();
    }
    Q_EMIT changeFinished();
}

void PhotoGrid::addFiles(const QStringList& files) {
    ContactPhotos* store = m_session != nullptr ? m_session->photos() : nullptr;
    if (!m_person || store == nullptr || files.isEmpty()) {
        return;
    }
    beginWork(files.size() == 1 ? QString("Adding a photo…")
                                : QString("Adding %1 photos…").arg(files.size()));
    std::vector<std::filesystem::path> paths;
    for (const QString& file : files) {
        paths.emplace_back(utf8(file));
    }
    KinbookSession& session = *m_session;
    Executor& main = session.main();
    store->run([&session, &main, self = QPointer(this), personID = m_person->id, key = m_key,
                cardIDs = m_cardIDs, paths = std::move(paths)](ContactPhotos& photos) {
        // `kinID`: the one the person was given for this write, if any.
        auto finish = [&main, self, personID](Result<void, std::string> result, std::string kinID = {}) {
            main.post([self, personID, result = std::move(result), kinID = std::move(kinID)] {
                if (!self) {
                    return;
                }
                self->endWork();
                if (!result) {
                    self->showError("Couldn't Add Photo", qt(result.error()));
                }
                if (!kinID.empty() && self->m_person && self->m_person->id == personID &&
                    self->m_key.kinID.empty()) {
                    // The list hears of the new KinID from the card later.
                    self->m_key.kinID = kinID;
                    self->m_person->kinID = kinID;
                }
                self->reload();
            });
        };
        std::vector<std::vector<std::uint8_t>> pictures;
        for (const auto& path : paths) {
            auto bytes = readPictureFile(path);
            if (!bytes) {
                return finish(failure(fmt::format("couldn't read {}", path.string())));
            }
            pictures.push_back(std::move(*bytes));
        }
        auto writable = keyForWriting(session, key, cardIDs);
        if (!writable) {
            return finish(failure(writable.error()));
        }
        auto added =
            photos.addPhotos(*writable, pictures, [&main, self](std::size_t done, std::size_t total) {
                main.post([self, done, total] {
                    if (self) {
                        self->m_progress->setRange(0, static_cast<int>(total));
                        self->m_progress->setValue(static_cast<int>(done));
                        self->m_progress->setFormat("%v of %m");
                    }
                });
            });
        finish(added ? Result<void, std::string>() : failure(added.error()), writable->kinID);
    });
}

void PhotoGrid::deletePhoto(int row) {
    ContactPhotos* store = m_session != nullptr ? m_session->photos() : nullptr;
    const std::filesystem::path path = photoAt(row);
    if (!m_person || store == nullptr || path.empty()) {
        return;
    }
    beginWork("Deleting…");
    store->ask(
        m_session->main(),
        [key = m_key, path](ContactPhotos& photos) {
            return photos.deletePhoto(key, PhotoItem{path, true});
        },
        [self = QPointer(this)](Result<void, std::string> result) {
            if (self) {
                self->endWork();
                if (!result) {
                    self->showError("Couldn't Delete Photo", qt(result.error()));
                }
                self->reload();
            }
        });
}

void PhotoGrid::useAsContactPhoto(int row) {
    const std::filesystem::path path = photoAt(row);
    if (!m_person || m_session == nullptr || path.empty()) {
        return;
    }
    beginWork("Setting the contact photo…");
    KinbookSession& session = *m_session;
    // The head crop and the save take a few hundred milliseconds.
    session.background().post([&session, self = QPointer(this), cardIDs = m_cardIDs, path] {
        Result<void, std::string> result;
        if (auto bytes = readPictureFile(path)) {
            result = session.setContactPhoto(cardIDs, *bytes);
        } else {
            result = failure(fmt::format("couldn't read {}", path.string()));
        }
        session.main().post([self, result = std::move(result)] {
            if (self) {
                self->endWork();
                if (!result) {
                    self->showError("Couldn't Set Contact Photo", qt(result.error()));
                }
            }
        });
    });
}

void PhotoGrid::useAsPoster(int row) {
    ContactPhotos* store = m_session != nullptr ? m_session->photos() : nullptr;
    const std::filesystem::path path = photoAt(row);
    if (!m_person || store == nullptr || path.empty()) {
        return;
    }
    beginWork("Setting the poster…");
    store->ask(
        m_session->main(),
        [key = m_key, path](ContactPhotos& photos) -> Result<void, std::string> {
            auto bytes = readPictureFile(path);
            if (!bytes) {
                return failure(fmt::format("couldn't read {}", path.string()));
            }
            auto poster = photos.setPoster(key, *bytes, "photo:" + path.filename().string());
            return poster ? Result<void, std::string>() : failure(poster.error());
        },
        [self = QPointer(this)](Result<void, std::string> result) {
            if (self) {
                self->endWork();
                if (!result) {
                    self->showError("Couldn't Set Poster", qt(result.error()));
                }
                self->reload();
            }
        });
}

void PhotoGrid::chooseFiles() {
    const QStringList files = QFileDialog::getOpenFileNames(
        this, "Add Photos", QString(),
        "Pictures (*.jpg *.jpeg *.png *.webp *.heic *.heif *.tif *.tiff);;All files (*)");
    addFiles(files);
}

void PhotoGrid::showMenu(const QPoint& position) {
    QListWidgetItem* item = m_list->itemAt(position);
    if (item == nullptr || !(item->flags() & Qt::ItemIsEnabled)) {
        return;
    }
    const int row = m_list->row(item);
    QMenu menu(this);
    menu.addAction("Use as Contact Photo", this, [this, row] { useAsContactPhoto(row); });
    menu.addAction("Use as Poster", this, [this, row] { useAsPoster(row); });
    menu.addSeparator();
    menu.addAction("Delete Photo", this, [this, row] {
        if (QMessageBox::question(this, "Delete Photo", "Delete this photo from the sidecar folder?") ==
            QMessageBox::Yes) {
            deletePhoto(row);
        }
    });
    menu.exec(m_list->viewport()->mapToGlobal(position));
}

void PhotoGrid::dragEnterEvent(QDragEnterEvent* event) {
    if (m_person && m_session != nullptr && m_session->photos() != nullptr && event->mimeData()->hasUrls()) {
        event->acceptProposedAction();
    }
}

void PhotoGrid::dropEvent(QDropEvent* event) {
    QStringList files;
    for (const QUrl& url : event->mimeData()->urls()) {
        if (url.isLocalFile()) {
            files << url.toLocalFile();
        }
    }
    if (files.isEmpty()) {
        showMessage("That wasn't a picture.");
        return;
    }
    event->acceptProposedAction();
    addFiles(files);
}

} // namespace kinbook
