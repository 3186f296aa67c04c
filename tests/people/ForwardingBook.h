#pragma once

#include "KinbookKit/addressbook/AddressBook.h"

#include <memory>
#include <utility>

namespace kinbook::testing {

// The real address book behind a test's fault: every call goes through to
// it unless a test's subclass overrides that call to fail, count or refuse.
class ForwardingBook : public AddressBook {
public:
    explicit ForwardingBook(std::shared_ptr<AddressBook> inner)
        : m_owned(std::move(inner)), m_inner(*m_owned) {}
    explicit ForwardingBook(AddressBook& inner) : m_inner(inner) {}

    AddressBookAccess access() override { return m_inner.access(); }
    AddressBookAccess requestAccess() override { return m_inner.requestAccess(); }
    Result<std::vector<Account>, AddressBookError> accounts() override { return m_inner.accounts(); }
    std::optional<std::string> defaultAccountID() override { return m_inner.defaultAccountID(); }
    Result<FullRead, AddressBookError> readAll(const ReadOptions& options) override {
        return m_inner.readAll(options);
    }
    Result<AddressBookChanges, AddressBookError> changesSince(std::span<const std::uint8_t> token) override {
        return m_inner.changesSince(token);
    }
    Result<std::vector<Person>, AddressBookError> readPeople(std::span<const std::string> ids) override {
        return m_inner.readPeople(ids);
    }
    Result<std::vector<std::string>, AddressBookError> allCardIDs() override { return m_inner.allCardIDs(); }
    Result<ContactCard, AddressBookError> card(std::string_view id) override { return m_inner.card(id); }
    Result<ContactDraft, AddressBookError> draft(std::string_view id) override { return m_inner.draft(id); }
    Result<std::vector<CardRef>, AddressBookError> cardsOf(std::string_view id) override {
        return m_inner.cardsOf(id);
    }
    Result<SaveOutcome, AddressBookError> save(const ContactDraft& draft) override {
        return m_inner.save(draft);
    }
    Result<void, AddressBookError> restoreCard(std::string_view id, std::string_view expected,
                                               std::string_view bytes) override {
        return m_inner.restoreCard(id, expected, bytes);
    }
    Result<void, AddressBookError> writeThroughContactsApp(const SaveOutcome& outcome) override {
        return m_inner.writeThroughContactsApp(outcome);
    }
    Result<void, AddressBookError> remove(std::span<const std::string> ids) override {
        return m_inner.remove(ids);
    }
    Result<std::string, AddressBookError> exportVCards(std::span<const std::string> ids) override {
        return m_inner.exportVCards(ids);
    }
    Result<std::vector<std::string>, AddressBookError>
    importVCards(std::string_view vcards, std::optional<std::string> account) override {
        return m_inner.importVCards(vcards, std::move(account));
    }
    Result<KinID::Anchor, AddressBookError>
    changeAnchor(std::string_view id, const std::function<void(KinID::Anchor&)>& change) override {
        return m_inner.changeAnchor(id, change);
    }
    Result<void, AddressBookError> setPhoto(std::span<const std::string> ids,
                                            std::span<const std::uint8_t> jpeg) override {
        return m_inner.setPhoto(ids, jpeg);
    }
    Result<bool, AddressBookError> copyPhoto(std::string_view from, std::string_view to) override {
        return m_inner.copyPhoto(from, to);
    }
    std::map<std::string, std::vector<std::uint8_t>> thumbnails(std::span<const std::string> ids) override {
        return m_inner.thumbnails(ids);
    }
    Result<std::optional<std::vector<std::uint8_t>>, AddressBookError> image(std::string_view id) override {
        return m_inner.image(id);
    }
    std::size_t restoreHeldNotes() override { return m_inner.restoreHeldNotes(); }
    Result<ChangeObserverID, std::string> observeChanges(Executor& executor,
                                                         std::function<void()> onChange) override {
        return m_inner.observeChanges(executor, std::move(onChange));
    }
    void stopObserving(ChangeObserverID observer) override { m_inner.stopObserving(observer); }

private:
    std::shared_ptr<AddressBook> m_owned;
    AddressBook& m_inner;
};

} // namespace kinbook::testing
