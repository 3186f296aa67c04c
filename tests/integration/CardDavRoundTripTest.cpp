// Real cards through a real sync: a local vdir, vdirsyncer, a CardDAV server
// (Radicale) on the loopback interface, and a second vdir synced from the
// same server, as a user's laptop and phone would be.
//
// What a round trip through Radicale 3.1 does to a card, as observed here
// (the expectations below pin it down):
//
// - Rejected (400): a card without a UID line, and a 2.1 card whose
//   quoted-printable soft line breaks or base64 block the server's parser
//   cannot read. vdirsyncer reports the error and tries again on every run.
//   Once Kinbook has written such a card (first write adds a UID, a 2.1 card
//   is written as 3.0) the server takes it, except the iPhone cards whose
//   lines end in CR CR LF: the server's parser breaks on their folded photo.
// - A file that is not UTF-8 stops vdirsyncer for the whole collection:
//   nothing at all is uploaded while it is there.
// - Accepted cards are stored re-serialised, never byte for byte: VERSION,
//   PRODID and UID first and every other property sorted by name, stable
//   within a name (groups stay attached to their lines, but "item1." lines no
//   longer sit together); property names upper-cased (X-ABLabel becomes
//   X-ABLABEL); parameters sorted by name, repeated TYPE parameters merged
//   into one comma list, needless quotes dropped; N cut or padded to five
//   components; long lines refolded at 75 octets.
// - One loss of data: the 2.1 NOTE of the XING sample is cut at its first
//   comma.
// - The server stores CRLF, but a card arrives in the other vdir with LF
//   line endings only (vdirsyncer reads the cards out of an XML answer, and
//   XML turns CRLF into LF).
// - The uploading side keeps its own bytes: the server answers the upload
//   with an ETag, so vdirsyncer never fetches the rewritten version back.
//
// So "every line Kinbook did not touch survives the round trip" holds
// between Kinbook's file and the server's previous version of the same
// card: once a card has been through the server, a later edit changes
// exactly the edited line there, and the other device sees only that line
// change.

#include "KinbookKit/AtomicFile.h"
#include "KinbookKit/addressbook/VdirAddressBook.h"
#include "KinbookKit/text/AppLog.h"
#include "KinbookKit/text/KinLog.h"
#include "KinbookKit/vcard/VCard.h"
#include "tests/support/CardDavServer.h"
#include "tests/support/TempFolder.h"
#include "tests/support/Vdirsyncer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace kinbook {
namespace {

namespace fs = std::filesystem;
using testing::CardDavServer;
using testing::HttpReply;
using testing::ProcessOutcome;
using testing::readFile;
using testing::Vdirsyncer;

const fs::path kSamples = fs::path(KINBOOK_TESTDATA_DIR) / "vcard-real";

// File name -> bytes of every card file in a collection folder.
using Files = std::map<std::string, std::string>;

Files filesIn(const fs::path& folder) {
    Files files;
    for (const auto& entry : fs::directory_iterator(folder)) {
        if (entry.is_regular_file() && entry.path().extension() == ".vcf") {
            files[entry.path().filename().string()] = readFile(entry.path());
        }
    }
    return files;
}

std::optional<std::string> uidOf(const std::string& bytes) {
    auto card = VCard::parse(bytes);
    return card ? card->uid() : std::nullopt;
}

// The card in `files` whose UID is `uid`: its file name.
std::optional<std::string> fileWithUid(const Files& files, const std::string& uid) {
    for (const auto& [name, bytes] : files) {
        if (uidOf(bytes) == uid) {
            return name;
        }
    }
    return std::nullopt;
}

std::vector<std::string> physicalLines(std::string_view bytes) {
    std::vector<std::string> lines;
    std::size_t start = 0;
    while (start < bytes.size()) {
        std::size_t end = bytes.find('\n', start);
        if (end == std::string_view::npos) {
            end = bytes.size();
        }
        std::string line(bytes.substr(start, end - start));
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        lines.push_back(std::move(line));
        start = end + 1;
    }
    return lines;
}

// The logical lines of the card, unfolded, without empty ones, sorted: equal
// for two files that differ only in line order, folding and line endings.
std::vector<std::string> sortedLogicalLines(std::string_view bytes) {
    std::vector<std::string> lines;
    for (std::string& line : physicalLines(bytes)) {
        if (!lines.empty() && !line.empty() && (line.front() == ' ' || line.front() == '\t')) {
            lines.back().append(line, 1);
        } else {
            lines.push_back(std::move(line));
        }
    }
    std::erase(lines, std::string());
    std::sort(lines.begin(), lines.end());
    return lines;
}

std::string describe(const ProcessOutcome& outcome) {
    return "exit " + std::to_string(outcome.exitCode) + (outcome.timedOut ? " (timed out)" : "") + ":\n" +
           outcome.output;
}

class CardDavRoundTripTest : public ::testing::Test {
protected:
    void SetUp() override {
        // Setup installs both programs; a missing one is a broken machine,
        // not a reason to skip.
        ASSERT_TRUE(Vdirsyncer::isInstalled())
            << "vdirsyncer is not installed (scripts/setup.sh installs it)";
        ASSERT_FALSE(m_temp.path().empty());
        fs::create_directories(m_temp / "server");
        auto started = CardDavServer::start(m_temp / "server");
        ASSERT_TRUE(started.ok()) << started.error();
        m_server = std::move(started).value();
        auto created = m_server->createAddressBook("contacts");
        ASSERT_TRUE(created.ok()) << created.error();

        for (const char* side : {"laptop", "phone"}) {
            fs::create_directories(m_temp / side / "contacts");
            fs::create_directories(m_temp / (std::string(side) + "-sync"));
        }
        m_laptop = std::make_unique<Vdirsyncer>(m_temp / "laptop-sync", m_temp / "laptop", *m_server);
        m_phone = std::make_unique<Vdirsyncer>(m_temp / "phone-sync", m_temp / "phone", *m_server);
    }

