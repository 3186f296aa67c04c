#pragma once

#include "KinbookKit/addressbook/VdirAddressBook.h"
#include "KinbookKit/addressbook/VdirScriptHost.h"

#include <memory>
#include <utility>

namespace kinbook::testing {

// A vdir address book whose cards with a note change through a
// VdirScriptHost on it, wired the way the setup wiring wires one: the host
// first, handed to the book, then the book to the host.
struct ScriptedBook {
    explicit ScriptedBook(VdirAddressBook::Options options)
        : host(std::make_shared<VdirScriptHost>()), book(withHost(std::move(options), host)) {
        host->attach(book);
    }

    std::shared_ptr<VdirScriptHost> host;
    VdirAddressBook book;

private:
    static VdirAddressBook::Options withHost(VdirAddressBook::Options options,
                                             std::shared_ptr<ScriptHost> scriptHost) {
        options.scriptHost = std::move(scriptHost);
        return options;
    }
};

} // namespace kinbook::testing
