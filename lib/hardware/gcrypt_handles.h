// Owners of libgcrypt handles: each releases its handle when it goes out of
// scope, on every path, exceptional ones included.
#pragma once

// libgcrypt's deprecated typedefs include one spelled GcrySexp; the build
// defines GCRYPT_NO_DEPRECATED for everything that links vxhardware, and this
// header defines it too in case it is the first to include gcrypt.h.
#ifndef GCRYPT_NO_DEPRECATED
#define GCRYPT_NO_DEPRECATED
#endif
#include <gcrypt.h>

#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace gcrypt_detail {

// A move-only owner of one libgcrypt handle of pointer type Handle, released
// with Release (a function taking the handle).
template <typename Handle, void (*Release)(Handle)>
class GcryHandle {
public:
    GcryHandle() noexcept = default;
    explicit GcryHandle(Handle handle) noexcept : m_handle(handle) {}
    GcryHandle(GcryHandle&& other) noexcept : m_handle(other.release()) {}
    GcryHandle& operator=(GcryHandle&& other) noexcept
    {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    GcryHandle(const GcryHandle&) = delete;
    GcryHandle& operator=(const GcryHandle&) = delete;
    ~GcryHandle() { reset(); }

    Handle get() const noexcept { return m_handle; }
    explicit operator bool() const noexcept { return m_handle != nullptr; }

    // Gives up ownership without releasing.
    Handle release() noexcept { return std::exchange(m_handle, nullptr); }

    // Releases the current handle (if any) and takes ownership of handle.
    void reset(Handle handle = nullptr) noexcept
    {
        Handle old = std::exchange(m_handle, handle);
        if (old != nullptr)
            Release(old);
    }

    // For functions that return a new handle through an out-parameter:
    // releases the current handle and returns the address to fill in.
    Handle* out() noexcept
    {
        reset();
        return &m_handle;
    }

private:
    Handle m_handle = nullptr;
};

inline void ReleaseMd(gcry_md_hd_t handle) { gcry_md_close(handle); }
inline void ReleaseSexp(gcry_sexp_t handle) { gcry_sexp_release(handle); }
inline void ReleaseMpi(gcry_mpi_t handle) { gcry_mpi_release(handle); }

} // namespace gcrypt_detail

// A message-digest (or HMAC) context, closed with gcry_md_close.
using GcryMd = gcrypt_detail::GcryHandle<gcry_md_hd_t, &gcrypt_detail::ReleaseMd>;
// An S-expression, released with gcry_sexp_release.
using GcrySexp = gcrypt_detail::GcryHandle<gcry_sexp_t, &gcrypt_detail::ReleaseSexp>;
// A multi-precision integer, released with gcry_mpi_release.
using GcryMpi = gcrypt_detail::GcryHandle<gcry_mpi_t, &gcrypt_detail::ReleaseMpi>;

// Throws std::runtime_error with libgcrypt's text for error.
[[noreturn]] inline void ThrowGcryptError(gcry_error_t error)
{
    throw std::runtime_error(gcry_strerror(error));
}

// The digest of data with the digest algorithm algorithm (GCRY_MD_*),
// through a context opened without flags. A context that cannot be opened
// throws std::runtime_error with libgcrypt's text.
inline std::string ComputeDigest(int algorithm, std::string_view data)
{
    GcryMd md;
    if (const gcry_error_t error = gcry_md_open(md.out(), algorithm, 0))
        ThrowGcryptError(error);
    gcry_md_write(md.get(), data.data(), data.size());
    return std::string(reinterpret_cast<const char*>(gcry_md_read(md.get(), algorithm)),
                       gcry_md_get_algo_dlen(algorithm));
}
