// Owners of operating-system resources: a descriptor, a C stream and a
// memory mapping, each released by its destructor on every path.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <utility>

namespace corvid {

// An owned file descriptor, closed on destruction; negative means none.
class UniqueFd {
public:
    UniqueFd() noexcept = default;
    explicit UniqueFd(int fd) noexcept : m_fd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : m_fd(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        if (this != &other)
            Reset(other.Release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { Reset(); }

    int Get() const noexcept { return m_fd; }
    bool IsOpen() const noexcept { return m_fd >= 0; }
    int Release() noexcept { return std::exchange(m_fd, -1); }
    void Reset(int fd = -1) noexcept
    {
        if (const int old = std::exchange(m_fd, fd); old >= 0)
            ::close(old);
    }

private:
    int m_fd = -1;
};

// An owned C stream, closed with fclose on destruction.
class UniqueFile {
public:
    UniqueFile() noexcept = default;
    explicit UniqueFile(std::FILE* file) noexcept : m_file(file) {}
    UniqueFile(UniqueFile&& other) noexcept : m_file(std::exchange(other.m_file, nullptr)) {}
    UniqueFile& operator=(UniqueFile&& other) noexcept
    {
        if (this != &other)
            Reset(std::exchange(other.m_file, nullptr));
        return *this;
    }
    UniqueFile(const UniqueFile&) = delete;
    UniqueFile& operator=(const UniqueFile&) = delete;
    ~UniqueFile() { Reset(); }

    std::FILE* Get() const noexcept { return m_file; }
    explicit operator bool() const noexcept { return m_file != nullptr; }
    void Reset(std::FILE* file = nullptr) noexcept
    {
        if (std::FILE* old = std::exchange(m_file, file))
            std::fclose(old);
    }

private:
    std::FILE* m_file = nullptr;
};

// An owned memory mapping, unmapped on destruction.
class UniqueMapping {
public:
    UniqueMapping() noexcept = default;
    UniqueMapping(void* address, std::size_t length) noexcept : m_address(address), m_length(length)
    {
    }
    UniqueMapping(UniqueMapping&& other) noexcept
        : m_address(std::exchange(other.m_address, MAP_FAILED)),
          m_length(std::exchange(other.m_length, 0))
    {
    }
    UniqueMapping& operator=(UniqueMapping&& other) noexcept
    {
        if (this != &other) {
            Reset();
            m_address = std::exchange(other.m_address, MAP_FAILED);
            m_length = std::exchange(other.m_length, 0);
        }
        return *this;
    }
    UniqueMapping(const UniqueMapping&) = delete;
    UniqueMapping& operator=(const UniqueMapping&) = delete;
    ~UniqueMapping() { Reset(); }

    void* Get() const noexcept { return m_address; }
    std::size_t Length() const noexcept { return m_length; }
    bool IsMapped() const noexcept { return m_address != MAP_FAILED; }
    void Reset() noexcept
    {
        if (m_address != MAP_FAILED)
            ::munmap(m_address, m_length);
        m_address = MAP_FAILED;
        m_length = 0;
    }

private:
    void* m_address = MAP_FAILED;
    std::size_t m_length = 0;
};

} // namespace corvid
