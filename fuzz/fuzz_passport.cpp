// SPDX-License-Identifier: Apache-2.0
// The passport file that other processes drop into the control folder: any
// content is read by CControlFiles::readPassport, which applies all of it or
// nothing. The file lives in a private temporary folder.

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "fuzz/FuzzLog.h"
#include "storage/CControlFiles.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzLogAll();
    static const std::string dir = [] {
        char tmpl[] = "/tmp/mtd_fuzz_passport_XXXXXX";
        return std::string(mkdtemp(tmpl)) + "/";
    }();
    static const CControlFiles files(dir);
    const std::string path = dir + "gmd_set_value_42";
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        __builtin_trap();
    for (size_t done = 0; done < size;) {
        ssize_t n = ::write(fd, data + done, size - done);
        if (n <= 0)
            __builtin_trap();
        done += static_cast<size_t>(n);
    }
    ::close(fd);
    std::map<std::string, std::string> values;
    if (files.readPassport("42", values) != CControlFiles::PASSPORT_OK && !values.empty())
        __builtin_trap();  // a refused file must not leave anything to apply
    ::unlink(path.c_str());
    return 0;
}
