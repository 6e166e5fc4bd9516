// SPDX-License-Identifier: Apache-2.0
// The command line: the input split at NUL bytes into argv[1..], parsed as at
// start-up. Run with -close_fd_mask=3, the usage text would flood the output.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "app/CCommandLine.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> words{"mtd_main"};
    std::string word;
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0) {
            words.push_back(word);
            word.clear();
        } else {
            word += static_cast<char>(data[i]);
        }
    }
    if (!word.empty())
        words.push_back(word);
    if (words.size() > 64)
        return 0;
    std::vector<char*> argv;
    for (auto& w : words)
        argv.push_back(&w[0]);
    argv.push_back(nullptr);
    CCommandLine cl;
    const int status = cl.parse(static_cast<int>(words.size()), argv.data());
    if (status == -1 && (cl.ids.empty() || cl.logLevel > 7))
        __builtin_trap();  // going on without an id or with a level out of range
    return 0;
}
