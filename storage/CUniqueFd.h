#pragma once
// Owner of one file descriptor: closes it when it goes out of scope. Move-only.

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
    void reset(int fd = -1);
    // Closes now and reports the result: a failed close after writing may mean lost data.
    bool close();

private:
    int m_fd = -1;
};
