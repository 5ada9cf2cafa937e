// SPDX-License-Identifier: GPL-3.0-or-later
// The credentials file's parser: any text. Either a one-line error that names
// the file and line and holds no control byte, or a file whose lookups answer
// for any host and user; the first line whose pattern and user match wins.
//
// Input: the file's text, a NUL byte, then a host to look up.

#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "cli/Credentials.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Ranges are the grammar's business, not the fuzzer's time: keep inputs short.
    if (size > 4096) return 0;
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t nul = input.find('\0');
    const std::string text = input.substr(0, nul);
    const std::string host = nul == std::string::npos ? "smm01" : input.substr(nul + 1);
    const MorvelCli::CredentialsFile::Loaded loaded = MorvelCli::CredentialsFile::Parse(text, "creds");
    if (!loaded.file) {
        FUZZ_CHECK(loaded.error.compare(0, 6, "creds:") == 0 && loaded.error.find('\n') == std::string::npos);
        return 0;
    }
    FUZZ_CHECK(loaded.error.empty());
    for (const char* user : {"admin", "ops", ""}) {
        const auto password = loaded.file->PasswordFor(host, user);
        if (password) FUZZ_CHECK(!password->empty());
    }
    return 0;
}
