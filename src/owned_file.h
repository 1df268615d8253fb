/*
 * Owners of a file descriptor and of a mapping: each releases what it
 * holds when it goes out of scope (close, munmap), can be moved but not
 * copied, and gives up ownership with release().
 *
 * Two state-file handles keep an odd release on purpose, and these types
 * are where it happens:
 *   - the upload lock's record is unmapped with the 16 bytes of the probe
 *     that sized its file, not its 4440: the record's first page goes, its
 *     second stays mapped until the process ends (one page per handle);
 *   - a handle whose file could not be sized because the size change was
 *     interrupted keeps the number of the descriptor it closed
 *     (close_keeping_number), so a caller that sees a number cannot tell
 *     it from a mapped file, and its destroy closes that number again.
 */
#ifndef TARVEX_BOX_OWNED_FILE_H
#define TARVEX_BOX_OWNED_FILE_H

#include <stddef.h>
#include <sys/mman.h>
#include <unistd.h>

#include <utility>

/* An open descriptor, or none (-1). */
class tarvex_box_fd {
public:
    tarvex_box_fd() = default;
    explicit tarvex_box_fd(int fd) noexcept : fd_(fd) {}
    tarvex_box_fd(tarvex_box_fd &&other) noexcept : fd_(other.release()) {}
    tarvex_box_fd &operator=(tarvex_box_fd &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    tarvex_box_fd(const tarvex_box_fd &) = delete;
    tarvex_box_fd &operator=(const tarvex_box_fd &) = delete;
    ~tarvex_box_fd() { reset(); }

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ != -1; }
    int release() noexcept { return std::exchange(fd_, -1); }
    void reset(int fd = -1) noexcept
    {
        if (fd_ != -1)
            close(fd_);
        fd_ = fd;
    }
    /* Closes the descriptor and answers its number (see above). */
    int close_keeping_number() noexcept
    {
        int number = fd_;
        reset();
        return number;
    }

private:
    int fd_ = -1;
};

/* `length` bytes unmapped at `address`; a null or failed address
 * (MAP_FAILED, kept as given) owns nothing. */
class tarvex_box_mapping {
public:
    tarvex_box_mapping() = default;
    tarvex_box_mapping(void *address, size_t length) noexcept
        : address_(address), length_(length)
    {
    }
    tarvex_box_mapping(tarvex_box_mapping &&other) noexcept
        : address_(std::exchange(other.address_, nullptr)), length_(other.length_)
    {
    }
    tarvex_box_mapping &operator=(tarvex_box_mapping &&other) noexcept
    {
        reset();
        address_ = std::exchange(other.address_, nullptr);
        length_ = other.length_;
        return *this;
    }
    tarvex_box_mapping(const tarvex_box_mapping &) = delete;
    tarvex_box_mapping &operator=(const tarvex_box_mapping &) = delete;
    ~tarvex_box_mapping() { reset(); }

    void *get() const noexcept { return address_; }
    explicit operator bool() const noexcept
    {
        return address_ != nullptr && address_ != MAP_FAILED;
    }
    void *release() noexcept { return std::exchange(address_, nullptr); }
    void reset() noexcept
    {
        if (*this)
            munmap(address_, length_);
        address_ = nullptr;
    }

private:
    void *address_ = nullptr;
    size_t length_ = 0;
};

#endif
