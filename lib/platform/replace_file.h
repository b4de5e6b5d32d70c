// Replacing a file whole, so that a reader (or a power cut) meets the old
// content or the new one, never a part, and whatever stands at the path is
// never opened or followed.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace corvid {

// Makes path a new regular file holding data, with exactly the permission
// bits mode (the umask does not apply). The data goes to "<path>.tmp" in the
// same directory, created anew (whatever stood there removed first, never
// followed), is synced, and is renamed over path; then the directory is
// synced. A FIFO or a symbolic link at path is replaced, never opened or
// followed; a directory there is an error (EISDIR). Failures throw
// ErrnoException with path as context (the temporary path when something
// there cannot be removed, the directory when syncing it fails), and leave
// no temporary file behind.
void ReplaceFile(const std::string& path, std::string_view data, mode_t mode);

} // namespace corvid
