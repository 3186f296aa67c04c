#include "KinbookKit/setup/KinbookSession.h"

#include "KinbookKit/addressbook/NoteGuard.h"
#include "KinbookKit/addressbook/VdirScriptHost.h"
#include "KinbookKit/people/NotDuplicates.h"
#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/people/SnapshotCache.h"
#include "KinbookKit/platform/CommandCloudDownloads.h"
#include "KinbookKit/platform/DlibFaceDetector.h"
#include "KinbookKit/platform/SystemdJournal.h"
#include "KinbookKit/platform/VipsPictureCodec.h"
#include "KinbookKit/platform/VipsPortraitPainter.h"
#include "KinbookKit/sidecar/ContactTrash.h"

#include <fmt/core.h>

#include <mutex>
#include <utility>

namespace kinbook {
namespace {

// The book and the host that plays the Contacts application on it, each
// handed the other: the host goes to the book as its options say, and the
// book to the host once it is made.
std::shared_ptr<VdirAddressBook> openAddressBook(VdirAddressBook::Options options) {
    auto host = std::make_shared<VdirScriptHost>();
    options.scriptHost = host;
    auto book = std::make_shared<VdirAddressBook>(std::move(options));
    host->attach(*book);
    return book;
}

// Everyone's past jobs, for search, as the sidecar store reads them.
class SidecarPastJobs final : public PastJobSource {
public:
    explicit SidecarPastJobs(ContactPhotos& photos) : m_photos(photos) {}
    std::map<std::string, std::vector<PastJob>> allJobs() override { return m_photos.allPastJobs(); }

private:
    ContactPhotos& m_photos;
};

// The sidecar folder's status. Kinbook's own data folder, parent of the
// default sidecar, is made when missing; a folder the user configured is
// taken as it is, so that an unmounted share reads as no sidecar.
Sidecar::Status openSidecar(const Configuration& configuration) {
    if (configuration.sidecar && *configuration.sidecar == configuration.dataFolder / "Sidecar") {
        std::error_code ignored;
        std::filesystem::create_directories(configuration.dataFolder, ignored);
    }
    return Sidecar::openNow(configuration.sidecar);
}

} // namespace

NoteReader KinbookSession::noteReader(std::shared_ptr<VdirAddressBook> book) {
    struct Reader {
        std::shared_ptr<VdirAddressBook> book;
        std::once_flag made;
        std::shared_ptr<VdirScriptHost> host;
        std::unique_ptr<ContactsAppScript> script;
    };
    auto reader = std::make_shared<Reader>();
    reader->book = std::move(book);
    return [reader](const std::vector<std::string>& cardIDs) {
        std::call_once(reader->made, [&] {
            reader->host = std::make_shared<VdirScriptHost>();
            reader->host->attach(*reader->book);
            reader->script = std::make_unique<ContactsAppScript>(reader->host);
        });
        auto notes = reader->script->readNotes(cardIDs);
        return notes.ok() ? std::move(notes.value()) : std::vector<std::string>(cardIDs.size());
    };
}

Result<std::unique_ptr<KinbookSession>, std::string>
KinbookSession::open(Executor& main, Executor& background, Options options) {
    Configuration::Overrides overrides;
    overrides.contacts = options.contacts;
    auto configuration = Configuration::load(Configuration::processEnvironment(), overrides);
    if (!configuration) {
        return failure(configuration.error());
    }
    if (options.warning) {
        for (const auto& warning : configuration->warnings) {
            options.warning(warning);
        }
    }
    std::unique_ptr<KinbookSession> session(
        new KinbookSession(main, background, std::move(options), std::move(configuration).value()));

    if (session->m_options.seedDemoAddressBook) {
        auto seeded = seedDemoAddressBook(session->m_configuration);
        if (!seeded) {
            return failure(fmt::format("couldn't make the demo address book: {}", seeded.error()));
        }
        session->m_seeded = std::move(seeded).value();
    }

    VdirAddressBook::Options bookOptions = session->m_configuration.addressBookOptions();
    bookOptions.imageScaler = session->m_options.imageScaler;
    bookOptions.watcher = session->m_options.watcher;
    if (const auto& tell = session->m_options.noteRecovery) {
        bookOptions.restoredAfterCrash = [tell](std::size_t notes) {
            tell(fmt::format("Restored after a crash: {} held notes put back into their cards.", notes));
        };
        bookOptions.bothNotesKept = [tell](const std::vector<std::string>& cards) {
            tell(fmt::format("{} ({} cards).", NoteGuard::bothKeptMessage, cards.size()));
        };
    }
    if (!session->m_options.openedInBackground) {
        session->opened(openAddressBook(std::move(bookOptions)), openSidecar(session->m_configuration));
        return session;
    }
    // The sidecar may be on a share that answers slowly: it is opened off the
    // main thread with the book.
    background.post([main = &main, self = session.get(), alive = std::weak_ptr<int>(session->m_alive),
                     bookOptions = std::move(bookOptions),
                     configuration = session->m_configuration]() mutable {
        auto book = openAddressBook(std::move(bookOptions));
        auto sidecar = openSidecar(configuration);
        main->post([self, alive, book = std::move(book), sidecar = std::move(sidecar)]() mutable {
            if (alive.lock()) {
                self->opened(std::move(book), std::move(sidecar));
                self->m_options.openedInBackground();
            }
        });
    });
    return session;
}

KinbookSession::KinbookSession(Executor& main, Executor& background, Options options,
                               Configuration configuration)
    : m_main(main), m_background(background), m_options(std::move(options)),
      m_configuration(std::move(configuration)), m_codec(std::make_shared<VipsPictureCodec>()),
      m_faces(std::make_shared<DlibFaceDetector>()),
      m_downloads(std::make_shared<CommandCloudDownloads>(m_configuration.downloadCommand)) {}

KinbookSession::~KinbookSession() {
    // The list first: it stops observing the book it holds and reads the
    // past jobs through the photo store.
    m_list.reset();
    if (m_photos) {
        m_photos->waitUntilIdle();
    }
}

Result<void, std::string> KinbookSession::setContactPhoto(std::span<const std::string> cardIDs,
                                                          std::span<const std::uint8_t> picture) const {
    const auto jpeg = headCrop().crop(picture, HeadCrop::contactPhotoPixels);
    if (!jpeg) {
        return failure(std::string("That wasn't a picture."));
    }
    auto saved = m_addressBook->setPhoto(cardIDs, *jpeg);
    if (!saved) {
        return failure(saved.error().description());
    }
    return {};
}

void KinbookSession::opened(std::shared_ptr<VdirAddressBook> book, Sidecar::Status sidecar) {
    m_addressBook = std::move(book);
    m_sidecar = std::move(sidecar);
    PeopleListOptions listOptions;
    if (m_options.snapshotCache) {
        listOptions.cache = std::make_shared<SnapshotCache>(m_configuration.snapshotFile());
    }
    if (m_sidecar.isReady()) {
        ContactPhotos::Options photoOptions;
        photoOptions.documents = m_sidecar.documents;
        photoOptions.codec = m_codec;
        photoOptions.detector = m_faces;
        photoOptions.downloads = m_downloads;
        m_photos = std::make_unique<ContactPhotos>(m_background, std::move(photoOptions));
        listOptions.pastJobs = std::make_shared<SidecarPastJobs>(*m_photos);
    }
    listOptions.readNotes = noteReader(m_addressBook);
    m_list = std::make_unique<PeopleList>(m_main, m_background, m_addressBook, std::move(listOptions));
    if (m_sidecar.isReady()) {
        // Without a sidecar folder there is no Trash, and nothing is deleted.
        m_list->trash().setTrash(std::make_shared<ContactTrash>(m_sidecar.documents));
    }
}

void KinbookSession::openPlatformLog() {
    installSystemdJournal();
}

Result<std::optional<DemoAddressBookReport>, std::string>
KinbookSession::seedDemoAddressBook(const Configuration& configuration) {
    VipsPortraitPainter painter;
    return seedDemoAddressBookOnFirstRun(configuration, &painter);
}

std::optional<std::filesystem::path> KinbookSession::notDuplicatesFile() const {
    if (!m_sidecar.isReady()) {
        return std::nullopt;
    }
    return m_sidecar.documents / NotDuplicates::fileName;
}

MergePhotoKeeper KinbookSession::mergePhotoKeeper() const {
    ContactPhotos* photos = m_photos.get();
    if (photos == nullptr) {
        return {};
    }
    return [photos](const std::string& kinID, const std::string& displayName,
                    const std::vector<std::string>& absorbed,
                    const std::vector<std::vector<std::uint8_t>>& pictures) -> Result<void, std::string> {
        const PersonKey person{kinID, displayName};
        for (const auto& other : absorbed) {
            if (auto moved = photos->movePhotos({other, displayName}, person); !moved) {
                return failure(moved.error());
            }
        }
        if (!pictures.empty()) {
            if (auto added = photos->addPhotos(person, pictures); !added) {
                return failure(added.error());
            }
        }
        return {};
    };
}

} // namespace kinbook