    // discover, then sync; the sync's outcome.
    static ProcessOutcome firstSync(const Vdirsyncer& side) {
        ProcessOutcome discovered = side.discover();
        EXPECT_EQ(discovered.exitCode, 0) << describe(discovered);
        return side.sync();
    }

    void copySample(const std::string& name) const {
        fs::copy_file(kSamples / name, m_laptop->collectionFolder() / name);
    }

    testing::TempFolder m_temp;
    std::unique_ptr<CardDavServer> m_server;
    std::unique_ptr<Vdirsyncer> m_laptop;
    std::unique_ptr<Vdirsyncer> m_phone;
};

enum class Fate {
    rejected,  // the server refuses the upload
    reordered, // same logical lines, in the server's order, folding and line endings
    rewritten, // some lines themselves rewritten
};

// What becomes of a refused card once Kinbook has written it (a UID added,
// 2.1 written as 3.0).
enum class AfterKinbook {
    notWritten, // accepted as it was, or a file with several cards, which Kinbook never writes
    taken,
    refused,
};

struct SampleFate {
    std::string_view file;
    Fate asIs;
    AfterKinbook afterKinbook;
};

// The sample that is not UTF-8 (a fold cuts a two-byte letter in half).
constexpr std::string_view kNotUtf8 = "owncloud-contacts--kcontacts-vcard9.vcf";

constexpr SampleFate kFates[] = {
    {"android-v21--John_Doe_ANDROID.vcf", Fate::rejected,
     AfterKinbook::notWritten}, // six cards in one file: never rewritten
    {"apple-icloud-web--UriPhotoCrop.vcf", Fate::rewritten, AfterKinbook::notWritten},
    {"apple-ios14--IM-iOS.vcf", Fate::rewritten, AfterKinbook::notWritten},
    // CR CR LF line endings, which Kinbook keeps on every line it does not
    // rewrite: the server reads the folded photo as broken lines.
    {"apple-ios5--John_Doe_IPHONE.vcf", Fate::rejected, AfterKinbook::refused},
    {"apple-ios6--v30_ios_613_multiline.vcf", Fate::rejected, AfterKinbook::refused},
    {"apple-labels-via-sabredav--AllAttr.vcf", Fate::rewritten, AfterKinbook::notWritten},
    {"apple-macos-addressbook--John_Doe_MAC_ADDRESS_BOOK.vcf", Fate::rejected, AfterKinbook::taken},
    {"blackberry-v21--John_Doe_BLACK_BERRY.vcf", Fate::rejected, AfterKinbook::taken},
    {"emclient--IM-eMClient.vcf", Fate::reordered, AfterKinbook::notWritten},
    {"evolution--John_Doe_EVOLUTION.vcf", Fate::rewritten, AfterKinbook::notWritten},
    {"evolution-via-sabre--IM-Evolution.vcf", Fate::reordered, AfterKinbook::notWritten},
    {"fullcontact-v4--fullcontact.vcf", Fate::rejected, AfterKinbook::taken},
    {"google-carddav--IM-GoogleContacts.vcf", Fate::rewritten, AfterKinbook::notWritten},
    {"google-gmail-export--John_Doe_GMAIL.vcf", Fate::rejected, AfterKinbook::taken},
    {"google-gmail-export--gmail-single2.vcf", Fate::rejected, AfterKinbook::taken},
    {"nextcloud-download-v4--issue114.vcf", Fate::rewritten, AfterKinbook::notWritten},
    {"nextcloud-sabre--IM-Nextcloud.vcf", Fate::reordered, AfterKinbook::notWritten},
    {"outlook--John_Doe_MS_OUTLOOK.vcf", Fate::rejected, AfterKinbook::taken},
    {"outlook-2007--outlook-2007.vcf", Fate::rejected, AfterKinbook::taken},
    {"thunderbird-addon--thunderbird-MoreFunctionsForAddressBook-extension.vcf", Fate::rejected,
     AfterKinbook::taken},
    {"thunderbird-cardbook-v4--VCard4-DataUriPhoto.vcf", Fate::reordered, AfterKinbook::notWritten},
    {"v21-quoted-printable--kcontacts-vcard10.vcf", Fate::rejected,
     AfterKinbook::notWritten}, // five cards in one file
    {"windows-mobile-6.5--v21_winmo_65.vcf", Fate::rejected, AfterKinbook::taken},
    {"xing-v21--xing.vcf", Fate::rewritten, AfterKinbook::notWritten},
};

std::string_view fateName(Fate fate) {
    switch (fate) {
    case Fate::rejected:
        return "rejected";
    case Fate::reordered:
        return "reordered";
    case Fate::rewritten:
        return "rewritten";
    }
    return "?";
}

// Which sample reached the phone, and in what shape.
Fate fateOf(const std::string& sent, const Files& arrived) {
    std::optional<std::string> uid = uidOf(sent);
    std::optional<std::string> name = uid ? fileWithUid(arrived, *uid) : std::nullopt;
    if (!name) {
        return Fate::rejected;
    }
    const std::string& received = arrived.at(*name);
    EXPECT_NE(received, sent) << "the server kept a card byte for byte: " << *name;
    EXPECT_EQ(received.find('\r'), std::string::npos) << "a CR reached the phone in " << *name;
    return sortedLogicalLines(received) == sortedLogicalLines(sent) ? Fate::reordered : Fate::rewritten;
}

TEST_F(CardDavRoundTripTest, RealSamplesReachTheOtherSideRewrittenOrNotAtAll) {
    for (const auto& entry : fs::directory_iterator(kSamples)) {
        if (entry.path().extension() == ".vcf") {
            copySample(entry.path().filename().string());
        }
    }
    ASSERT_EQ(filesIn(m_laptop->collectionFolder()).size(), std::size(kFates) + 1);

    ProcessOutcome blocked = firstSync(*m_laptop);
    EXPECT_NE(blocked.exitCode, 0);
    EXPECT_NE(blocked.output.find("utf-8"), std::string::npos) << describe(blocked);
    EXPECT_EQ(blocked.output.find("Copying (uploading)"), std::string::npos) << describe(blocked);

    fs::remove(m_laptop->collectionFolder() / kNotUtf8);
    ProcessOutcome uploaded = m_laptop->sync();
    EXPECT_NE(uploaded.exitCode, 0) << "some samples must be refused:\n" << describe(uploaded);
    ProcessOutcome downloaded = firstSync(*m_phone);
    EXPECT_EQ(downloaded.exitCode, 0) << describe(downloaded);

    const Files sent = filesIn(m_laptop->collectionFolder());
    Files arrived = filesIn(m_phone->collectionFolder());
    for (const SampleFate& expected : kFates) {
        SCOPED_TRACE(expected.file);
        EXPECT_EQ(fateName(fateOf(sent.at(std::string(expected.file)), arrived)), fateName(expected.asIs));
    }

    // Kinbook's first write of each refused card: a UID where it had none,
    // 2.1 written as 3.0. Files with several cards are never written.
    int serial = 0;
    for (const SampleFate& sample : kFates) {
        if (sample.afterKinbook == AfterKinbook::notWritten) {
            continue;
        }
        auto card = VCard::parse(sent.at(std::string(sample.file)));
        ASSERT_TRUE(card.ok()) << sample.file;
        card->ensureUid("KINBOOK-ROUND-TRIP-" + std::to_string(++serial));
        ASSERT_TRUE(writeFileAtomically(m_laptop->collectionFolder() / sample.file, card->serialize()));
    }
    uploaded = m_laptop->sync();
    downloaded = m_phone->sync();
    EXPECT_EQ(downloaded.exitCode, 0) << describe(downloaded);

    const Files rewrittenByKinbook = filesIn(m_laptop->collectionFolder());
    arrived = filesIn(m_phone->collectionFolder());
    for (const SampleFate& expected : kFates) {
        SCOPED_TRACE(expected.file);
        bool taken = fateOf(rewrittenByKinbook.at(std::string(expected.file)), arrived) != Fate::rejected;
        bool expectTaken = expected.asIs != Fate::rejected || expected.afterKinbook == AfterKinbook::taken;
        EXPECT_EQ(taken, expectTaken) << describe(uploaded) << m_server->log();
    }
}

TEST_F(CardDavRoundTripTest, AnEditedPhoneNumberIsTheOnlyLineTheOtherSideSeesChange) {
    const std::string name = "apple-labels-via-sabredav--AllAttr.vcf";
    copySample(name);
    ProcessOutcome uploaded = firstSync(*m_laptop);
    ASSERT_EQ(uploaded.exitCode, 0) << describe(uploaded);
    ProcessOutcome downloaded = firstSync(*m_phone);
    ASSERT_EQ(downloaded.exitCode, 0) << describe(downloaded);
    const fs::path laptopFile = m_laptop->collectionFolder() / name;
    const std::string uid = uidOf(readFile(laptopFile)).value_or("");
    const std::optional<std::string> phoneName = fileWithUid(filesIn(m_phone->collectionFolder()), uid);
    ASSERT_TRUE(phoneName.has_value());
    const std::string before = readFile(m_phone->collectionFolder() / *phoneName);

    auto card = VCard::parse(readFile(laptopFile));
    ASSERT_TRUE(card.ok());
    VCardProperty* work = nullptr;
    for (VCardProperty* tel : card->find("TEL")) {
        if (tel->text() == "465" && tel->hasType("WORK")) {
            work = tel;
        }
    }
    ASSERT_NE(work, nullptr);
    work->setText("+1 212 555 0465");
    const std::string written = card->serialize();
    ASSERT_TRUE(writeFileAtomically(laptopFile, written));

    uploaded = m_laptop->sync();
    EXPECT_EQ(uploaded.exitCode, 0) << describe(uploaded);
    EXPECT_NE(uploaded.output.find("Copying (updating)"), std::string::npos) << describe(uploaded);
    downloaded = m_phone->sync();
    EXPECT_EQ(downloaded.exitCode, 0) << describe(downloaded);
    const std::string after = readFile(m_phone->collectionFolder() / *phoneName);

    const std::vector<std::string> linesBefore = physicalLines(before);
    const std::vector<std::string> linesAfter = physicalLines(after);
    ASSERT_EQ(linesAfter.size(), linesBefore.size()) << before << "\n----\n" << after;
    std::vector<std::size_t> changed;
    for (std::size_t i = 0; i < linesBefore.size(); ++i) {
        if (linesBefore[i] != linesAfter[i]) {
            changed.push_back(i);
        }
    }
    ASSERT_EQ(changed.size(), 1u) << before << "\n----\n" << after;
    EXPECT_EQ(linesBefore[changed[0]], "TEL;TYPE=WORK,VOICE:465");
    EXPECT_EQ(linesAfter[changed[0]], "TEL;TYPE=WORK,VOICE:+1 212 555 0465");
    EXPECT_EQ(after.size() - before.size(), linesAfter[changed[0]].size() - linesBefore[changed[0]].size());
    // The server answered the upload with an ETag: the laptop keeps
    // Kinbook's bytes, not the server's rewrite of them.
    EXPECT_EQ(readFile(laptopFile), written);
}

// Kinbook's edit travels to the other side; a change made on the server
// comes back as exactly that card, in the journal and on disk.
TEST_F(CardDavRoundTripTest, KinbooksEditTravelsAndTheServersChangeComesBackAsExactlyThatCard) {
    const std::vector<std::string> names = {
        "emclient--IM-eMClient.vcf", "google-carddav--IM-GoogleContacts.vcf",
        "nextcloud-sabre--IM-Nextcloud.vcf", "evolution--John_Doe_EVOLUTION.vcf", "xing-v21--xing.vcf"};
    for (const std::string& name : names) {
        copySample(name);
    }
    ProcessOutcome uploaded = firstSync(*m_laptop);
    ASSERT_EQ(uploaded.exitCode, 0) << describe(uploaded);
    ProcessOutcome downloaded = firstSync(*m_phone);
    ASSERT_EQ(downloaded.exitCode, 0) << describe(downloaded);

    AppLog appLog(m_temp / "app.log");
    VdirAddressBook::Options options;
    options.root = m_temp / "laptop";
    options.stateFolder = m_temp / "kinbook-state";
    options.log = std::make_shared<KinLog>("store", appLog);
    VdirAddressBook book(options);
    const auto read = book.readAll({});
    ASSERT_TRUE(read.ok());
    ASSERT_EQ(read->snapshot.people.size(), names.size());

    // Kinbook changes one person's job title; vdirsyncer carries it over.
    const std::string editedUID = uidOf(readFile(m_laptop->collectionFolder() / names[0])).value_or("");
    const std::string before = readFile(m_laptop->collectionFolder() / names[0]);
    auto draft = book.draft(editedUID);
    ASSERT_TRUE(draft.ok()) << draft.error().description();
    draft->jobTitle = "Head of Synchronisation";
    const auto saved = book.save(*draft);
    ASSERT_TRUE(saved.ok()) << saved.error().description();
    const std::string written = readFile(m_laptop->collectionFolder() / names[0]);
    const auto beforeLines = physicalLines(before);
    const auto writtenLines = physicalLines(written);
    std::size_t kept = 0;
    for (const auto& line : beforeLines) {
        kept += std::count(writtenLines.begin(), writtenLines.end(), line) > 0 ? 1 : 0;
    }
    EXPECT_GE(kept + 2, beforeLines.size()) << "only the title (and a REV) may change:\n" << written;

    uploaded = m_laptop->sync();
    EXPECT_EQ(uploaded.exitCode, 0) << describe(uploaded);
    downloaded = m_phone->sync();
    EXPECT_EQ(downloaded.exitCode, 0) << describe(downloaded);
    const auto phoneFile = fileWithUid(filesIn(m_phone->collectionFolder()), editedUID);
    ASSERT_TRUE(phoneFile.has_value());
    auto arrived = VCard::parse(readFile(m_phone->collectionFolder() / *phoneFile));
    ASSERT_TRUE(arrived.ok());
    ASSERT_NE(arrived->first("TITLE"), nullptr);
    EXPECT_EQ(arrived->first("TITLE")->text(), "Head of Synchronisation");

    // Kinbook's own write is in its journal; from here on only the server's
    // change may show.
    const auto settled = book.changesSince(*read->snapshot.historyToken);
    ASSERT_TRUE(settled.ok());
    ASSERT_TRUE(settled->token.has_value());

    const Files synced = filesIn(m_laptop->collectionFolder());
    // The server answered the upload with an ETag: the laptop keeps Kinbook's bytes.
    EXPECT_EQ(synced.at(names[0]), written);

    // Another device renames someone else, straight on the server.
    const std::string otherUID = uidOf(readFile(m_laptop->collectionFolder() / names[1])).value_or("");
    const std::string href = CardDavServer::collectionPath("contacts") + otherUID + ".vcf";
    HttpReply current = m_server->request("GET", href);
    ASSERT_EQ(current.status, 200) << href << "\n" << current.headers;
    auto remote = VCard::parse(current.body);
    ASSERT_TRUE(remote.ok());
    ASSERT_NE(remote->first("FN"), nullptr);
    remote->first("FN")->setText("Renamed Elsewhere");
    HttpReply put = m_server->request("PUT", href, remote->serialize(), "text/vcard; charset=utf-8");
    ASSERT_TRUE(put.status == 201 || put.status == 204) << put.headers << m_server->log();
    downloaded = m_laptop->sync();
    EXPECT_EQ(downloaded.exitCode, 0) << describe(downloaded);

    const auto changes = book.changesSince(*settled->token);
    ASSERT_TRUE(changes.ok());
    EXPECT_FALSE(changes->startOver);
    ASSERT_EQ(changes->changed.size(), 1u);
    EXPECT_EQ(changes->changed[0].id, otherUID);
    EXPECT_TRUE(changes->deleted.empty());
    // On disk too, only that file changed.
    const Files after = filesIn(m_laptop->collectionFolder());
    ASSERT_EQ(after.size(), synced.size());
    for (const auto& [name, bytes] : synced) {
        SCOPED_TRACE(name);
        ASSERT_EQ(after.count(name), 1u);
        if (name != names[1]) {
            EXPECT_EQ(after.at(name), bytes);
            continue;
        }
        auto renamed = VCard::parse(after.at(name));
        ASSERT_TRUE(renamed.ok());
        ASSERT_NE(renamed->first("FN"), nullptr);
        EXPECT_EQ(renamed->first("FN")->text(), "Renamed Elsewhere");
        EXPECT_EQ(renamed->uid(), otherUID);
    }
}

} // namespace
} // namespace kinbook
