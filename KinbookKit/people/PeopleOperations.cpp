#include "KinbookKit/people/PeopleOperations.h"

#include "KinbookKit/people/PeopleLoader.h"
#include "KinbookKit/records/ExLabel.h"

namespace kinbook {
namespace {

std::vector<std::string> cardIDsOf(const Person& person) {
    return person.memberIDs.empty() ? std::vector<std::string>{person.id} : person.memberIDs.strings();
}

// The entry with this identity gets the label `relabel` makes of its own.
template <typename Entries>
bool relabelEntry(Entries& entries, const std::string& entryID,
                  const std::function<std::string(std::string_view)>& relabel) {
    for (auto& entry : entries) {
        if (entry.id == entryID) {
            entry.label = relabel(entry.label);
            return true;
        }
    }
    return false;
}

} // namespace

std::string StepError::description() const {
    return "Couldn't " + step + ": " + underlying.description();
}

std::string ActionError::description() const {
    return std::visit([](const auto& underlying) { return underlying.description(); }, error);
}

PeopleOperations::PeopleOperations(PeopleListContext& context, PeopleLoader& loader)
    : m_context(context), m_loader(loader) {}

void PeopleOperations::clearActionError() {
    if (m_actionError) {
        m_actionError.reset();
        m_context.notify(PeopleChange::actionError);
    }
}

void PeopleOperations::failAction(ActionError error, const std::function<void(ActionResult)>& done) {
    m_actionError = error.description();
    m_context.notify(PeopleChange::actionError);
    if (done) {
        done(failure(std::move(error)));
    }
}

void PeopleOperations::finishAction(Result<void, AddressBookError> result, std::vector<std::string> cardIDs,
                                    std::function<void(ActionResult)> done) {
    m_loader.refetch(std::move(cardIDs), [this, result, done = std::move(done)] {
        if (!result.ok()) {
            failAction(ActionError{result.error()}, done);
        } else if (done) {
            done(ActionResult());
        }
    });
}

void PeopleOperations::markFormer(const std::string& cardID, const std::string& entryID,
                                  std::function<void(ActionResult)> done) {
    changeLabel(cardID, entryID, true, std::move(done));
}

void PeopleOperations::markCurrent(const std::string& cardID, const std::string& entryID,
                                   std::function<void(ActionResult)> done) {
    changeLabel(cardID, entryID, false, std::move(done));
}

void PeopleOperations::changeLabel(const std::string& cardID, const std::string& entryID, bool former,
                                   std::function<void(ActionResult)> done) {
    struct Outcome {
        Result<void, AddressBookError> result;
        bool changed = false;
    };
    m_context.runOn(
        m_context.background(),
        [book = m_context.book(), runScript = m_context.options().runScript, cardID, entryID,
         former]() -> Outcome {
            auto draft = book->draft(cardID);
            if (!draft.ok()) {
                return {failure(draft.error())};
            }
            const std::function<std::string(std::string_view)> relabel = [former](std::string_view label) {
                return former ? ExLabel::former(label) : ExLabel::current(label);
            };
            // The entry keeps its value and identity; only its label changes.
            if (!relabelEntry(draft->phones, entryID, relabel) &&
                !relabelEntry(draft->emails, entryID, relabel) &&
                !relabelEntry(draft->addresses, entryID, relabel)) {
                return {failure(AddressBookError::notFound())};
            }
            auto saved = book->save(*draft);
            if (!saved.ok()) {
                return {failure(saved.error())};
            }
            if (saved->kind != SaveOutcome::Kind::saved) {
                // The card carries a note: the change goes through the
                // scripting host, the store's own or the one given.
                return {runScript ? runScript(*saved) : book->writeThroughContactsApp(*saved), true};
            }
            return {Result<void, AddressBookError>(), true};
        },
        [this, cardID, done = std::move(done)](Outcome outcome) mutable {
            if (!outcome.changed) {
                failAction(ActionError{outcome.result.error()}, done);
                return;
            }
            finishAction(std::move(outcome.result), {cardID}, std::move(done));
        });
}

void PeopleOperations::setCircle(std::string_view personID, std::optional<ContactCircle> circle,
                                 std::function<void(ActionResult)> done) {
    const auto found = m_loader.person(personID);
    if (!found) {
        failAction(ActionError{AddressBookError::notFound()}, done);
        return;
    }
    if (auto allowed = checkCircleCapacity(m_loader.joined().circleCounts, circle, found->circle);
        !allowed.ok()) {
        failAction(ActionError{allowed.error()}, done);
        return;
    }
    changeAnchors(
        cardIDsOf(*found), [circle](KinID::Anchor& anchor) { anchor.circle = circle; }, std::move(done));
}

void PeopleOperations::setHidden(std::string_view personID, bool hidden,
                                 std::function<void(ActionResult)> done) {
    const auto found = m_loader.person(personID);
    if (!found) {
        failAction(ActionError{AddressBookError::notFound()}, done);
        return;
    }
    changeAnchors(
        cardIDsOf(*found), [hidden](KinID::Anchor& anchor) { anchor.hidden = hidden; }, std::move(done));
}

void PeopleOperations::changeAnchors(std::vector<std::string> cardIDs,
                                     std::function<void(KinID::Anchor&)> change,
                                     std::function<void(ActionResult)> done) {
    m_context.runOn(
        m_context.background(),
        [book = m_context.book(), cardIDs, change]() -> Result<void, AddressBookError> {
            // Every card of the person carries the setting, so that it syncs
            // with whichever account the user's other devices read.
            for (const auto& id : cardIDs) {
                auto written = book->changeAnchor(id, change);
                if (!written.ok()) {
                    return failure(written.error());
                }
            }
            return {};
        },
        [this, cardIDs, done = std::move(done)](Result<void, AddressBookError> result) mutable {
            // Some cards may have changed before one failed: read them all again.
            finishAction(std::move(result), std::move(cardIDs), std::move(done));
        });
}

} // namespace kinbook
