#pragma once

#include "KinbookKit/Result.h"

#include <string>
#include <string_view>
#include <vector>

namespace kinbook {

// Why a script did not run to its end.
struct ScriptError {
    enum class Kind {
        compile, // the host could not read the text; nothing ran
        runtime, // a statement failed while running; `message` says which and why
    };

    Kind kind = Kind::runtime;
    std::string message;

    bool operator==(const ScriptError&) const = default;
};

// Whether Kinbook may drive the scripted application at all.
enum class AutomationPermission { granted, notPermitted };

// Something that runs the scripts ContactsAppScript builds: the Contacts
// application on a platform that has one, VdirScriptHost on a vdir, a
// recording fake in tests. A host that talks to a separate application
// starts it itself (hidden, in the background) before running a script.
//
// ContactsAppScript calls a host from its one script queue only, so a host
// needs no locking of its own for that use; it must not call back into
// ContactsAppScript.
class ScriptHost {
public:
    virtual ~ScriptHost() = default;

    // The user's permission to automate the application; a host that needs
    // none answers granted. May ask the user and wait for the answer.
    virtual AutomationPermission automationPermission() = 0;

    // Compiles and runs one script. The result is the script's result as
    // texts: the list of notes for the note-reading script, empty for the
    // others. A text that does not compile changes nothing.
    virtual Result<std::vector<std::string>, ScriptError> run(std::string_view source) = 0;
};

} // namespace kinbook
