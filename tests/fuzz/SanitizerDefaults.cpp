// SPDX-License-Identifier: GPL-3.0-or-later
// Options the sanitizer runtimes start with (UBSAN_OPTIONS set by the caller
// still wins), so that a fuzzer or replay run by hand behaves like scripts/fuzz.
//
// Stop at the first report; the one suppression (ubsan.supp) only takes
// effect for a check built recoverable, which is why pointer-overflow is the
// one check compiled with recovery in the fuzz configuration.
extern "C" const char* __ubsan_default_options() {
    return "halt_on_error=1:print_stacktrace=1:suppressions=" MORVEL_UBSAN_SUPPRESSIONS;
}
