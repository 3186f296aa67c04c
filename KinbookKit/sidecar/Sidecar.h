#pragma once

#include "KinbookKit/Executor.h"

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace kinbook {

class CloudDownloads;

// The folder tree that holds what does not fit in a card: full-size photos,
// posters, past jobs, the saved circle suggestion and the Trash, one folder
// per person under "People". On Linux the tree lives in a folder the user
// chooses (the `sidecar` setting), meant to sit inside whatever they sync:
// Nextcloud, Syncthing, a network share.
namespace Sidecar {

// Whether the tree can be used. `noICloud` keeps the product's name for "no
// cloud folder": the setting is off, or the folder's parent is not there
// (an unmounted share), so that nothing is written onto the mount point.
struct Status {
    enum class Case { ready, noICloud };
    Case status = Case::noICloud;
    std::filesystem::path documents; // the "Documents" folder; empty for noICloud

    static Status ready(std::filesystem::path documents) { return {Case::ready, std::move(documents)}; }
    static Status noICloud() { return {}; }
    bool isReady() const { return status == Case::ready; }
    bool operator==(const Status&) const = default;
};

// The note left for the user in the root, written once and never again.
inline constexpr std::string_view readmeText =
    "Vellumary Contacts\n\nThis folder holds what doesn't fit in a contact card: full-size\n"
    "portraits, business card scans, attachments and history. One folder\nper person. The contacts "
    "themselves stay in iCloud, Google or\nExchange.\n\nIt's yours. It lives in your iCloud and nowhere "
    "else.";

// Prepares the tree under `folder` (none: the setting turns it off) and says
// whether it is ready: makes "Documents" with its intermediates and leaves
// the README there when it has none. Failing to make either is no failure
// (the folder usually exists; a read-only share still lists). Logs "sidecar:
// no iCloud" or "sidecar: ready in N ms". Blocks on the file system: call it
// off the main thread (open() does), or from the tool.
Status openNow(const std::optional<std::filesystem::path>& folder);

// openNow() on `background`, its answer handed to `done` on `reply`, so
// that a slow or hung share never holds up the window at launch.
void open(Executor& background, Executor& reply, std::optional<std::filesystem::path> folder,
          std::function<void(Status)> done);

// The name a new person folder gets: the display name with "/", ":" and "\"
// turned into "-" and white space trimmed, one space, the KinID; the KinID
// alone when nothing is left. On Linux control characters become "-" too,
// leading dots go (a hidden folder is one sync clients skip), and the name is
// shortened to fit a file name, never cutting a character in half.
std::string personFolderName(std::string_view displayName, std::string_view kinID);

// Whether a folder of that name belongs to the person: the name is the
// KinID, or ends with a space and the KinID. Renaming a person never loses
// their folder.
bool folderBelongsTo(std::string_view folderName, std::string_view kinID);

// The KinID a person folder belongs to, read from the end of its name; none
// when the name ends in no KinID.
std::optional<std::string> kinIDOfFolder(std::string_view folderName);

// A KinID fit to name a folder: letters and digits only, at most 32 of them.
// Every KinID is read from a card, and a card is text from anywhere.
bool isUsableKinID(std::string_view kinID);

// The file a cloud placeholder stands for: ".photo.jpg.icloud" (the cloud
// drive's form) and "photo.jpg.nextcloud" (the Nextcloud desktop client's
// virtual files) both stand for "photo.jpg". None for any other name.
std::optional<std::string> placeholderTarget(std::string_view fileName);

} // namespace Sidecar

// Starts fetching a file of the sidecar that the sync client has not brought
// yet. On Linux the sync client brings it in its own time; the configured
// command (if any) is asked to hurry it. Thread-safe.
class CloudDownloads {
public:
    virtual ~CloudDownloads() = default;
    // `placeholder` is the placeholder's path, `target` the file it stands for.
    virtual void startDownloading(const std::filesystem::path& placeholder,
                                  const std::filesystem::path& target) = 0;
};

} // namespace kinbook
