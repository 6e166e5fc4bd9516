// SPDX-License-Identifier: Apache-2.0
#pragma once
// A private folder under /tmp for one test, removed with everything in it when
// the test ends. `path` ends with '/', so file names can be appended directly.

#include <stdlib.h>

#include <filesystem>
#include <string>
#include <system_error>

namespace test_support {

struct TempDir {
    std::string path;
    explicit TempDir(const std::string& tag = "mtd") {
        std::string tmpl = "/tmp/" + tag + "_XXXXXX";
        if (::mkdtemp(tmpl.data()) == nullptr)
            throw std::system_error(errno, std::generic_category(), "mkdtemp");
        path = tmpl + "/";
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    std::string operator/(const std::string& name) const { return path + name; }
};

}  // namespace test_support
