// SPDX-License-Identifier: Apache-2.0
#include "core/ReplaceFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "core/CUniqueFd.h"

namespace mtd {

namespace {

bool writeAll(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

bool replaceFile(const std::string& path, const std::string& content, const char** failedStep, unsigned mode) {
    const size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? std::string(".") : path.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    const std::string temp = (slash == std::string::npos ? std::string() : dir) + "." + base + ".tmp";
    CUniqueFd fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, mode));
    const char* step = nullptr;
    if (!fd.valid())
        step = "open";
    else if (!writeAll(fd.get(), content))
        step = "write";
    else if (::fsync(fd.get()) != 0)
        step = "fsync";
    else if (!fd.close())
        step = "close";
    else if (::rename(temp.c_str(), path.c_str()) != 0)
        step = "rename";
    if (step) {
        const int err = errno;
        if (fd.valid() || step[0] != 'o')
            ::unlink(temp.c_str());
        errno = err;
        if (failedStep)
            *failedStep = step;
        return false;
    }
    // The rename itself reaches the disk with the folder's entry; a failure
    // here leaves a complete file, only maybe not yet durable.
    CUniqueFd folder(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.valid())
        ::fsync(folder.get());
    return true;
}

}  // namespace mtd
