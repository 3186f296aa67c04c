#pragma once

#include "KinbookKit/Executor.h"
#include "KinbookKit/Result.h"
#include "KinbookKit/addressbook/ScriptHost.h"
#include "KinbookKit/records/DateComponents.h"
#include "KinbookKit/vcard/VCard.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kinbook {

// Changes to cards that carry a note, made through the Contacts application.
//
// Some stores refuse to change a card with a note unless the application
// holds a notes permission, which Kinbook does not. The Contacts application
// has no such limit and takes AppleScript, so for those cards Kinbook writes
// the change as a script: it sets chosen groups of fields, sets or clears
// notes, reads notes and deletes cards. The texts are built from fixed
// templates (the builders below, which are pure and thread-safe) and run by a
// ScriptHost, one script at a time on this object's own serial queue.
class ContactsAppScript {
public:
    // Which groups of a card an update script writes.
    struct Fields {
        std::uint8_t rawValue = 0;

        static constexpr std::uint8_t name = 1; // name and work: title, first, middle, last name, suffix,
                                                // nickname, organization, department, job title
        static constexpr std::uint8_t phones = 2;
        static constexpr std::uint8_t emails = 4;
        static constexpr std::uint8_t urls = 8;
        static constexpr std::uint8_t postalAddresses = 16;
        static constexpr std::uint8_t socialProfiles = 32;
        static constexpr std::uint8_t birthday = 64;
        static constexpr std::uint8_t all = 127;

        constexpr bool contains(std::uint8_t group) const { return (rawValue & group) == group; }
        bool operator==(const Fields&) const = default;
    };

    // A script that failed; the user sees description().
    struct Failure {
        std::string message;

        std::string description() const { return "Contacts couldn't make the change: " + message; }
        bool operator==(const Failure&) const = default;
    };

    static constexpr std::string_view notPermittedMessage =
        "Vellumary Contacts isn't allowed to control Contacts. Turn it on in System Settings ▸ Privacy & "
        "Security ▸ Automation.";
    static constexpr std::string_view didNotCompileMessage = "the script didn't compile";
    // The label of the queue scripts run on.
    static constexpr std::string_view queueLabel = "com.tinmarch.kinbook.contacts-script";

    // A labelled value; `label` is the card's label constant ("_$!<Mobile>!$_",
    // a custom text, "ex-work"), empty when the entry has none.
    struct LabeledValue {
        std::string label;
        std::string value;
        bool operator==(const LabeledValue&) const = default;
    };
    struct PostalAddress {
        std::string label;
        std::string street;
        std::string city;
        std::string state;
        std::string postalCode;
        std::string country;
        bool operator==(const PostalAddress&) const = default;
    };
    struct SocialProfile {
        std::string service;
        std::string userName;
        std::string url;
        bool operator==(const SocialProfile&) const = default;
    };

    // The values of one card that a script can write.
    struct Card {
        std::string id;
        std::string title; // the name prefix
        std::string firstName;
        std::string middleName;
        std::string lastName;
        std::string suffix;
        std::string nickname;
        std::string organization;
        std::string department;
        std::string jobTitle;
        std::vector<LabeledValue> phones;
        std::vector<LabeledValue> emails;
        std::vector<LabeledValue> urls; // every web address, the KinID anchor among them
        std::vector<PostalAddress> addresses;
        std::vector<SocialProfile> socialProfiles;
        std::optional<DateComponents> birthday;

        bool operator==(const Card&) const = default;

        // The card's values as the editor reads them (names as shown, entries
        // in file order, the address parts the editor shows), every web
        // address included.
        static Card read(const VCard& card, std::string_view cardID);
    };

    // Builders. Every text value, card ids included, is quoted (quote): no
    // text from a card ever becomes part of a script's statements. Labels
    // are written as their localised names, "other" for none (labelText).

    // The lines for one card: "  set p to person id …" and then the lines
    // of each chosen group, in the order of Fields. This is the `body` of a
    // scripting outcome of the address book; updateScript wraps it.
    static std::string lines(const Card& card, Fields fields);
    // The lines that set one card's note, or clear it (none).
    static std::string noteLines(std::string_view cardID, const std::optional<std::string>& note);
    // The lines of one or more cards (joined with "\n") as a whole script
    // that writes them and saves.
    static std::string updateScript(std::string_view body);
    static std::string deleteScript(std::string_view cardID);
    // A script whose result is one note per card, in order, "" where a card
    // has none or can't be read.
    static std::string readNotesScript(std::span<const std::string> cardIDs);

    // A text as a string literal: backslashes doubled first, then quotes
    // escaped, between double quotes.
    static std::string quote(std::string_view text);
    // A label as scripts write it: its localised name, "other" for none.
    static std::string labelText(std::string_view label);

    // Running. Each call blocks until its script has run on the script queue;
    // calls from several threads are run one after another. The host is
    // called only from that queue.
    explicit ContactsAppScript(std::shared_ptr<ScriptHost> host);
    ~ContactsAppScript();

    ContactsAppScript(const ContactsAppScript&) = delete;
    ContactsAppScript& operator=(const ContactsAppScript&) = delete;

    // Runs any script text: permission first, then compile and run.
    Result<std::vector<std::string>, Failure> run(std::string script);
    // Wraps lines (one card's or several) in the update script and runs it.
    Result<void, Failure> update(std::string_view body);
    // Sets (or, for none, clears) the notes of the cards in one script.
    Result<void, Failure> setNotes(std::span<const std::pair<std::string, std::optional<std::string>>> notes);
    // One text per card, in order.
    Result<std::vector<std::string>, Failure> readNotes(std::span<const std::string> cardIDs);
    Result<void, Failure> deleteCard(std::string_view cardID);

private:
    std::shared_ptr<ScriptHost> m_host;
    ThreadPool m_thread{1};
    SerialQueue m_queue{m_thread};
};

} // namespace kinbook
