// Replacing a file whole, so that a reader (or a power cut) meets the old
// content or the new one, never a part, and whatever stands at the path is
// never opened or followed.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>

namespace corvid {

// Which path a failure to create, write, sync or close the temporary file
// names: the file being replaced (what its readers know) or the temporary
// file itself.
enum class TemporaryFileFailures { NameTheFile, NameTheTemporaryFile };

// Makes path a new regular file holding data, with exactly the permission
// bits mode (the umask does not apply); dir is path's directory, open. The
// data goes to "<path>.tmp" in that directory, created anew (whatever stood
// there removed first, never followed), is synced, and is renamed over path;
// renamed then runs, when given, and the directory is synced. A FIFO or a
// symbolic link at path is replaced, never opened or followed; a directory
// there is an error (EISDIR). Failures throw ErrnoException naming the
// temporary path when something there cannot be removed, the path the
// naming chooses for the temporary file's own steps, path for the rename and
// path's directory for syncing it; a failure before the rename leaves no
// temporary file behind. After a failure to sync the directory, path already
// holds data (renamed has run).
void ReplaceFileAt(int dir, const std::string& path, std::string_view data, mode_t mode,
                   TemporaryFileFailures naming = TemporaryFileFailures::NameTheFile,
                   const std::function<void()>& renamed = {});

// ReplaceFileAt in path's directory, opened here; failures name path.
void ReplaceFile(const std::string& path, std::string_view data, mode_t mode);

} // namespace corvid
