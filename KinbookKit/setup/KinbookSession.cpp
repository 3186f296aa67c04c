#include "KinbookKit/setup/KinbookSession.h"

#include "KinbookKit/addressbook/VdirScriptHost.h"
#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/people/SnapshotCache.h"
#include "KinbookKit/platform/SystemdJournal.h"
#include "KinbookKit/platform/VipsPortraitPainter.h"

#include <fmt/core.h>

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

} // namespace

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
    bookOptions.restoredAfterCrash = session->m_options.restoredAfterCrash;
    if (!session->m_options.openedInBackground) {
        session->opened(openAddressBook(std::move(bookOptions)));
        return session;
    }
    background.post([main = &main, self = session.get(), alive = std::weak_ptr<int>(session->m_alive),
                     bookOptions = std::move(bookOptions)]() mutable {
        auto book = openAddressBook(std::move(bookOptions));
        main->post([self, alive, book = std::move(book)]() mutable {
            if (alive.lock()) {
                self->opened(std::move(book));
                self->m_options.openedInBackground();
            }
        });
    });
    return session;
}

KinbookSession::KinbookSession(Executor& main, Executor& background, Options options,
                               Configuration configuration)
    : m_main(main), m_background(background), m_options(std::move(options)),
      m_configuration(std::move(configuration)) {}

KinbookSession::~KinbookSession() {
    // The list first: it stops observing the book it holds.
    m_list.reset();
}

void KinbookSession::opened(std::shared_ptr<VdirAddressBook> book) {
    m_addressBook = std::move(book);
    PeopleListOptions listOptions;
    if (m_options.snapshotCache) {
        listOptions.cache = std::make_shared<SnapshotCache>(m_configuration.snapshotFile());
    }
    // FIXME: the sidecar folder (m_configuration.sidecar) opens here once
    // Kinbook has a sidecar store: photos, posters, Trash and past jobs, for
    // both faces. Until then only the past jobs are read from it, by the
    // reader the caller gives.
    if (m_configuration.sidecar && m_options.pastJobs) {
        listOptions.pastJobs = m_options.pastJobs(*m_configuration.sidecar);
    }
    m_list = std::make_unique<PeopleList>(m_main, m_background, m_addressBook, std::move(listOptions));
}

void KinbookSession::openPlatformLog() {
    installSystemdJournal();
}

Result<std::optional<DemoAddressBookReport>, std::string>
KinbookSession::seedDemoAddressBook(const Configuration& configuration) {
    VipsPortraitPainter painter;
    return seedDemoAddressBookOnFirstRun(configuration, &painter);
}

} // namespace kinbook
