#include "KinbookKit/people/PeopleEditing.h"

#include "KinbookKit/people/PeopleLoader.h"
#include "KinbookKit/people/PeopleTrash.h"

#include <algorithm>
#include <memory>
#include <set>

namespace kinbook {
namespace {

constexpr std::string_view kChangedSince =
    "The contact changed elsewhere since, so this can't be undone without losing that change.";

// A card's file as it is now: what a step keeps and later compares with.
Result<std::string, AddressBookError> bytesOf(AddressBook& book, const std::string& cardID) {
    return book.exportVCards(std::span<const std::string>(&cardID, 1));
}

Result<std::vector<std::string>, AddressBookError> bytesOf(AddressBook& book,
                                                           const std::vector<std::string>& cardIDs) {
    std::vector<std::string> all;
    for (const auto& id : cardIDs) {
        auto bytes = bytesOf(book, id);
        if (!bytes.ok()) {
            return failure(bytes.error());
        }
        all.push_back(std::move(bytes.value()));
    }
    return all;
}

// Puts one card of a step back (undoing) or forward again (redoing).
Result<void, AddressBookError> replay(AddressBook& book, UndoStep::Card& card, bool undoing) {
    if (card.before) {
        return undoing ? book.restoreCard(card.id, card.after, *card.before)
                       : book.restoreCard(card.id, *card.before, card.after);
    }
    if (undoing) {
        // The step made this card: undoing it deletes the card, as long as
        // it is still what the step left.
        auto now = bytesOf(book, card.id);
        if (!now.ok()) {
            return failure(now.error());
        }
        if (*now != card.after) {
            return failure(AddressBookError::store(std::string(kChangedSince)));
        }
        return book.remove(std::span<const std::string>(&card.id, 1));
    }
    auto ids = book.importVCards(card.after, card.accountID);
    if (!ids.ok()) {
        return failure(ids.error());
    }
    if (ids->size() != 1) {
        return failure(AddressBookError::store("The contact couldn't be made again."));
    }
    card.id = ids->front();
    auto after = bytesOf(book, card.id);
    if (!after.ok()) {
        return failure(after.error());
    }
    card.after = std::move(after.value());
    return {};
}

} // namespace

// ---------------------------------------------------------------------------
// UndoHistory

void UndoHistory::push(UndoStep step) {
    step.serial = ++m_lastSerial;
    m_done.push_back(std::move(step));
    m_undone.clear();
    while (m_done.size() > limit) {
        m_done.pop_front();
    }
}

void UndoHistory::moveStep(std::deque<UndoStep>& from, std::deque<UndoStep>& to, UndoStep step) {
    std::erase_if(from, [&](const UndoStep& kept) { return kept.serial == step.serial; });
    to.push_back(std::move(step));
    while (to.size() > limit) {
        to.pop_front();
    }
}

void UndoHistory::undid(UndoStep step) {
    moveStep(m_done, m_undone, std::move(step));
}

void UndoHistory::redid(UndoStep step) {
    moveStep(m_undone, m_done, std::move(step));
}

// ---------------------------------------------------------------------------
// PeopleEditing

PeopleEditing::PeopleEditing(PeopleListContext& context, PeopleLoader& loader, PeopleTrash& trash)
    : m_context(context), m_loader(loader), m_trash(trash) {}

void PeopleEditing::changed() {
    if (m_onChange) {
        m_onChange();
    }
}

void PeopleEditing::draft(std::string cardID, std::function<void(Result<ContactDraft, ActionError>)> done) {
    m_context.runOn(
        m_context.background(),
        [book = m_context.book(), cardID = std::move(cardID)]() -> Result<ContactDraft, ActionError> {
            auto read = book->draft(cardID);
            if (!read.ok()) {
                return failure(ActionError{read.error()});
            }
            return std::move(read.value());
        },
        std::move(done));
}

void PeopleEditing::save(ContactDraft draft, std::function<void(Result<SavedContact, ActionError>)> done) {
    if (!draft.id && draft.isEmpty()) {
        m_context.onMain([done = std::move(done)] { done(SavedContact{}); });
        return;
    }
    const bool isNew = !draft.id;
    m_context.runOn(
        m_context.background(),
        [book = m_context.book(), runScript = m_context.options().runScript,
         draft = std::move(draft)]() -> Result<UndoStep::Card, AddressBookError> {
            UndoStep::Card card;
            if (draft.id) {
                auto before = bytesOf(*book, *draft.id);
                if (!before.ok()) {
                    return failure(before.error());
                }
                card.before = std::move(before.value());
            } else {
                card.accountID = draft.accountID ? draft.accountID : book->defaultAccountID();
            }
            auto outcome = book->save(draft);
            if (!outcome.ok()) {
                return failure(outcome.error());
            }
            if (outcome->kind != SaveOutcome::Kind::saved) {
                // The card carries a note where the store locks notes.
                auto written = runScript ? runScript(*outcome) : book->writeThroughContactsApp(*outcome);
                if (!written.ok()) {
                    return failure(written.error());
                }
            }
            card.id = outcome->id;
            auto after = bytesOf(*book, card.id);
            if (!after.ok()) {
                return failure(after.error());
            }
            card.after = std::move(after.value());
            return card;
        },
        [this, isNew, done = std::move(done)](Result<UndoStep::Card, AddressBookError> saved) mutable {
            if (!saved.ok()) {
                done(failure(ActionError{saved.error()}));
                return;
            }
            const std::string id = saved->id;
            if (saved->before != saved->after) {
                m_history.push(
                    {isNew ? "New Contact" : "Edit Contact", {std::move(saved.value())}, {}, {}, 0});
                changed();
            }
            // Only this card is read again: the list and the page show the
            // save at once, without waiting for the store's notice.
            m_loader.refetch({id}, [this, id, done = std::move(done)] {
                done(SavedContact{id, m_loader.groupOf(id).value_or(id)});
            });
        });
}

void PeopleEditing::record(std::string name, std::vector<std::string> cardIDs,
                           std::function<void(std::function<void(ActionResult)>)> change,
                           std::function<void(ActionResult)> done) {
    m_context.runOn(
        m_context.background(), [book = m_context.book(), cardIDs] { return bytesOf(*book, cardIDs); },
        [this, name = std::move(name), cardIDs, change = std::move(change),
         done = std::move(done)](Result<std::vector<std::string>, AddressBookError> before) mutable {
            if (!before.ok()) {
                // Nothing to keep: the change still runs, and says why it fails.
                change(std::move(done));
                return;
            }
            change([this, name = std::move(name), cardIDs, before = std::move(before.value()),
                    alive = m_context.life(), done = std::move(done)](ActionResult result) mutable {
                if (!result.ok() || !alive.lock()) {
                    if (done) {
                        done(std::move(result));
                    }
                    return;
                }
                m_context.runOn(
                    m_context.background(),
                    [book = m_context.book(), cardIDs] { return bytesOf(*book, cardIDs); },
                    [this, name = std::move(name), cardIDs, before = std::move(before),
                     done = std::move(done)](Result<std::vector<std::string>, AddressBookError> after) {
                        if (after.ok()) {
                            UndoStep step{std::move(name), {}, {}, {}, 0};
                            for (std::size_t i = 0; i < cardIDs.size(); ++i) {
                                if (before[i] != after->at(i)) {
                                    step.cards.push_back({cardIDs[i], std::nullopt, before[i], after->at(i)});
                                }
                            }
                            if (!step.cards.empty()) {
                                m_history.push(std::move(step));
                                changed();
                            }
                        }
                        if (done) {
                            done(ActionResult());
                        }
                    });
            });
        });
}

void PeopleEditing::recordTrash(std::vector<std::string> trashItems) {
    if (trashItems.empty()) {
        return;
    }
    m_history.push({"Move to Trash", {}, std::move(trashItems), {}, 0});
    changed();
}

std::optional<std::string> PeopleEditing::undoTitle() const {
    const UndoStep* step = m_history.nextUndo();
    return step ? std::optional<std::string>("Undo " + step->name) : std::nullopt;
}

std::optional<std::string> PeopleEditing::redoTitle() const {
    const UndoStep* step = m_history.nextRedo();
    return step ? std::optional<std::string>("Redo " + step->name) : std::nullopt;
}

void PeopleEditing::undo(std::function<void(ActionResult)> done) {
    travel(true, std::move(done));
}

void PeopleEditing::redo(std::function<void(ActionResult)> done) {
    travel(false, std::move(done));
}

void PeopleEditing::travel(bool undoing, std::function<void(ActionResult)> done) {
    const UndoStep* step = undoing ? m_history.nextUndo() : m_history.nextRedo();
    if (step == nullptr || m_busy) {
        if (done) {
            m_context.onMain([done = std::move(done)] { done(ActionResult()); });
        }
        return;
    }
    m_busy = true;
    if (!step->trashItems.empty() || !step->restoredCards.empty()) {
        runTrashStep(*step, undoing, std::move(done));
    } else {
        runStep(*step, undoing, std::move(done));
    }
}

void PeopleEditing::runStep(UndoStep step, bool undoing, std::function<void(ActionResult)> done) {
    std::vector<std::string> touched;
    for (const auto& card : step.cards) {
        touched.push_back(card.id);
    }
    m_context.runOn(
        m_context.background(),
        [book = m_context.book(), step = std::move(step), undoing]() mutable -> StepResult {
            for (auto& card : step.cards) {
                if (auto replayed = replay(*book, card, undoing); !replayed.ok()) {
                    return failure(ActionError{replayed.error()});
                }
            }
            return std::move(step);
        },
        [this, undoing, touched = std::move(touched), done = std::move(done)](StepResult result) mutable {
            if (result.ok()) {
                for (const auto& card : result->cards) {
                    touched.push_back(card.id); // a card made again has a new id
                }
            }
            finishStep(std::move(result), undoing, std::move(touched), std::move(done));
        });
}

void PeopleEditing::runTrashStep(UndoStep step, bool undoing, std::function<void(ActionResult)> done) {
    if (undoing) {
        // Each entry back from the Trash, one after another.
        auto state = std::make_shared<UndoStep>(std::move(step));
        auto next = std::make_shared<std::function<void(std::size_t)>>();
        // The pending restore holds the walk; the walk holds itself only weakly.
        *next = [this, state, weakNext = std::weak_ptr(next),
                 done = std::move(done)](std::size_t at) mutable {
            if (at == state->trashItems.size()) {
                state->trashItems.clear();
                finishStep(std::move(*state), true, {}, std::move(done));
                return;
            }
            m_trash.restore(state->trashItems[at], [this, state, next = weakNext.lock(), done, at](
                                                       Result<RestoreOutcome, ActionError> restored) mutable {
                if (!restored.ok()) {
                    finishStep(failure(restored.error()), true, {}, std::move(done));
                    return;
                }
                for (auto& id : restored->cardIDs) {
                    state->restoredCards.push_back(std::move(id));
                }
                (*next)(at + 1);
            });
        };
        (*next)(0);
        return;
    }
    std::set<std::string> before;
    for (const auto& item : m_trash.items()) {
        before.insert(item.id);
    }
    std::vector<std::string> people;
    for (const auto& cardID : step.restoredCards) {
        const std::string person = m_loader.groupOf(cardID).value_or(cardID);
        if (std::find(people.begin(), people.end(), person) == people.end()) {
            people.push_back(person);
        }
    }
    m_trash.trashPeople(std::move(people), [this, step = std::move(step), before,
                                            done = std::move(done)](TrashOutcome outcome) mutable {
        step.restoredCards.clear();
        for (const auto& item : m_trash.items()) {
            if (!before.contains(item.id)) {
                step.trashItems.push_back(item.id);
            }
        }
        if (outcome.failed > 0 || step.trashItems.empty()) {
            finishStep(failure(ActionError{
                           AddressBookError::store("The contact couldn't be moved to the Trash again.")}),
                       false, {}, std::move(done));
            return;
        }
        finishStep(std::move(step), false, {}, std::move(done));
    });
}

void PeopleEditing::finishStep(StepResult result, bool undoing, std::vector<std::string> touched,
                               std::function<void(ActionResult)> done) {
    auto finish = [this, result, undoing, done = std::move(done)]() mutable {
        m_busy = false;
        if (result.ok()) {
            if (undoing) {
                m_history.undid(std::move(result.value()));
            } else {
                m_history.redid(std::move(result.value()));
            }
        }
        changed();
        if (done) {
            done(result.ok() ? ActionResult() : ActionResult(failure(result.error())));
        }
    };
    if (touched.empty()) {
        finish();
        return;
    }
    m_loader.refetch(std::move(touched), std::move(finish));
}

} // namespace kinbook
