#pragma once

#include "KinbookKit/Executor.h"
#include "KinbookKit/Result.h"
#include "KinbookKit/addressbook/FolderWatcher.h"
#include "KinbookKit/addressbook/ImageScaler.h"
#include "KinbookKit/addressbook/VdirAddressBook.h"
#include "KinbookKit/people/PastJobSource.h"
#include "KinbookKit/people/PeopleListContext.h"
#include "KinbookKit/people/PeopleMerge.h"
#include "KinbookKit/setup/Configuration.h"
#include "KinbookKit/setup/DemoAddressBook.h"
#include "KinbookKit/sidecar/ContactPhotos.h"
#include "KinbookKit/sidecar/HeadCrop.h"
#include "KinbookKit/sidecar/Sidecar.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kinbook {

class PeopleList;

// The one wiring both faces start through: reads the configuration, opens
// the configured address book with its scripting host, the snapshot cache
// and the sidecar folder (photos, posters, suggestions and the past jobs the
// list searches), and hands back a ready people list over them, loaded by
// the caller when it chooses. Only here (and in tests) are the platform's
// implementations picked: the journal, inotify, libvips, dlib.
//
// The window and the tool differ only in the options they pass. The caller
// supplies the list's two executors and keeps them alive for the session's
// life.
//
// Lives on the main executor: every member is called there.
class KinbookSession {
public:
    struct Options {
        // The address book named on the command line (--contacts), over the
        // configured one.
        std::optional<std::filesystem::path> contacts;
        // Whether the list starts from the snapshot cache and keeps it
        // current; the tool's --no-cache turns it off for one run.
        bool snapshotCache = true;
        // Whether the embedded default's first run writes the demo address
        // book before the book is opened, as the tool does. The window asks
        // the user first and calls seedDemoAddressBook() itself.
        bool seedDemoAddressBook = false;
        // Makes the cards' thumbnails; none: cards have no thumbnails.
        std::shared_ptr<ImageScaler> imageScaler;
        // Follows changes on disk; none: the list hears of none.
        std::shared_ptr<FolderWatcher> watcher;
        // Told each of the configuration's warnings (an unknown key in
        // config.toml) as soon as it is read, before anything else can fail.
        std::function<void(const std::string&)> warning;
        // Told, on a background thread, what became of the notes held at a
        // crash when the address book is first read ("Restored after a
        // crash: …", or that a held note and a newer one were both kept), as
        // a sentence for the user; each face says it once.
        std::function<void(const std::string&)> noteRecovery;
        // When set, the address book is opened on the background executor:
        // opening reads its change journal, a second for a large one, and a
        // window's main thread must stay free meanwhile. The list is then
        // made on the main executor, and this runs there. When empty, open()
        // returns with the book and the list made.
        std::function<void()> openedInBackground;

        // What the window starts with: thumbnails through libvips and changes
        // followed through inotify. Kept in a file of its own, so that the
        // tool, which asks for neither, does not load libvips on every run.
        static Options window();
    };

    // Reads the configuration, seeds the demo address book if asked, and
    // opens the address book (at once, or in the background). Fails with the
    // configuration's message (naming the file and the line), or with
    // "couldn't make the demo address book: …". A missing or unreadable
    // address book is no failure here: the caller asks addressBook()->access()
    // and offers to create it, or says so.
    static Result<std::unique_ptr<KinbookSession>, std::string> open(Executor& main, Executor& background,
                                                                     Options options);

    // Sends every log line to the systemd journal too, where one runs; the
    // app log file gets them either way. Each program calls this once at
    // start. Tests leave it alone, so that their lines stay out of the
    // user's journal.
    static void openPlatformLog();

    // Reads the notes of a book's cards as the Contacts application would,
    // through a scripting host of its own over the book (made on the first
    // read: most runs of the tool read none), as the list's pages show them.
    static NoteReader noteReader(std::shared_ptr<VdirAddressBook> book);

    // Writes the demo address book on the embedded default's first run, with
    // painted portraits; none when there was nothing to do (see
    // seedDemoAddressBookOnFirstRun). Thread-safe, and slow enough for a
    // background thread: it paints three dozen portraits.
    static Result<std::optional<DemoAddressBookReport>, std::string>
    seedDemoAddressBook(const Configuration& configuration);

    ~KinbookSession();
    KinbookSession(const KinbookSession&) = delete;
    KinbookSession& operator=(const KinbookSession&) = delete;

    const Configuration& configuration() const { return m_configuration; }
    // What open() wrote when it seeded the demo address book; none otherwise.
    const std::optional<DemoAddressBookReport>& seeded() const { return m_seeded; }

    // Null until the book is open: only while it opens in the background.
    const std::shared_ptr<VdirAddressBook>& addressBook() const { return m_addressBook; }
    // Whether the sidecar folder is there; noICloud until the book is open.
    const Sidecar::Status& sidecar() const { return m_sidecar; }
    // The photo store over a ready sidecar; null without one ("Turn on
    // iCloud Drive to attach photos." in the product's words).
    ContactPhotos* photos() const { return m_photos.get(); }
    // The head crop over the session's codec and face detector; any thread.
    HeadCrop headCrop() const { return HeadCrop(*m_codec, *m_faces); }
    PictureCodec& pictureCodec() const { return *m_codec; }
    // The same codec, shared, for background work that may outlast the
    // session (the window's thumbnails).
    std::shared_ptr<PictureCodec> sharedPictureCodec() const { return m_codec; }

    // Makes the picture the contact photo of the cards: the square around
    // the face at most 2048 pixels, saved through the address book (which
    // lifts a note and puts it back where the store insists). Blocks for a
    // few hundred milliseconds: call it off the main thread. Fails with
    // "That wasn't a picture." or the address book's message. Thread-safe.
    Result<void, std::string> setContactPhoto(std::span<const std::string> cardIDs,
                                              std::span<const std::uint8_t> picture) const;
    PeopleList* list() const { return m_list.get(); }
    // Where the "Not Duplicates" answers are kept; none without a sidecar.
    std::optional<std::filesystem::path> notDuplicatesFile() const;
    // The sidecar's part of a merge: every card's picture kept among the
    // person's photos, and the merged people's photos brought over. None
    // without a sidecar.
    MergePhotoKeeper mergePhotoKeeper() const;

    Executor& main() const { return m_main; }
    Executor& background() const { return m_background; }

private:
    KinbookSession(Executor& main, Executor& background, Options options, Configuration configuration);

    // Makes the list over the open book: the cache, the past jobs and the
    // sidecar come with it. Runs on the main executor.
    void opened(std::shared_ptr<VdirAddressBook> book, Sidecar::Status sidecar);

    Executor& m_main;
    Executor& m_background;
    Options m_options;
    Configuration m_configuration;
    std::optional<DemoAddressBookReport> m_seeded;
    std::shared_ptr<VdirAddressBook> m_addressBook;
    Sidecar::Status m_sidecar;
    std::shared_ptr<PictureCodec> m_codec;
    std::shared_ptr<FaceDetector> m_faces;
    std::shared_ptr<CloudDownloads> m_downloads;
    std::unique_ptr<ContactPhotos> m_photos;
    // Last, so that it goes first: it observes the book.
    std::unique_ptr<PeopleList> m_list;
    // Ends a background opening that finishes after the session has gone.
    std::shared_ptr<int> m_alive = std::make_shared<int>(0);
};

} // namespace kinbook
