#include "KinbookKit/people/PeopleMerge.h"

#include "KinbookKit/SecureRandom.h"
#include "KinbookKit/addressbook/ContactsAppScript.h"
#include "KinbookKit/people/PeopleList.h"
#include "KinbookKit/records/ExLabel.h"
#include "KinbookKit/text/Ascii.h"
#include "KinbookKit/text/Fold.h"

#include <fmt/core.h>

#include <algorithm>

namespace kinbook {
namespace {

Result<MergeResult, MergeFailure> stepFailed(std::string_view step, AddressBookError error) {
    return failure(MergeFailure{StepError{std::string(step), std::move(error)}});
}

std::string digitsOf(std::string_view text) {
    std::string digits;
    for (const char c : text) {
        if (isAsciiDigit(c)) {
            digits.push_back(c);
        }
    }
    return digits.size() > 10 ? digits.substr(digits.size() - 10) : digits;
}

std::string valueKey(const ContactDraft::Field& field) {
    auto digits = digitsOf(field.value);
    return digits.size() >= 7 ? digits : fold(trimAsciiSpace(field.value));
}

std::string valueKey(const ContactDraft::Address& address) {
    return fold(address.street) + '\n' + fold(address.city) + '\n' + fold(address.state) + '\n' +
           fold(address.postalCode) + '\n' + fold(address.country);
}

std::string valueKey(const LinkedAccount& link) {
    return std::to_string(static_cast<int>(link.service)) + ':' + fold(link.handle);
}

void markNew(ContactDraft::Field& field) {
    field.id = makeUUID();
    field.isNew = true;
}
void markNew(ContactDraft::Address& address) {
    address.id = makeUUID();
    address.isNew = true;
}
void markNew(LinkedAccount& link) {
    link.id = makeUUID();
    link.isNew = true;
}

// The result's entries as this card holds them. An entry the card already has
// (by identity, or by the same value) is the card's own, so that its line is
// left as it is; only a label the user marked former is taken over. The rest
// are new to this card.
template <typename Entry>
std::vector<Entry> entriesFor(const std::vector<Entry>& own, const std::vector<Entry>& chosen) {
    std::vector<bool> used(own.size(), false);
    std::vector<Entry> entries;
    for (const auto& entry : chosen) {
        std::optional<std::size_t> match;
        for (std::size_t i = 0; i < own.size() && !match; ++i) {
            if (!used[i] && !own[i].isNew && own[i].id == entry.id) {
                match = i;
            }
        }
        if (match) {
            // The same entry: the user may have relabelled it on the sheet.
            used[*match] = true;
            auto same = entry;
            same.isNew = false;
            entries.push_back(std::move(same));
            continue;
        }
        const auto key = valueKey(entry);
        for (std::size_t i = 0; i < own.size() && !match; ++i) {
            if (!used[i] && valueKey(own[i]) == key) {
                match = i;
            }
        }
        if (match) {
            used[*match] = true;
            auto same = own[*match];
            if constexpr (!std::is_same_v<Entry, LinkedAccount>) {
                if (ExLabel::isFormer(entry.label) && !ExLabel::isFormer(same.label)) {
                    same.label = entry.label;
                }
            }
            entries.push_back(std::move(same));
            continue;
        }
        auto added = entry;
        markNew(added);
        entries.push_back(std::move(added));
    }
    return entries;
}

std::optional<KinID::Anchor> anchorOf(const ContactDraft& draft) {
    if (!draft.anchorURL) {
        return std::nullopt;
    }
    return KinID::Anchor::read(std::span<const std::string>(&*draft.anchorURL, 1));
}

} // namespace

std::string MergeError::description() const {
    switch (error) {
    case Case::lastAccount:
        return "A contact has to stay in at least one account. To remove it everywhere, delete it.";
    case Case::notFound:
        break;
    }
    return "That contact no longer exists.";
}

std::string MergeFailure::description() const {
    return std::visit([](const auto& underlying) { return underlying.description(); }, error);
}

ContactDraft applyMergeResult(const ContactDraft& card, const ContactDraft& result) {
    ContactDraft applied = card;
    applied.namePrefix = result.namePrefix;
    applied.givenName = result.givenName;
    applied.middleName = result.middleName;
    applied.familyName = result.familyName;
    applied.nameSuffix = result.nameSuffix;
    applied.nickname = result.nickname;
    applied.organization = result.organization;
    applied.department = result.department;
    applied.jobTitle = result.jobTitle;
    applied.phones = entriesFor(card.phones, result.phones);
    applied.emails = entriesFor(card.emails, result.emails);
    applied.addresses = entriesFor(card.addresses, result.addresses);
    applied.links = entriesFor(card.links, result.links);
    return applied;
}

Result<MergeResult, MergeFailure> runMerge(AddressBook& book, std::span<const Duplicates::MergeCard> cards,
                                           const MergeChoices& choices, const KinLog& log,
                                           const ScriptRunner& runScript) {
    if (cards.empty()) {
        return failure(MergeFailure{MergeError::notFound()});
    }
    const auto plan = Duplicates::mergePlan(cards);
    const auto script = [&](const SaveOutcome& outcome) {
        return runScript ? runScript(outcome) : book.writeThroughContactsApp(outcome);
    };

    // Everything the later steps need is read first: once a card is deleted
    // its picture and KinID are gone.
    std::map<std::string, ContactDraft> drafts;
    for (const auto& card : cards) {
        auto draft = book.draft(card.id);
        if (!draft.ok()) {
            if (draft.error().code == AddressBookError::Code::notFound) {
                return failure(MergeFailure{MergeError::notFound()});
            }
            return stepFailed(MergeStep::read, draft.error());
        }
        drafts.emplace(card.id, std::move(draft).value());
    }
    std::vector<std::vector<std::uint8_t>> pictures;
    std::optional<std::vector<std::uint8_t>> contactPhoto;
    if (choices.keepPhotos || choices.photoCardID) {
        for (const auto& card : cards) {
            auto image = book.image(card.id);
            if (!image.ok()) {
                return stepFailed(MergeStep::read, image.error());
            }
            if (*image) {
                if (choices.photoCardID == card.id) {
                    contactPhoto = **image;
                }
                pictures.push_back(std::move(**image));
            }
        }
    }

    // The shared KinID: the primary card's, else the first other card's, so
    // that links to the person stay valid; else a new one.
    std::string kinID;
    std::vector<std::string> otherKinIDs;
    std::optional<ContactCircle> circle;
    for (const auto& card : cards) {
        const auto anchor = anchorOf(drafts.at(card.id));
        if (!anchor) {
            continue;
        }
        if (!anchor->id.empty()) {
            if (kinID.empty()) {
                kinID = anchor->id;
            } else if (anchor->id != kinID &&
                       std::find(otherKinIDs.begin(), otherKinIDs.end(), anchor->id) == otherKinIDs.end()) {
                otherKinIDs.push_back(anchor->id);
            }
        }
        // The person's circle is the closest any of them was in.
        if (anchor->circle && (!circle || *anchor->circle < *circle)) {
            circle = anchor->circle;
        }
    }
    if (kinID.empty()) {
        kinID = KinID::makeID();
    }

    for (const auto& card : plan.kept) {
        const auto& own = drafts.at(card.id);
        const auto applied = applyMergeResult(own, choices.result);
        if (applied == own) {
            continue; // written by an earlier run of this merge
        }
        auto saved = book.save(applied);
        if (!saved.ok()) {
            return stepFailed(MergeStep::write, saved.error());
        }
        if (saved->kind != SaveOutcome::Kind::saved) {
            // The card carries a note: the store takes the change only through the scripting path.
            if (auto written = script(*saved); !written.ok()) {
                return stepFailed(MergeStep::write, written.error());
            }
        }
    }

    const std::string note(trimAsciiSpace(choices.note));
    for (const auto& card : plan.kept) {
        const auto had = choices.cardNotes.find(card.id);
        const std::string current = had == choices.cardNotes.end() ? std::string() : had->second;
        if (current == note) {
            continue;
        }
        const std::optional<std::string> written = note.empty() ? std::nullopt : std::optional(note);
        auto outcome = script(
            {SaveOutcome::Kind::viaContactsApp, card.id, ContactsAppScript::noteLines(card.id, written)});
        if (!outcome.ok()) {
            return stepFailed(MergeStep::note, outcome.error());
        }
    }

    for (const auto& card : plan.kept) {
        auto linked = book.changeAnchor(card.id, [&](KinID::Anchor& anchor) {
            anchor.id = kinID;
            anchor.circle = circle;
        });
        if (!linked.ok()) {
            return stepFailed(MergeStep::link, linked.error());
        }
    }

    // The photos are kept before any card is deleted, so that a merge that
    // stops here loses no picture and a second run finds them all again.
    std::vector<std::string> keptIDs;
    for (const auto& card : plan.kept) {
        keptIDs.push_back(card.id);
    }
    if (contactPhoto) {
        if (auto set = book.setPhoto(keptIDs, *contactPhoto); !set.ok()) {
            return stepFailed(MergeStep::photos, set.error());
        }
    }
    if (choices.keepPhotos && (!pictures.empty() || !otherKinIDs.empty())) {
        const std::string displayName = choices.result.givenName.empty() || choices.result.familyName.empty()
                                            ? choices.result.givenName + choices.result.familyName
                                            : choices.result.givenName + ' ' + choices.result.familyName;
        if (auto kept = choices.keepPhotos(kinID, displayName, otherKinIDs, pictures); !kept.ok()) {
            return stepFailed(MergeStep::photos, AddressBookError::store(kept.error()));
        }
    }

    std::vector<std::string> removedIDs;
    for (const auto& card : plan.removed) {
        removedIDs.push_back(card.id);
    }
    if (!removedIDs.empty()) {
        if (auto removed = book.remove(removedIDs); !removed.ok()) {
            return stepFailed(MergeStep::remove, removed.error());
        }
    }

    log.info(fmt::format("merged {} cards, kept {}", cards.size(), plan.kept.size()));
    MergeResult result;
    result.id = cards.front().id;
    result.kinID = kinID;
    for (const auto& card : cards.subspan(1)) {
        result.absorbed.push_back(card.id);
    }
    result.kept = std::move(keptIDs);
    result.removed = std::move(removedIDs);
    return result;
}

// --- The people list's part ---------------------------------------------------

std::vector<DuplicateGroup> PeopleList::duplicateGroups() const {
    std::vector<PersonPtr> searched;
    searched.reserve(people().size());
    for (const auto& person : people()) {
        if (!person->hidden && person->detailed) {
            searched.push_back(person);
        }
    }
    return Duplicates::findGroups(std::span<const PersonPtr>(searched));
}

std::vector<Duplicates::MergeCard> PeopleList::mergeOrder(std::string_view primaryID,
                                                          const std::vector<std::string>& selectedIDs) const {
    std::vector<std::string> ordered;
    const auto append = [&](std::string id) {
        if (std::find(ordered.begin(), ordered.end(), id) == ordered.end()) {
            ordered.push_back(std::move(id));
        }
    };
    // A person's id, or one they no longer carry, stands for their first card.
    const auto primary = person(primaryID);
    const bool isCard = primary && (primary->id == primaryID ||
                                    std::find(primary->memberIDs.begin(), primary->memberIDs.end(),
                                              primaryID) != primary->memberIDs.end());
    if (primary && !isCard) {
        append(primary->memberIDs.empty() ? primary->id : std::string(primary->memberIDs.front()));
    } else {
        append(std::string(primaryID));
    }
    for (const auto& id : selectedIDs) {
        const auto found = person(id);
        if (found && !found->memberIDs.empty()) {
            for (const std::string_view member : found->memberIDs) {
                append(std::string(member));
            }
        } else {
            append(found ? found->id : id);
        }
    }
    std::map<std::string_view, const Person*> cards;
    for (const auto& card : raw()) {
        cards.emplace(card->id, card.get());
    }
    std::vector<Duplicates::MergeCard> merged;
    for (const auto& id : ordered) {
        if (const auto found = cards.find(id); found != cards.end()) {
            merged.push_back({id, found->second->accountIDs.strings()});
        }
    }
    return merged;
}

void PeopleList::merge(const std::vector<std::string>& selectedIDs, const std::string& primaryID,
                       MergeChoices choices, std::function<void(Result<MergeResult, MergeFailure>)> done) {
    auto cards = mergeOrder(primaryID, selectedIDs);
    if (cards.empty()) {
        m_context.onMain([done = std::move(done)] { done(failure(MergeFailure{MergeError::notFound()})); });
        return;
    }
    std::vector<std::string> cardIDs;
    for (const auto& card : cards) {
        cardIDs.push_back(card.id);
    }
    std::vector<std::string> absorbed;
    for (const auto& id : selectedIDs) {
        if (id != cards.front().id) {
            absorbed.push_back(id);
        }
    }
    m_context.runOn(
        m_context.background(),
        [book = m_context.book(), runScript = m_context.options().runScript, log = &m_context.log(),
         cards = std::move(cards),
         choices = std::move(choices)] { return runMerge(*book, cards, choices, *log, runScript); },
        [this, cardIDs = std::move(cardIDs), absorbed = std::move(absorbed),
         done = std::move(done)](Result<MergeResult, MergeFailure> merged) mutable {
            // Read every card again, also after a failed step: some may
            // have been written already.
            m_loader.refetch(cardIDs, [this, merged = std::move(merged), absorbed = std::move(absorbed),
                                       done = std::move(done)]() mutable {
                if (merged.ok()) {
                    // A deleted card's id leads to the merged person; the
                    // kept cards show as them through the shared KinID.
                    for (const auto& id : merged->removed) {
                        addAlias(id, merged->id);
                    }
                    auto& retired = merged->absorbed;
                    for (const auto& id : absorbed) {
                        if (std::find(retired.begin(), retired.end(), id) == retired.end()) {
                            retired.push_back(id);
                        }
                    }
                }
                done(std::move(merged));
            });
        });
}

} // namespace kinbook
