// SPDX-License-Identifier: Apache-2.0
#pragma once
// Replaces a whole file so that a reader sees either the old or the new content,
// never part of one: a temporary file ".<name>.tmp" in the same folder is
// written, synced and renamed over the target, then the folder is synced.

#include <string>

namespace mtd {

// False on failure, with the step that failed ("open", "write", "fsync",
// "close", "rename") in *failedStep and errno kept; the temporary file is gone.
// `mode` is the new file's permission bits (before the umask).
bool replaceFile(const std::string& path, const std::string& content, const char** failedStep,
                 unsigned mode = 0644);

}  // namespace mtd
