#include "platform/replace_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "platform/posix_helpers.h"

namespace corvid {

void ReplaceFile(const std::string& path, std::string_view data, mode_t mode)
{
    const std::filesystem::path target(path);
    const std::string directory = target.has_parent_path() ? target.parent_path().string() : ".";
    const std::string name = target.filename().string(), temporary_name = name + ".tmp";
    const UniqueFd dir = OpenThrow(directory, O_RDONLY | O_DIRECTORY);

    // A stale temporary file (a power cut before the rename) or anything
    // planted in its place goes first, so that the new one is made afresh.
    struct stat stale;
    if (::fstatat(dir.Get(), temporary_name.c_str(), &stale, AT_SYMLINK_NOFOLLOW) == 0 &&
        ::unlinkat(dir.Get(), temporary_name.c_str(), 0) != 0)
        throw ErrnoException(errno, path + ".tmp");
    UniqueFd file(::openat(dir.Get(), temporary_name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                           0600));
    if (!file.IsOpen())
        throw ErrnoException(errno, path);
    try {
        const auto check = [&](int result) {
            if (result != 0)
                throw ErrnoException(errno, path);
        };
        check(::fchmod(file.Get(), mode));
        try {
            write_all_throw(file.Get(), data.data(), data.size());
        } catch (const ErrnoException& e) {
            throw ErrnoException(e.GetErrno(), path);
        }
        check(::fsync(file.Get()));
        check(::close(file.Release()));
        check(::renameat(dir.Get(), temporary_name.c_str(), dir.Get(), name.c_str()));
    } catch (...) {
        ::unlinkat(dir.Get(), temporary_name.c_str(), 0);
        throw;
    }
    if (::fsync(dir.Get()) != 0)
        throw ErrnoException(errno, directory);
}

} // namespace corvid
