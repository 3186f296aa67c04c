#pragma once

#include <filesystem>
#include <span>
#include <string_view>

namespace kinbook {

// Replaces `path` with `contents` so that a reader sees either the old file
// or the new one, never a part: the bytes go to a temporary file in the same
// folder (hidden, so vdirsyncer and folder scans pass it over), which is
// flushed to disk and then renamed over the target; the folder is flushed
// too so the rename survives a crash. The folder must exist. The new file
// gets `mode` (subject to the umask) unless the target exists, whose mode is
// kept. A target that is a symbolic link stays one: the file it points to is
// replaced, beside itself. Returns false, leaving the old file as it was, on
// any failure.
bool writeFileAtomically(const std::filesystem::path& path, std::string_view contents, unsigned mode = 0644);

// Renames already-written temporary files over their targets, all after all
// are written: a batch of card changes is either seen whole or not at all as
// far as each file goes.
struct PendingFile {
    std::filesystem::path temporary;
    std::filesystem::path target;
};

// Writes `contents` to a new hidden temporary file beside `target`, flushed
// to disk, without touching the target. None on failure.
bool writeTemporaryBeside(const std::filesystem::path& target, std::string_view contents,
                          PendingFile& pending, unsigned mode = 0644);

// Renames a pending file over its target and flushes the folder.
bool commitPendingFile(const PendingFile& pending);

// Removes a pending file that will not be committed.
void discardPendingFile(const PendingFile& pending);

// Whether `name` is one of the temporary files above (".NAME.XXXXXXXX.tmp"):
// one an interrupted write (a crash, a kill) left behind is never renamed
// into place and may be removed once no one can still be writing it.
bool isTemporaryFileName(std::string_view name);

} // namespace kinbook
