// The window's platform pieces, in a file of their own: the tool never asks
// for them, so the linker leaves this file, libvips with it, out of the tool,
// whose every run would otherwise pay for loading the library.

#include "KinbookKit/platform/InotifyFolderWatcher.h"
#include "KinbookKit/platform/VipsImageScaler.h"
#include "KinbookKit/setup/KinbookSession.h"

namespace kinbook {

KinbookSession::Options KinbookSession::Options::window() {
    Options options;
    options.imageScaler = std::make_shared<VipsImageScaler>();
    options.watcher = std::make_shared<InotifyFolderWatcher>();
    return options;
}

} // namespace kinbook
