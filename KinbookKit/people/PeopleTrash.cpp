#include "KinbookKit/people/PeopleTrash.h"

#include "KinbookKit/addressbook/ContactsAppScript.h"
#include "KinbookKit/people/PeopleLoader.h"
#include "KinbookKit/people/ShownPeople.h"

#include <fmt/core.h>

#include <algorithm>

namespace kinbook {

namespace {

constexpr std::string_view kNoteStep = "put the note back (the Trash copy is kept)";

std::string accountName(const std::vector<Account>& accounts, const std::string& id) {
    for (const auto& account : accounts) {
        if (account.id == id) {
            return account.name;
        }
    }
    return id;
}

} // namespace

struct PeopleTrash::Job {
    std::string personID;
    std::string name;
    // Each card with the account holding it and that account's name.
    std::vector<std::array<std::string, 3>> cards;
};

PeopleTrash::PeopleTrash(PeopleListContext& context, PeopleLoader& loader, ShownPeople& shown)
    : m_context(context), m_loader(loader), m_shown(shown) {}

void PeopleTrash::setTrash(std::shared_ptr<ContactTrash> trash) {
    m_trash = std::move(trash);
    m_items.clear();
    m_context.notify(PeopleChange::trash);
    reloadItems();
}

void PeopleTrash::setShowing(bool showing) {
    if (m_showing != showing) {
        m_showing = showing;
        m_context.notify(PeopleChange::trash);
    }
}

void PeopleTrash::reloadItems(std::function<void()> done) {
    if (!m_trash) {
        if (done) {
            done();
        }
        return;
    }
    m_context.runOn(
        m_context.background(), [trash = m_trash] { return trash->list(); },
        [this, done = std::move(done)](std::vector<TrashItem> items) {
            m_items = std::move(items);
            m_context.notify(PeopleChange::trash);
            if (done) {
                done();
            }
        });
}

void PeopleTrash::trashPeople(std::vector<std::string> personIDs, std::function<void(TrashOutcome)> done) {
    auto outcome = std::make_shared<TrashOutcome>();
    if (!m_trash) {
        // Without a sidecar folder there is nowhere to keep the way back.
        outcome->failed = personIDs.size();
        m_context.log().error("trash failed for one person: there is no sidecar folder for the Trash");
        done(*outcome);
        return;
    }
    auto jobs = std::make_shared<std::vector<Job>>();
    std::set<std::string> pending = m_shown.pendingTrash();
    const auto& raw = m_loader.joined().raw;
    for (const auto& id : personIDs) {
        const auto person = m_loader.person(id);
        if (!person || pending.contains(person->id)) {
            continue; // gone already, or on its way
        }
        Job job{person->id, std::string(person->displayName()), {}};
        const auto members =
            person->memberIDs.empty() ? std::vector<std::string>{person->id} : person->memberIDs.strings();
        for (const auto& cardID : members) {
            std::string accountID;
            for (const auto& card : raw) {
                if (card->id == cardID && !card->accountIDs.empty()) {
                    accountID = std::string(card->accountIDs.front());
                    break;
                }
            }
            if (accountID.empty() && !person->accountIDs.empty()) {
                accountID = std::string(person->accountIDs.front());
            }
            job.cards.push_back({cardID, accountID, accountName(m_loader.accounts(), accountID)});
        }
        pending.insert(job.personID);
        jobs->push_back(std::move(job));
    }
    // Every person of the batch leaves the list now, before the store hears of it.
    m_shown.setPendingTrash(std::move(pending));
    m_progress = {0, jobs->size()};
    m_context.notify(PeopleChange::trash);
    trashNext(jobs, 0, outcome, std::make_shared<std::vector<std::string>>(), std::move(done));
}

void PeopleTrash::trashNext(std::shared_ptr<std::vector<Job>> jobs, std::size_t next,
                            std::shared_ptr<TrashOutcome> outcome,
                            std::shared_ptr<std::vector<std::string>> touched,
                            std::function<void(TrashOutcome)> done) {
    if (next == jobs->size()) {
        m_loader.refetch(*touched, [this, jobs, outcome, done = std::move(done)] {
            auto pending = m_shown.pendingTrash();
            for (const auto& job : *jobs) {
                pending.erase(job.personID);
            }
            m_shown.setPendingTrash(std::move(pending));
            m_progress.reset();
            reloadItems([outcome, done] { done(*outcome); });
        });
        return;
    }
    struct Result1 {
        std::optional<std::string> error; // none: trashed
        bool stopped = false;             // a simulated crash
    };
    const Job& job = (*jobs)[next];
    m_context.runOn(
        m_context.background(),
        [book = m_context.book(), trash = m_trash, readNotes = m_context.options().readNotes,
         clock = &m_context.clock(), log = &m_context.log(), hook = m_faultHook, job]() -> Result1 {
            const auto goOn = [&hook](Step step) { return !hook || hook(step); };
            TrashFile file;
            file.name = job.name;
            file.deletedAt = clock->now();
            std::vector<std::string> cardIDs;
            for (const auto& card : job.cards) {
                cardIDs.push_back(card[0]);
            }
            // Notes travel beside the vCards: where the store locks them
            // they are read the way the Contacts application reads them.
            const auto notes = readNotes ? readNotes(cardIDs) : std::vector<std::string>{};
            for (std::size_t i = 0; i < job.cards.size(); ++i) {
                auto vcard = book->exportVCards(std::span(&cardIDs[i], 1));
                if (!vcard.ok()) {
                    return {"couldn't read the card: " + vcard.error().description()};
                }
                TrashFile::Card card{job.cards[i][1], job.cards[i][2], std::move(vcard.value()),
                                     std::nullopt};
                if (i < notes.size() && !notes[i].empty()) {
                    card.note = notes[i];
                }
                file.cards.push_back(std::move(card));
            }
            auto written = trash->write(file);
            if (!written.ok()) {
                return {written.error()};
            }
            if (!goOn(Step::fileWritten)) {
                return {std::nullopt, true};
            }
            // One card at a time, so that a crash between two leaves the
            // rest in the store and all of them in the file.
            for (const auto& id : cardIDs) {
                if (auto removed = book->remove(std::span(&id, 1)); !removed.ok()) {
                    return {fmt::format("the Trash file \"{}\" is kept, but a card couldn't be deleted: {}",
                                        *written, removed.error().description())};
                }
                if (!goOn(Step::cardDeleted)) {
                    return {std::nullopt, true};
                }
            }
            log->info(fmt::format("trashed {} cards", cardIDs.size()));
            return {};
        },
        [this, jobs, next, outcome, touched, done = std::move(done)](Result1 result) mutable {
            const Job& finished = (*jobs)[next];
            if (result.stopped) {
                return; // a simulated crash: nothing after it runs
            }
            if (result.error) {
                m_context.log().error("trash failed for one person: " + *result.error);
                ++outcome->failed;
            } else {
                ++outcome->trashed;
            }
            for (const auto& card : finished.cards) {
                touched->push_back(card[0]);
            }
            m_progress = {next + 1, jobs->size()};
            m_context.notify(PeopleChange::trash);
            trashNext(std::move(jobs), next + 1, std::move(outcome), std::move(touched), std::move(done));
        });
}

void PeopleTrash::restore(std::string itemID, std::function<void(Result<RestoreOutcome, ActionError>)> done) {
    if (!m_trash) {
        done(failure(ActionError{AddressBookError::store("there is no sidecar folder for the Trash")}));
        return;
    }
    struct Imported {
        Result<TrashFile, std::string> file = failure(std::string());
        RestoreOutcome outcome;
        std::optional<ActionError> error;
        bool stopped = false;
    };
    m_context.runOn(
        m_context.background(),
        [book = m_context.book(), trash = m_trash, log = &m_context.log(), hook = m_faultHook, itemID]() {
            Imported imported;
            imported.file = trash->read(itemID);
            if (!imported.file.ok()) {
                imported.error = ActionError{AddressBookError::store(imported.file.error())};
                return imported;
            }
            const auto accounts = book->accounts();
            for (const auto& card : imported.file->cards) {
                std::optional<std::string> account = card.accountID;
                if (accounts.ok() && std::none_of(accounts->begin(), accounts->end(),
                                                  [&](const Account& a) { return a.id == card.accountID; })) {
                    // The account went away since: the default one takes the card.
                    account.reset();
                    imported.outcome.movedToDefault.push_back(card.accountName);
                }
                auto ids = book->importVCards(card.vcard, account);
                if (!ids.ok() || ids->empty()) {
                    imported.error = ActionError{StepError{
                        "bring the card back into " + card.accountName,
                        ids.ok() ? AddressBookError::store("the card's vCard held no card") : ids.error()}};
                    return imported;
                }
                imported.outcome.cardIDs.push_back(ids->front());
            }
            log->info("restore: imported, mapping");
            imported.stopped = hook && !hook(Step::imported);
            return imported;
        },
        [this, itemID, done = std::move(done)](Imported imported) mutable {
            if (imported.stopped) {
                return;
            }
            if (imported.error) {
                // Cards already imported are read in, so the list shows them.
                m_loader.refetch(imported.outcome.cardIDs, [this, error = *imported.error, done] {
                    m_context.log().error("restore failed: " + error.description());
                    done(failure(error));
                });
                return;
            }
            auto outcome = std::make_shared<RestoreOutcome>(std::move(imported.outcome));
            auto file = std::make_shared<TrashFile>(std::move(imported.file.value()));
            // The KinID travels in the vCards, so the new cards join into one person.
            m_loader.refetch(outcome->cardIDs, [this, itemID, outcome, file, done] {
                m_context.log().info(fmt::format("restore: {} cards mapped", outcome->cardIDs.size()));
                struct NotesBack {
                    std::optional<ActionError> error;
                    bool stopped = false;
                };
                m_context.runOn(
                    m_context.background(),
                    [book = m_context.book(), runScript = m_context.options().runScript, trash = m_trash,
                     hook = m_faultHook, log = &m_context.log(), outcome, file, itemID]() -> NotesBack {
                        for (std::size_t i = 0; i < file->cards.size(); ++i) {
                            if (!file->cards[i].note) {
                                continue;
                            }
                            const auto& id = outcome->cardIDs[i];
                            const SaveOutcome script{SaveOutcome::Kind::viaContactsApp, id,
                                                     ContactsAppScript::noteLines(id, file->cards[i].note)};
                            auto written =
                                runScript ? runScript(script) : book->writeThroughContactsApp(script);
                            if (!written.ok()) {
                                return {ActionError{StepError{std::string(kNoteStep), written.error()}}};
                            }
                        }
                        if (hook && !hook(Step::notesBack)) {
                            return {std::nullopt, true};
                        }
                        if (auto removed = trash->remove(itemID); !removed.ok()) {
                            // The person is back; a leftover entry restores a copy, never loses one.
                            log->error("restore: the trash file stays: " + removed.error());
                        } else {
                            log->info("restore: trash file removed");
                        }
                        return {};
                    },
                    [this, outcome, file, done](NotesBack back) {
                        if (back.stopped) {
                            return;
                        }
                        m_loader.refetch(outcome->cardIDs, [this, outcome, file, back, done] {
                            if (back.error) {
                                m_context.log().error("restore failed: " + back.error->description());
                                done(failure(*back.error));
                                return;
                            }
                            m_context.log().info("restore: refetched");
                            m_context.log().info(fmt::format("restore: {} done", file->name));
                            reloadItems([outcome, done] { done(*outcome); });
                        });
                    });
            });
        });
}

void PeopleTrash::remove(std::string itemID, std::function<void(Result<void, std::string>)> done) {
    if (!m_trash) {
        done(failure(std::string("there is no sidecar folder for the Trash")));
        return;
    }
    m_context.runOn(
        m_context.background(), [trash = m_trash, itemID] { return trash->remove(itemID); },
        [this, done = std::move(done)](Result<void, std::string> result) {
            reloadItems([result, done] { done(result); });
        });
}

void PeopleTrash::emptyTrash(std::function<void(Result<std::size_t, std::string>)> done) {
    if (!m_trash) {
        done(std::size_t{0});
        return;
    }
    // Nothing leaves the address book here: the cards went when trashed.
    struct Emptied {
        std::size_t removed = 0;
        std::optional<std::string> error;
    };
    m_context.runOn(
        m_context.background(),
        [trash = m_trash] {
            auto result = trash->empty();
            return result.ok() ? Emptied{result.value(), std::nullopt} : Emptied{0, result.error()};
        },
        [this, done = std::move(done)](Emptied emptied) {
            reloadItems([emptied, done] {
                if (emptied.error) {
                    done(failure(*emptied.error));
                } else {
                    done(emptied.removed);
                }
            });
        });
}

} // namespace kinbook
