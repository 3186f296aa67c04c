#include "Kinbook/KinbookApp.h"

#include "Kinbook/ContactPage.h"
#include "Kinbook/EditorCommands.h"
#include "Kinbook/ImportExport.h"
#include "Kinbook/LaunchBenchmarks.h"
#include "Kinbook/MainWindow.h"
#include "Kinbook/PhotoGrid.h"
#include "Kinbook/QtText.h"
#include "Kinbook/SidecarBanner.h"
#include "Kinbook/StoreNotice.h"
#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/text/AppLog.h"

#include <fmt/format.h>

#include <QApplication>
#include <QMessageBox>
#include <QPointer>
#include <QSettings>
#include <QStatusBar>
#include <QTimer>

namespace kinbook {
namespace {

// After the first load and the chosen person's card, the rows' pictures are
// decoded in the background; this is time enough for a screenful of them.
constexpr std::chrono::milliseconds kPicturesSettle{300};
// A screenshot is taken even if the chosen person's card never comes.
constexpr std::chrono::milliseconds kCardWaitLimit{3000};

} // namespace

KinbookApp::KinbookApp(LaunchOptions options) : m_options(std::move(options)) {}

KinbookApp::~KinbookApp() {
    // The benchmarks and the window observe the list, and the watcher probes
    // the GUI thread; all go before the list.
    m_searchBench.reset();
    m_scrollBench.reset();
    m_watcher.reset();
    m_window.reset();
    m_session.reset();
}

bool KinbookApp::start() {
    KinbookSession::Options options = KinbookSession::Options::window();
    options.contacts = m_options.contactsRoot;
    options.warning = [this](const std::string& warning) { m_log.info(warning); };
    // Said once, in the window's status bar, when held notes were put back
    // (or kept beside a newer note) after a crash.
    options.noteRecovery = [self = QPointer(this)](const std::string& notice) {
        QMetaObject::invokeMethod(
            self,
            [self, text = qt(notice)] {
                if (self && self->m_window) {
                    QStatusBar* bar = self->m_window->statusBar();
                    const QString shown = bar->currentMessage();
                    bar->showMessage(shown.isEmpty() ? text : shown + "  " + text);
                }
            },
            Qt::QueuedConnection);
    };
    // Opening the address book reads its change journal, a matter of a
    // second for a large one: it is done off the GUI thread, which stays
    // free, and the window follows as soon as the book is open.
    options.openedInBackground = [self = QPointer(this)] {
        if (self) {
            self->opened();
        }
    };
    auto session = KinbookSession::open(m_main, m_background, std::move(options));
    if (!session) {
        m_log.error("configuration: " + session.error());
        QMessageBox::critical(nullptr, "Vellumary Contacts", qt(session.error()));
        return false;
    }
    m_session = std::move(session).value();
    m_watcher = std::make_unique<MainThreadWatcher>(m_log);
    return true;
}

void KinbookApp::opened() {
    m_list = m_session->list();
    const Configuration& configuration = m_session->configuration();
    const auto settingsFile = configuration.configFile.parent_path() / "vellumary-contacts.ini";
    m_settings = std::make_unique<QSettings>(qt(settingsFile.string()), QSettings::IniFormat);

    m_window = std::make_unique<MainWindow>(*m_list, m_main, m_background, *m_settings, AppLog::shared());
    connect(m_window.get(), &MainWindow::createAddressBookRequested, this, &KinbookApp::createAddressBook);
    connect(m_window.get(), &MainWindow::retryRequested, this, [this] { m_list->load(); });
    // The status was taken with the book, off the GUI thread.
    if (!m_session->sidecar().isReady()) {
        m_window->addToolBar(Qt::TopToolBarArea, new SidecarBanner(qt(configuration.configFile.string())));
    }
    m_window->page()->photoGrid()->attach(*m_session);
    m_window->editorCommands()->setSession(m_session.get());
    m_window->setDuplicatesSupport(m_session->notDuplicatesFile(), m_session->mergePhotoKeeper());
    m_importExport = new ImportExport(*m_window, *m_list, m_session->addressBook(), m_main, m_background);
    m_importExport->addActions(*m_window->fileMenu());
    if (m_options.windowWidth) {
        m_window->resize(*m_options.windowWidth, m_window->height());
    }
    m_window->show();
    Q_EMIT windowShown();

    // A missing address book is not an error on a first run: it is made on
    // request. Anything else is read at once.
    if (m_session->addressBook()->access() == AddressBookAccess::notDetermined) {
        offerToCreate();
    } else {
        load();
    }
}

void KinbookApp::load() {
    m_list->load([self = QPointer(this)] {
        if (self) {
            self->loaded();
        }
    });
}

void KinbookApp::loaded() {
    if (m_loaded) {
        return;
    }
    m_loaded = true;
    // Files the read passed over, or cards sharing a UID: said once, with the check at hand.
    const auto& book = m_session->addressBook();
    if (auto* notice = StoreNotice::make(book->loadReport(), book->root(), m_main, m_background)) {
        m_window->addToolBar(Qt::TopToolBarArea, notice);
    }
    m_background.post([book] { book->removeLeftoverTemporaries(); });
    if (!m_createdNow && m_session->addressBook()->holdsNoCards()) {
        const Configuration& configuration = m_session->configuration();
        m_window->showNoCards(
            QString("There are no cards in %1. Kinbook looked for vCard files (*.vcf) in it, in each folder "
                    "in it and one level deeper. Point it at your address book with --contacts DIR or "
                    "\"contacts\" in %2.")
                .arg(qt(configuration.contacts.string()), qt(configuration.configFile.string())));
    }
    Q_EMIT firstLoadFinished();
    // Opened with .vcf files (from the file manager): offer them once the
    // people are there to tell which cards are new.
    if (!m_options.importFiles.empty()) {
        m_importExport->offerImport(m_options.importFiles);
    }
    afterLaunchSwitches();
}

void KinbookApp::offerToCreate() {
    const Configuration& configuration = m_session->configuration();
    const QString folder = qt(configuration.contacts.string());
    if (configuration.usesEmbeddedDefault()) {
        m_window->showWelcome(
            QString("Vellumary Contacts keeps your address book as vCard files in %1. Create it "
                    "now, with a few example people to show what it can do? Point it at an "
                    "address book you already sync with --contacts DIR or in config.toml.")
                .arg(folder),
            "Create Address Book");
    } else {
        m_window->showWelcome(
            QString("There is no address book at %1 yet. Create an empty one there?").arg(folder),
            "Create Address Book");
    }
    // There is nothing to load, so the launch switches run on what shows.
    QTimer::singleShot(0, this, &KinbookApp::afterLaunchSwitches);
}

void KinbookApp::createAddressBook() {
    m_createdNow = true;
    if (m_session->configuration().usesEmbeddedDefault()) {
        // The demo book paints its portraits and writes its cards off the
        // GUI thread, then the list reads it as on any other start.
        Executor* main = &m_main;
        m_background.post([main, self = QPointer(this), configuration = m_session->configuration()] {
            auto seeded = KinbookSession::seedDemoAddressBook(configuration);
            std::optional<std::string> problem;
            if (!seeded) {
                problem = seeded.error();
            }
            main->post([self, problem] {
                if (!self) {
                    return;
                }
                if (problem) {
                    self->m_log.error("first run: " + *problem);
                    self->m_window->showProblem(qt(*problem));
                    return;
                }
                self->m_log.info("first run: made the embedded address book");
                self->load();
            });
        });
        return;
    }
    m_list->requestAccess([self = QPointer(this)](AddressBookAccess access) {
        if (!self) {
            return;
        }
        if (access == AddressBookAccess::granted || access == AddressBookAccess::limited) {
            self->load();
        } else {
            self->m_window->showProblem(QString("Vellumary Contacts couldn't create an address book at %1.")
                                            .arg(qt(self->m_session->configuration().contacts.string())));
        }
    });
}

void KinbookApp::afterLaunchSwitches() {
    // The switches run one after the other: the selection, the screenshot
    // (of the window as it first shows), the search bench, the scroll bench.
    bool waitForCard = false;
    if (m_options.selectID && m_loaded) {
        if (m_window->selectPerson(*m_options.selectID)) {
            waitForCard = true;
        } else {
            m_log.info(fmt::format("select: nobody shown has the id {}", *m_options.selectID));
        }
    }
    if (!m_options.screenshot) {
        runBenchmarks();
        return;
    }
    if (waitForCard) {
        connect(m_window.get(), &MainWindow::pageCardShown, this,
                [this] { QTimer::singleShot(kPicturesSettle, this, &KinbookApp::takeScreenshot); });
        QTimer::singleShot(kCardWaitLimit, this, &KinbookApp::takeScreenshot);
    } else {
        QTimer::singleShot(kPicturesSettle, this, &KinbookApp::takeScreenshot);
    }
}

void KinbookApp::takeScreenshot() {
    if (m_screenshotTaken) {
        return;
    }
    m_screenshotTaken = true;
    const QPixmap picture = m_window->grab();
    const std::string file = m_options.screenshot->string();
    if (!picture.save(qt(file), "PNG")) {
        m_log.error(fmt::format("screenshot: couldn't write {}", file));
        QApplication::exit(1);
        return;
    }
    m_log.info(fmt::format("screenshot: {}x{} to {}", picture.width(), picture.height(), file));
    runBenchmarks();
}

void KinbookApp::runBenchmarks() {
    if (m_options.searchBench && !m_searchBench) {
        m_searchBench =
            std::make_unique<SearchBench>(*m_window, *m_list, *m_watcher, m_log, [this] { runBenchmarks(); });
        m_searchBench->start();
        return;
    }
    if (m_options.scrollBench && !m_scrollBench) {
        m_scrollBench =
            std::make_unique<ScrollBench>(*m_window, *m_watcher, m_log, [this] { runBenchmarks(); });
        m_scrollBench->start();
        return;
    }
    // A diagnostic launch ends when its work is done.
    if (m_options.screenshot || m_options.searchBench || m_options.scrollBench) {
        m_log.info(fmt::format("main thread: {} stalls, longest {} ms", m_watcher->stallCount(),
                               m_watcher->longestStall().count()));
        QApplication::exit(0);
    }
}

} // namespace kinbook
