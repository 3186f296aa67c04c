#include "KinbookKit/people/PeopleAccounts.h"

#include "KinbookKit/SecureRandom.h"
#include "KinbookKit/addressbook/ContactsAppScript.h"
#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/people/PeopleLoader.h"
#include "KinbookKit/people/PeopleTrash.h"
#include "KinbookKit/text/Ascii.h"
#include "KinbookKit/text/Fold.h"

#include <fmt/core.h>

#include <algorithm>

namespace kinbook {
namespace {

// An entry's value as compared across cards: the last ten digits of a
// number, else the folded text, so "+1 212 555 0100" and "(212) 555-0100"
// are one phone.
std::string valueKey(const ContactDraft::Field& field) {
    std::string digits;
    for (const char c : field.value) {
        if (isAsciiDigit(c)) {
            digits.push_back(c);
        }
    }
    if (digits.size() >= 7) {
        return digits.size() > 10 ? digits.substr(digits.size() - 10) : digits;
    }
    return fold(trimAsciiSpace(field.value));
}
std::string valueKey(const ContactDraft::Address& address) {
    return fold(address.street) + '\n' + fold(address.city) + '\n' + fold(address.state) + '\n' +
           fold(address.postalCode) + '\n' + fold(address.country);
}
std::string valueKey(const ContactDraft::Date& date) {
    return fold(date.label) + '\n' + std::to_string(date.date.year.value_or(0)) + '-' +
           std::to_string(date.date.month) + '-' + std::to_string(date.date.day);
}
std::string valueKey(const LinkedAccount& link) {
    return std::to_string(static_cast<int>(link.service)) + ':' + fold(link.handle);
}

template <typename Entry>
Entry freshEntry(Entry entry) {
    entry.id = makeUUID();
    entry.isNew = true;
    return entry;
}

// `own` followed by every entry of `more` whose value it lacks.
template <typename Entry>
void appendMissing(std::vector<Entry>& own, const std::vector<Entry>& more) {
    for (const auto& entry : more) {
        const auto key = valueKey(entry);
        if (std::none_of(own.begin(), own.end(), [&](const Entry& e) { return valueKey(e) == key; })) {
            own.push_back(entry);
        }
    }
}

// The primary's entries, in its order, as the card holds them: an entry of
// the same value keeps the card's identity (so its line is left as it is
// apart from the label), the rest are new.
template <typename Entry>
std::vector<Entry> entriesLike(const std::vector<Entry>& card, const std::vector<Entry>& primary) {
    std::vector<bool> used(card.size(), false);
    std::vector<Entry> entries;
    for (const auto& entry : primary) {
        const auto key = valueKey(entry);
        bool matched = false;
        for (std::size_t i = 0; i < card.size() && !matched; ++i) {
            if (!used[i] && valueKey(card[i]) == key) {
                used[i] = true;
                matched = true;
                auto same = card[i];
                if constexpr (!std::is_same_v<Entry, LinkedAccount>) {
                    same.label = entry.label;
                }
                entries.push_back(std::move(same));
            }
        }
        if (!matched) {
            entries.push_back(freshEntry(entry));
        }
    }
    return entries;
}

// Entries past the card's own came from its other cards: new to this one.
template <typename Entry>
void markTaken(std::vector<Entry>& entries, std::size_t own) {
    for (std::size_t i = own; i < entries.size(); ++i) {
        entries[i] = freshEntry(entries[i]);
    }
}

constexpr std::string ContactDraft::*kNameAndWork[] = {
    &ContactDraft::namePrefix,        &ContactDraft::givenName,         &ContactDraft::middleName,
    &ContactDraft::familyName,        &ContactDraft::nameSuffix,        &ContactDraft::nickname,
    &ContactDraft::organization,      &ContactDraft::department,        &ContactDraft::jobTitle,
    &ContactDraft::phoneticGivenName, &ContactDraft::phoneticFamilyName};

void fillText(std::string& text, const std::string& other) {
    if (trimAsciiSpace(text).empty()) {
        text = other;
    }
}

void takeText(std::string& text, const std::string& primary) {
    if (!trimAsciiSpace(primary).empty()) {
        text = primary;
    }
}

// Everything the blocking steps use, copied off the list for the background.
struct Tools {
    std::shared_ptr<AddressBook> book;
    ScriptRunner runScript;
    NoteReader readNotes;
    const KinLog* log = nullptr;
    PeopleAccounts::FaultHook hook;

