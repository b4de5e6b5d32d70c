#include "platform/replace_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "platform/posix_helpers.h"

namespace corvid {
namespace {

std::string DirectoryOf(const std::string& path)
{
    const std::filesystem::path target(path);
    return target.has_parent_path() ? target.parent_path().string() : ".";
}

} // namespace

void ReplaceFileAt(int dir, const std::string& path, std::string_view data, mode_t mode,
                   TemporaryFileFailures naming, const std::function<void()>& renamed)
{
    const std::string name = std::filesystem::path(path).filename().string(), temporary_name = name + ".tmp";
    const std::string temporary_path = path + ".tmp";
    const std::string& named = naming == TemporaryFileFailures::NameTheFile ? path : temporary_path;

    // A stale temporary file (a power cut before the rename) or anything
    // planted in its place goes first, so that the new one is made afresh.
    struct stat stale;
    if (::fstatat(dir, temporary_name.c_str(), &stale, AT_SYMLINK_NOFOLLOW) == 0 &&
        ::unlinkat(dir, temporary_name.c_str(), 0) != 0)
        throw ErrnoException(errno, temporary_path);
    UniqueFd file(::openat(dir, temporary_name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file.IsOpen())
        throw ErrnoException(errno, named);
    try {
        const auto check = [](int result, const std::string& context) {
            if (result != 0)
                throw ErrnoException(errno, context);
        };
        check(::fchmod(file.Get(), mode), named);
        try {
            write_all_throw(file.Get(), data.data(), data.size());
        } catch (const ErrnoException& e) {
            throw ErrnoException(e.GetErrno(), named);
        }
        check(::fsync(file.Get()), named);
        check(::close(file.Release()), named);
        check(::renameat(dir, temporary_name.c_str(), dir, name.c_str()), path);
    } catch (...) {
        ::unlinkat(dir, temporary_name.c_str(), 0);
        throw;
    }
    if (renamed)
        renamed();
    if (::fsync(dir) != 0)
        throw ErrnoException(errno, DirectoryOf(path));
}

void ReplaceFile(const std::string& path, std::string_view data, mode_t mode)
{
    const UniqueFd dir = OpenThrow(DirectoryOf(path), O_RDONLY | O_DIRECTORY);
    ReplaceFileAt(dir.Get(), path, data, mode);
}

} // namespace corvid
