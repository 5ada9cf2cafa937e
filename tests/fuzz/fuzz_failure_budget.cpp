// SPDX-License-Identifier: GPL-3.0-or-later
// The grammar of --max-failures: any text. Either no budget, or one that keeps
// the text as written, stays within its bounds, and judges as a budget must:
// never exceeded by as many failures as it allows, and once exceeded, exceeded
// by one failure more.
//
// Input: the option's value.

#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "fleet/Guards.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const auto budget = Fleet::FailureBudget::Parse(text);
    if (!budget) return 0;
    FUZZ_CHECK(budget->written == text);
    FUZZ_CHECK(!text.empty() && text.size() <= 16);
    if (budget->percent) {
        FUZZ_CHECK(text.back() == '%' && budget->hundredths <= 10000 && budget->count == 0);
        for (const size_t ended : {size_t{0}, size_t{9}, size_t{10}, size_t{11}, size_t{1000}}) {
            // Below ten ended nothing is judged; a share of none is never exceeded.
            FUZZ_CHECK(!budget->Exceeded(0, ended));
            if (ended < Fleet::FailureBudget::kPercentJudgedFrom) FUZZ_CHECK(!budget->Exceeded(ended, ended));
            for (size_t failed = 0; failed < ended; ++failed) {
                if (budget->Exceeded(failed, ended)) FUZZ_CHECK(budget->Exceeded(failed + 1, ended));
            }
        }
    } else {
        FUZZ_CHECK(text.find_first_not_of("0123456789") == std::string::npos);
        FUZZ_CHECK(budget->count <= Fleet::FailureBudget::kMaxCount);
        FUZZ_CHECK(!budget->Exceeded(budget->count, budget->count));
        FUZZ_CHECK(budget->Exceeded(budget->count + 1, budget->count + 1));
    }
    return 0;
}
