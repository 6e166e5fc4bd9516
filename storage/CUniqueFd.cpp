#include "storage/CUniqueFd.h"

#include <unistd.h>

void CUniqueFd::reset(int fd) {
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = fd;
}

bool CUniqueFd::close() {
    if (m_fd < 0)
        return true;
    int rc = ::close(std::exchange(m_fd, -1));
    return rc == 0;
}
