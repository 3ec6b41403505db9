/*
 * Owner of a file descriptor: closes it at the end of its own life, unless it was given away.
 *
 * Used by one thread at a time. Nothing here changes errno but Close(), so a caller may still read
 * why a call failed after its descriptor is gone.
 */
#pragma once

#include <cerrno>
#include <utility>

#include <unistd.h>

class UniqueFd
{
public:
    /* Owns nothing. */
    UniqueFd() = default;
    /* Takes the descriptor over; a negative number, as a failed open(2) gives, is none. */
    explicit UniqueFd(int i_s32Fd) : m_s32Fd(i_s32Fd) {}
    UniqueFd(UniqueFd &&io_objOther) noexcept : m_s32Fd(io_objOther.Release()) {}
    UniqueFd &operator=(UniqueFd &&io_objOther) noexcept
    {
        Reset(io_objOther.Release());
        return *this;
    }
    ~UniqueFd() { Reset(); }

    /* The number, for calls of the system; -1 if there is none. It must not be closed. */
    int Get() const { return m_s32Fd; }
    /* True if there is a descriptor. */
    explicit operator bool() const { return m_s32Fd >= 0; }
    /* Gives the descriptor away, to be closed by whoever takes it; -1 if there is none. */
    [[nodiscard]] int Release() { return std::exchange(m_s32Fd, -1); }
    /* Closes the descriptor, if there is one, and takes the other over. */
    void Reset(int i_s32Fd = -1)
    {
        const int s32Errno = errno;
        (void)Close();
        errno = s32Errno;
        m_s32Fd = i_s32Fd;
    }
    /* Closes now and says how that went: what close(2) returned, 0 if there was nothing to close.
     * Either way nothing is owned afterwards. */
    int Close()
    {
        const int s32Fd = Release();
        return s32Fd >= 0 ? close(s32Fd) : 0;
    }

private:
    int m_s32Fd = -1;
};
