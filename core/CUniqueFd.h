// SPDX-License-Identifier: Apache-2.0
#pragma once
// Move-only owner of one file descriptor: closes it when replaced or destroyed.
// Shared by every layer that opens descriptors (ports, LEDs, archive files).

#include <unistd.h>

#include <utility>

class CUniqueFd {
public:
    CUniqueFd() = default;
    explicit CUniqueFd(int fd) : m_fd(fd) {}
    ~CUniqueFd() { reset(); }
    CUniqueFd(const CUniqueFd&) = delete;
    CUniqueFd& operator=(const CUniqueFd&) = delete;
    CUniqueFd(CUniqueFd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    CUniqueFd& operator=(CUniqueFd&& other) noexcept {
        if (this != &other)
            reset(std::exchange(other.m_fd, -1));
        return *this;
    }

    int get() const { return m_fd; }
    bool valid() const { return m_fd >= 0; }
    // Closes the held descriptor (if any) and takes `fd`.
    void reset(int fd = -1) {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = fd;
    }
    // Closes now and reports the result: a failed close after writing may mean lost data.
    bool close() {
        if (m_fd < 0)
            return true;
        return ::close(std::exchange(m_fd, -1)) == 0;
    }

private:
    int m_fd = -1;
};
