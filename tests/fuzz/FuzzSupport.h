// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <streambuf>
#include <string>

#include "host/Log.h"

// Shared by the fuzz entry points: a cursor over the input, a check that ends
// the run like a crash, and silencing of console and log output.
namespace morvel_fuzz {

// A broken promise of the code under test is a finding just like a crash.
[[noreturn]] inline void CheckFailed(const char* file, int line, const char* condition) {
    // Nothing is left to do if stderr fails: the abort is the report.
    static_cast<void>(std::fprintf(stderr, "%s:%d: check failed: %s\n", file, line, condition));
    static_cast<void>(std::fflush(stderr));
    std::abort();
}

#define FUZZ_CHECK(condition) \
    ((condition) ? static_cast<void>(0) : ::morvel_fuzz::CheckFailed(__FILE__, __LINE__, #condition))

// Reads the input front to back; past its end every read yields zeros or
// nothing, so any input decodes to something.
class FuzzInput {
public:
    FuzzInput(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}

    size_t Remaining() const { return m_size - m_offset; }
    bool Empty() const { return Remaining() == 0; }

    uint8_t Byte() { return Empty() ? 0 : m_data[m_offset++]; }

    // Four bytes, least significant first.
    int32_t Int32() {
        uint32_t value = 0;
        for (int shift = 0; shift < 32; shift += 8) value |= static_cast<uint32_t>(Byte()) << shift;
        int32_t result = 0;
        std::memcpy(&result, &value, sizeof result);
        return result;
    }

    std::string Bytes(size_t count) {
        if (count > Remaining()) count = Remaining();
        std::string text(reinterpret_cast<const char*>(m_data + m_offset), count);
        m_offset += count;
        return text;
    }

    std::string Rest() { return Bytes(Remaining()); }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_offset = 0;
};

// Accepts and drops everything written to it.
class NullBuffer : public std::streambuf {
protected:
    int_type overflow(int_type c) override { return traits_type::not_eof(c); }
    std::streamsize xsputn(const char*, std::streamsize count) override { return count; }
};

// Takes log records (so that they are built in full) and drops them.
class DiscardSink : public Plexum::LogSink {
public:
    void Write(const Plexum::LogRecord&) override {}
};

// Once per process: console lines go nowhere, every log level is built.
inline void SilenceOutput() {
    static const bool silenced = [] {
        // Never destroyed: the streams still flush into it while the iostream
        // machinery is torn down at exit, after function-local statics are gone.
        auto* buffer = new NullBuffer();
        std::cout.rdbuf(buffer);
        std::cerr.rdbuf(buffer);
        Plexum::Log::SetMinLogLevel(4);
        Plexum::Log::SetSink(std::make_shared<DiscardSink>());
        return true;
    }();
    static_cast<void>(silenced);
}

}  // namespace morvel_fuzz