    Result<void, AddressBookError> script(const SaveOutcome& outcome) const {
        if (outcome.kind == SaveOutcome::Kind::saved) {
            return {};
        }
        return runScript ? runScript(outcome) : book->writeThroughContactsApp(outcome);
    }
    std::optional<AddressBookError> fault(std::string_view step) const {
        return hook ? hook(step) : std::nullopt;
    }
    // Saves a draft, and when the store answers with a script (the card has a
    // note), runs it.
    Result<std::string, AddressBookError> save(const ContactDraft& draft) const {
        auto saved = book->save(draft);
        if (!saved.ok()) {
            return failure(saved.error());
        }
        if (auto written = script(*saved); !written.ok()) {
            return failure(written.error());
        }
        return saved->id;
    }
    std::vector<std::string> notes(const std::vector<std::string>& cardIDs) const {
        return readNotes ? readNotes(cardIDs) : std::vector<std::string>{};
    }
};

StepError stepError(std::string_view step, AddressBookError error) {
    return StepError{std::string(step), std::move(error)};
}

Result<std::vector<ContactDraft>, AddressBookError> readDrafts(const Tools& tools,
                                                               const PersonCards& person) {
    std::vector<ContactDraft> drafts;
    for (const auto& card : person.cards) {
        auto draft = tools.book->draft(card.cardID);
        if (!draft.ok()) {
            return failure(draft.error());
        }
        drafts.push_back(std::move(draft).value());
    }
    return drafts;
}

std::vector<std::string> cardIDsOf(const PersonCards& person) {
    std::vector<std::string> ids;
    for (const auto& card : person.cards) {
        ids.push_back(card.cardID);
    }
    return ids;
}

// Step "save copy": a new card in the target account with everything the
// person's cards hold. A server that refuses a field gets the card without
// it: first without a birthday that has no year, then without the links.
Result<AddedCopy, StepError> saveCopy(const Tools& tools, const PersonCards& person,
                                      const std::string& accountID) {
    auto drafts = readDrafts(tools, person);
    if (!drafts.ok()) {
        return failure(stepError(AccountStep::saveCopy, drafts.error()));
    }
    auto copy = combinedDraft(*drafts).copyForAccount(accountID);
    // The copy carries the person's KinID from the start, never the primary mark.
    // A person without a KinID yet gets one here, so the copy is written once
    // and "mark primary" gives the primary card the same.
    KinID::Anchor anchor;
    if (const auto& url = drafts->front().anchorURL) {
        if (auto read = KinID::Anchor::read(std::span(&*url, 1)); read && !read->id.empty()) {
            anchor = *read;
        }
    }
    if (anchor.id.empty()) {
        anchor.id = KinID::makeID();
    }
    anchor.primary = false;
    copy.anchorURL = anchor.url();
    if (auto fault = tools.fault(AccountStep::saveCopy)) {
        return failure(stepError(AccountStep::saveCopy, *fault));
    }
    AddedCopy added;
    auto saved = tools.save(copy);
    const auto refusedField = [&] {
        return !saved.ok() && saved.error().code == AddressBookError::Code::store;
    };
    if (refusedField() && copy.birthday && !copy.birthday->year) {
        tools.log->info("addAccount: saving again without the birthday: " + saved.error().description());
        copy.birthday.reset();
        added.leftOut.push_back("birthday without a year");
        saved = tools.save(copy);
    }
    if (refusedField() && !copy.links.empty()) {
        tools.log->info("addAccount: saving again without the links: " + saved.error().description());
        copy.links.clear();
        added.leftOut.push_back("social and messaging links");
        saved = tools.save(copy);
    }
    if (!saved.ok()) {
        return failure(stepError(AccountStep::saveCopy, saved.error()));
    }
    added.cardID = *saved;
    added.anchorURL = copy.anchorURL;
    tools.log->info("addAccount: card saved");
    return added;
}

// Steps "mark primary", "copy photo" and "copy note" for a saved copy.
Result<void, StepError> finishCopy(const Tools& tools, const PersonCards& person,
                                   const std::string& newCardID,
                                   const std::optional<std::string>& copiedAnchor) {
    if (auto fault = tools.fault(AccountStep::markPrimary)) {
        return failure(stepError(AccountStep::markPrimary, *fault));
    }
    // A card already marked is left as it is, byte for byte.
    const auto& primaryID = person.cards.front().cardID;
    auto primaryDraft = tools.book->draft(primaryID);
    if (!primaryDraft.ok()) {
        return failure(stepError(AccountStep::markPrimary, primaryDraft.error()));
    }
    std::optional<KinID::Anchor> primary;
    if (const auto& url = primaryDraft->anchorURL) {
        primary = KinID::Anchor::read(std::span(&*url, 1));
    }
    const bool hadKinID = primary && !primary->id.empty();
    if (!hadKinID || !primary->primary) {
        std::optional<KinID::Anchor> copied;
        if (copiedAnchor) {
            copied = KinID::Anchor::read(std::span(&*copiedAnchor, 1));
        }
        auto marked = tools.book->changeAnchor(primaryID, [&](KinID::Anchor& anchor) {
            if (!hadKinID && copied && !copied->id.empty()) {
                anchor.id = copied->id; // the KinID the copy already carries
            } else if (anchor.id.empty()) {
                anchor.id = KinID::makeID();
            }
            anchor.primary = true;
        });
        if (!marked.ok()) {
            return failure(stepError(AccountStep::markPrimary, marked.error()));
        }
        primary = *marked;
    }
    auto expected = *primary;
    expected.primary = false;
    if (!copiedAnchor || expected.url() != *copiedAnchor) {
        auto linked = tools.book->changeAnchor(newCardID, [&](KinID::Anchor& anchor) {
            anchor.id = expected.id;
            anchor.hidden = expected.hidden;
            anchor.circle = expected.circle;
            anchor.primary = false;
        });
        if (!linked.ok()) {
            return failure(stepError(AccountStep::markPrimary, linked.error()));
        }
    }
    tools.log->info("addAccount: primary marked");

    if (auto fault = tools.fault(AccountStep::copyPhoto)) {
        return failure(stepError(AccountStep::copyPhoto, *fault));
    }
    // The primary card's photo, else the first other card's.
    for (const auto& card : person.cards) {
        auto photo = tools.book->image(card.cardID);
        if (!photo.ok()) {
            return failure(stepError(AccountStep::copyPhoto, photo.error()));
        }
        if (!*photo) {
            continue;
        }
        if (auto copied = tools.book->copyPhoto(card.cardID, newCardID); !copied.ok()) {
            return failure(stepError(AccountStep::copyPhoto, copied.error()));
        }
        break;
    }
    tools.log->info("addAccount: image copied");

    if (auto fault = tools.fault(AccountStep::copyNote)) {
        return failure(stepError(AccountStep::copyNote, *fault));
    }
    const auto note = combinedNote(tools.notes(cardIDsOf(person)));
    if (!note.empty()) {
        const SaveOutcome outcome{SaveOutcome::Kind::viaContactsApp, newCardID,
                                  ContactsAppScript::noteLines(newCardID, note)};
        if (auto written = tools.script(outcome); !written.ok()) {
            return failure(stepError(AccountStep::copyNote, written.error()));
        }
    }
    tools.log->info("addAccount: done");
    return {};
}

// A person who already has a card in the target account: that card takes in
// what the other cards hold and it lacks, the notes included.
Result<void, StepError> completeCard(const Tools& tools, const PersonCards& person, std::size_t target) {
    auto drafts = readDrafts(tools, person);
    if (!drafts.ok()) {
        return failure(stepError(AccountStep::saveCopy, drafts.error()));
    }
    const auto& own = (*drafts)[target];
    // The target card first, so that what it holds keeps its place and identity.
    std::vector<ContactDraft> ordered{own};
    for (std::size_t i = 0; i < drafts->size(); ++i) {
        if (i != target) {
            ordered.push_back((*drafts)[i]);
        }
    }
    ContactDraft completed = combinedDraft(ordered);
    markTaken(completed.phones, own.phones.size());
    markTaken(completed.emails, own.emails.size());
    markTaken(completed.urls, own.urls.size());
    markTaken(completed.addresses, own.addresses.size());
    markTaken(completed.links, own.links.size());
    markTaken(completed.dates, own.dates.size());
    if (completed != own) {
        if (auto saved = tools.save(completed); !saved.ok()) {
            return failure(stepError(AccountStep::saveCopy, saved.error()));
        }
    }
    const auto ids = cardIDsOf(person);
    const auto notes = tools.notes(ids);
    const auto note = combinedNote(notes);
    const std::string current = target < notes.size() ? std::string(trimAsciiSpace(notes[target])) : "";
    if (!note.empty() && note != current) {
        const SaveOutcome outcome{SaveOutcome::Kind::viaContactsApp, ids[target],
                                  ContactsAppScript::noteLines(ids[target], note)};
        if (auto written = tools.script(outcome); !written.ok()) {
            return failure(stepError(AccountStep::copyNote, written.error()));
        }
    }
    return {};
}

// A move's last part: the person's cards outside the target account go to
// the Trash as one entry, then leave the store one at a time.
Result<std::size_t, std::string> trashOthers(const Tools& tools, ContactTrash* trash, const Clock& clock,
                                             const PersonCards& person, const std::string& accountID,
                                             const std::string& keptCardID) {
    std::vector<const AccountCard*> others;
    for (const auto& card : person.cards) {
        if (card.accountID != accountID && card.cardID != keptCardID) {
            others.push_back(&card);
        }
    }
    if (others.empty()) {
        return std::size_t{0};
    }
    if (!trash) {
        return failure(std::string("there is no sidecar folder for the Trash, so the other cards stay"));
    }
    if (auto fault = tools.fault("trash")) {
        return failure(fault->description());
    }
    TrashFile file;
    file.deletedAt = clock.now();
    std::vector<std::string> names;
    std::vector<std::string> ids;
    for (const auto* card : others) {
        if (std::find(names.begin(), names.end(), card->accountName) == names.end()) {
            names.push_back(card->accountName);
        }
        ids.push_back(card->cardID);
    }
    file.name = movedTrashName(person.displayName, names);
    const auto notes = tools.notes(ids);
    for (std::size_t i = 0; i < others.size(); ++i) {
        auto vcard = tools.book->exportVCards(std::span(&ids[i], 1));
        if (!vcard.ok()) {
            return failure("couldn't read the card: " + vcard.error().description());
        }
        TrashFile::Card card{others[i]->accountID, others[i]->accountName, std::move(vcard).value(),
                             std::nullopt};
        if (i < notes.size() && !notes[i].empty()) {
            card.note = notes[i];
        }
        file.cards.push_back(std::move(card));
    }
    auto written = trash->write(file);
    if (!written.ok()) {
        return failure(written.error());
    }
    for (const auto& id : ids) {
        if (auto removed = tools.book->remove(std::span(&id, 1)); !removed.ok()) {
            return failure(fmt::format("the Trash entry \"{}\" is kept, but a card couldn't be deleted: {}",
                                       *written, removed.error().description()));
        }
    }
    tools.log->info(fmt::format("moved one person: kept {}, removed {}", keptCardID, ids.size()));
    return ids.size();
}

} // namespace

std::string AccountError::description() const {
    return std::visit([](const auto& underlying) { return underlying.description(); }, error);
}

std::string bulkLabel(bool copyOnly, std::string_view accountName) {
    return fmt::format("{} to {}", copyOnly ? "Copying" : "Moving",
                       accountName.empty() ? std::string_view("the account") : accountName);
}

std::string movedTrashName(std::string_view displayName, const std::vector<std::string>& accountNames) {
    std::string joined;
    for (const auto& name : accountNames) {
        joined += (joined.empty() ? "" : ", ") + name;
    }
    return fmt::format("{} (from {})", displayName, joined);
}

ContactDraft combinedDraft(const std::vector<ContactDraft>& drafts) {
    if (drafts.empty()) {
        return ContactDraft::empty();
    }
    ContactDraft combined = drafts.front();
    for (const auto& other : drafts) {
        for (const auto text : kNameAndWork) {
            fillText(combined.*text, other.*text);
        }
        appendMissing(combined.phones, other.phones);
        appendMissing(combined.emails, other.emails);
        appendMissing(combined.urls, other.urls);
        appendMissing(combined.addresses, other.addresses);
        appendMissing(combined.links, other.links);
        appendMissing(combined.dates, other.dates);
        if (!combined.birthday) {
            combined.birthday = other.birthday;
        }
    }
    return combined;
}

ContactDraft syncedDraft(const ContactDraft& card, const ContactDraft& primary) {
    ContactDraft synced = card;
    for (const auto text : kNameAndWork) {
        takeText(synced.*text, primary.*text);
    }
    if (!primary.phones.empty()) {
        synced.phones = entriesLike(card.phones, primary.phones);
    }
    if (!primary.emails.empty()) {
        synced.emails = entriesLike(card.emails, primary.emails);
    }
    if (!primary.urls.empty()) {
        synced.urls = entriesLike(card.urls, primary.urls);
    }
    if (!primary.addresses.empty()) {
        synced.addresses = entriesLike(card.addresses, primary.addresses);
    }
    if (!primary.links.empty()) {
        synced.links = entriesLike(card.links, primary.links);
    }
    if (primary.birthday) {
        synced.birthday = primary.birthday;
    }
    if (!primary.dates.empty()) {
        synced.dates = entriesLike(card.dates, primary.dates);
    }
    return synced;
}

std::string combinedNote(const std::vector<std::string>& notes) {
    std::vector<std::string_view> kept;
    for (const auto& note : notes) {
        const auto trimmed = trimAsciiSpace(note);
        if (!trimmed.empty() && std::find(kept.begin(), kept.end(), trimmed) == kept.end()) {
            kept.push_back(trimmed);
        }
    }
    std::string joined;
    for (const auto note : kept) {
        if (!joined.empty()) {
            joined += "\n\n";
        }
        joined += note;
    }
    return joined;
}

// --- The list's part ------------------------------------------------------------

PeopleAccounts::PeopleAccounts(PeopleListContext& context, PeopleLoader& loader, PeopleTrash& trash)
    : m_context(context), m_loader(loader), m_trash(trash) {}

std::string PeopleAccounts::accountName(const std::string& accountID) const {
    for (const auto& account : m_loader.accounts()) {
        if (account.id == accountID) {
            return account.name;
        }
    }
    return {};
}

std::optional<PersonCards> PeopleAccounts::cardsOf(std::string_view personID) const {
    const auto person = m_loader.person(personID);
    if (!person) {
        return std::nullopt;
    }
    std::map<std::string, std::string, std::less<>> cardAccounts;
    if (person->memberIDs.size() < 2) {
        if (!person->accountIDs.empty()) {
            cardAccounts.emplace(person->id, std::string(person->accountIDs.front()));
        }
    } else {
        for (const auto& card : m_loader.joined().raw) {
            if (!card->accountIDs.empty() && std::find(person->memberIDs.begin(), person->memberIDs.end(),
                                                       card->id) != person->memberIDs.end()) {
                cardAccounts.emplace(card->id, std::string(card->accountIDs.front()));
            }
        }
    }
    return cardsOf(personID, cardAccounts);
}

std::optional<PersonCards>
PeopleAccounts::cardsOf(std::string_view personID,
                        const std::map<std::string, std::string, std::less<>>& cardAccounts) const {
    const auto person = m_loader.person(personID);
    if (!person) {
        return std::nullopt;
    }
    PersonCards cards{person->id, std::string(person->displayName()), {}};
    const auto members =
        person->memberIDs.empty() ? std::vector<std::string>{person->id} : person->memberIDs.strings();
    for (const auto& id : members) {
        const auto found = cardAccounts.find(id);
        const std::string account = found != cardAccounts.end()   ? found->second
                                    : !person->accountIDs.empty() ? std::string(person->accountIDs.front())
                                                                  : std::string();
        cards.cards.push_back({id, account, accountName(account)});
    }
    for (auto& card : cards.cards) {
        if (card.accountName.empty()) {
            card.accountName = card.accountID;
        }
    }
    return cards;
}

// One person of a move or copy, or a single add.
struct PeopleAccounts::Batch {
    std::vector<std::string> personIDs;
    std::string accountID;
    bool copyOnly = true;
    bool single = false; // addToAccount: no progress, no Trash
    std::size_t next = 0;
    std::map<std::string, std::string, std::less<>> cardAccounts;
    MoveOutcome outcome;
    std::vector<std::string> touched;
    std::optional<AccountError> lastError;
    std::optional<AddedCopy> lastAdded;
    // Told the batch when it ends; holds no reference to it, so nothing cycles.
    std::function<void(Batch&)> done;
};

void PeopleAccounts::runNext(std::shared_ptr<Batch> batch) {
    if (batch->next == batch->personIDs.size()) {
        // One refresh for the whole batch: the store's notices of its writes
        // were held and make one load, which reads every changed card; else
        // the touched cards are read again.
        auto then = [this, batch] {
            if (!batch->single) {
                m_progress.reset();
                m_context.notify(PeopleChange::accounts);
            }
            if (batch->copyOnly) {
                batch->done(*batch);
            } else {
                // The moved cards' Trash entries show.
                m_trash.reloadItems([batch] { batch->done(*batch); });
            }
        };
        if (batch->single) {
            m_loader.refetch(batch->touched, std::move(then));
        } else if (m_loader.releaseNotices()) {
            m_loader.load(std::move(then));
        } else {
            m_loader.refetch(batch->touched, std::move(then));
        }
        return;
    }
    const auto advance = [this, batch](std::optional<AccountError> error, std::string keptCardID,
                                       std::vector<std::string> leftOut) {
        const auto& personID = batch->personIDs[batch->next];
        const auto person = m_loader.person(personID);
        const std::string name = person ? std::string(person->displayName()) : personID;
        if (error) {
            m_context.log().error(
                (batch->single ? "addAccount: failed: " : "move to account failed for one person: ") +
                error->description());
            batch->outcome.failures.push_back(name + ": " + error->description());
        } else {
            ++batch->outcome.moved;
            if (!batch->copyOnly && !keptCardID.empty() && person) {
                // The ids of the cards that went to the Trash (the person's
                // own among them, maybe) lead to the card that stays.
                for (const std::string_view card : person->memberIDs) {
                    if (card != keptCardID && batch->cardAccounts.contains(card) &&
                        batch->cardAccounts.find(card)->second != batch->accountID) {
                        m_loader.addAlias(std::string(card), keptCardID);
                    }
                }
                if (person->id != keptCardID) {
                    m_loader.addAlias(person->id, keptCardID);
                }
            }
        }
        for (const auto& what : leftOut) {
            batch->outcome.leftOut.push_back(name + ": " + what);
        }
        batch->lastError = std::move(error);
        ++batch->next;
        if (!batch->single) {
            m_progress->done = batch->next;
            m_context.notify(PeopleChange::accounts);
        }
        runNext(batch);
    };

    const auto cards = cardsOf(batch->personIDs[batch->next], batch->cardAccounts);
    if (!cards || cards->cards.empty()) {
        advance(AccountError{MergeError::notFound()}, {}, {});
        return;
    }
    for (const auto& card : cards->cards) {
        batch->touched.push_back(card.cardID);
    }
    Tools tools{m_context.book(), m_context.options().runScript, m_context.options().readNotes,
                &m_context.log(), m_faultHook};
    const auto trash = batch->copyOnly ? std::shared_ptr<ContactTrash>() : m_trash.trash();
    struct Done {
        std::optional<AccountError> error;
        std::string kept;
    };
    const auto finishMove =
        [tools, trash, clock = &m_context.clock(), copyOnly = batch->copyOnly, accountID = batch->accountID](
            const PersonCards& person, const std::string& kept) -> std::optional<AccountError> {
        if (copyOnly) {
            return std::nullopt;
        }
        auto trashed = trashOthers(tools, trash.get(), *clock, person, accountID, kept);
        if (!trashed.ok()) {
            return AccountError{AddressBookError::store(trashed.error())};
        }
        return std::nullopt;
    };

    const auto inTarget = std::find_if(cards->cards.begin(), cards->cards.end(),
                                       [&](const AccountCard& c) { return c.accountID == batch->accountID; });
    if (inTarget != cards->cards.end()) {
        const auto target = static_cast<std::size_t>(inTarget - cards->cards.begin());
        m_context.runOn(
            m_context.background(),
            [tools, person = *cards, target, finishMove]() -> Done {
                const auto& kept = person.cards[target].cardID;
                if (person.cards.size() > 1) {
                    if (auto completed = completeCard(tools, person, target); !completed.ok()) {
                        return {AccountError{completed.error()}, kept};
                    }
                }
                return {finishMove(person, kept), kept};
            },
            [advance](Done result) { advance(std::move(result.error), result.kept, {}); });
        return;
    }

    m_context.runOn(
        m_context.background(),
        [tools, person = *cards, accountID = batch->accountID] { return saveCopy(tools, person, accountID); },
        [this, batch, tools, person = *cards, advance,
         finishMove](Result<AddedCopy, StepError> saved) mutable {
            if (!saved.ok()) {
                advance(AccountError{saved.error()}, {}, {});
                return;
            }
            // The new card resolves to the person at once, before the refresh.
            m_loader.addAlias(saved->cardID, person.personID);
            m_context.log().info("addAccount: mapped");
            batch->touched.push_back(saved->cardID);
            batch->lastAdded = *saved;
            m_context.runOn(
                m_context.background(),
                [tools, person, newCardID = saved->cardID, anchor = saved->anchorURL, finishMove]() -> Done {
                    if (auto finished = finishCopy(tools, person, newCardID, anchor); !finished.ok()) {
                        return {AccountError{finished.error()}, newCardID};
                    }
                    return {finishMove(person, newCardID), newCardID};
                },
                [this, advance, copyOnly = batch->copyOnly, leftOut = saved->leftOut](Done result) mutable {
                    if (!result.error && !copyOnly) {
                        // Once the primary's own card leaves, the new card is the person.
                        m_loader.removeAlias(result.kept);
                    }
                    advance(std::move(result.error), result.kept, std::move(leftOut));
                });
        });
}

void PeopleAccounts::addToAccount(std::string_view personID, const std::string& accountID,
                                  std::function<void(Result<AddedCopy, AccountError>)> done) {
    auto batch = std::make_shared<Batch>();
    batch->personIDs = {std::string(personID)};
    batch->accountID = accountID;
    batch->single = true;
    if (const auto cards = cardsOf(personID)) {
        for (const auto& card : cards->cards) {
            batch->cardAccounts.emplace(card.cardID, card.accountID);
        }
    }
    batch->done = [done = std::move(done)](Batch& finished) {
        if (finished.lastError) {
            done(failure(*finished.lastError));
        } else {
            done(finished.lastAdded.value_or(AddedCopy{}));
        }
    };
    runNext(batch);
}

void PeopleAccounts::moveToAccount(const std::vector<std::string>& personIDs, const std::string& accountID,
                                   bool copyOnly, std::function<void(MoveOutcome)> done) {
    auto batch = std::make_shared<Batch>();
    batch->personIDs = personIDs;
    batch->accountID = accountID;
    batch->copyOnly = copyOnly;
    // Which account holds each card, looked up once for the whole batch.
    for (const auto& card : m_loader.joined().raw) {
        if (!card->accountIDs.empty()) {
            batch->cardAccounts.emplace(card->id, std::string(card->accountIDs.front()));
        }
    }
    batch->done = [done = std::move(done)](Batch& finished) { done(finished.outcome); };
    m_progress = BulkProgress{bulkLabel(copyOnly, accountName(accountID)), 0, personIDs.size()};
    m_loader.holdNotices();
    m_context.notify(PeopleChange::accounts);
    runNext(batch);
}

void PeopleAccounts::removeFromAccount(std::string_view personID, const std::string& accountID,
                                       std::function<void(Result<void, AccountError>)> done) {
    const auto cards = cardsOf(personID);
    std::vector<std::string> removed;
    std::vector<std::string> remaining;
    if (cards) {
        for (const auto& card : cards->cards) {
            (card.accountID == accountID ? removed : remaining).push_back(card.cardID);
        }
    }
    if (!cards || removed.empty()) {
        m_context.onMain([done = std::move(done)] { done(failure(AccountError{MergeError::notFound()})); });
        return;
    }
    if (remaining.empty()) {
        m_context.onMain(
            [done = std::move(done)] { done(failure(AccountError{MergeError::lastAccount()})); });
        return;
    }
    m_context.runOn(
        m_context.background(), [book = m_context.book(), removed] { return book->remove(removed); },
        [this, removed, remaining, personID = cards->personID,
         done = std::move(done)](Result<void, AddressBookError> result) {
            if (result.ok() && std::find(removed.begin(), removed.end(), personID) != removed.end()) {
                // The person's id named the card that left: it leads to the others now.
                m_loader.addAlias(personID, remaining.front());
            }
            auto touched = removed;
            touched.insert(touched.end(), remaining.begin(), remaining.end());
            m_loader.refetch(touched, [result, done] {
                if (result.ok()) {
                    done({});
                } else {
                    done(failure(AccountError{result.error()}));
                }
            });
        });
}

void PeopleAccounts::syncFromPrimary(std::string_view personID,
                                     std::function<void(Result<std::size_t, AccountError>)> done) {
    const auto cards = cardsOf(personID);
    if (!cards) {
        m_context.onMain([done = std::move(done)] { done(failure(AccountError{MergeError::notFound()})); });
        return;
    }
    Tools tools{m_context.book(), m_context.options().runScript, m_context.options().readNotes,
                &m_context.log(), m_faultHook};
    m_context.runOn(
        m_context.background(),
        [tools, person = *cards]() -> Result<std::size_t, AccountError> {
            auto drafts = readDrafts(tools, person);
            if (!drafts.ok()) {
                return failure(AccountError{drafts.error()});
            }
            std::size_t changed = 0;
            for (std::size_t i = 1; i < drafts->size(); ++i) {
                const auto synced = syncedDraft((*drafts)[i], drafts->front());
                if (synced == (*drafts)[i]) {
                    continue;
                }
                auto saved = tools.save(synced);
                if (!saved.ok()) {
                    // A card whose note only the Contacts application may
                    // write takes no phonetic name or dates that way; the
                    // rest of the details still reach it.
                    auto rest = synced;
                    rest.phoneticGivenName = (*drafts)[i].phoneticGivenName;
                    rest.phoneticFamilyName = (*drafts)[i].phoneticFamilyName;
                    rest.dates = (*drafts)[i].dates;
                    if (rest != synced && rest != (*drafts)[i]) {
                        tools.log->info(
                            "sync from primary: saving again without the dates and phonetic name: " +
                            saved.error().description());
                        saved = tools.save(rest);
                    }
                }
                if (!saved.ok()) {
                    return failure(AccountError{saved.error()});
                }
                ++changed;
            }
            tools.log->info(fmt::format("sync from primary: {} cards changed", changed));
            return changed;
        },
        [this, touched = cardIDsOf(*cards),
         done = std::move(done)](Result<std::size_t, AccountError> result) {
            m_loader.refetch(touched, [result, done] { done(result); });
        });
}

} // namespace kinbook
