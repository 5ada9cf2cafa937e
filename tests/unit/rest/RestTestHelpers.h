// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <zlib.h>

#include <gtest/gtest.h>

#include <cctype>
#include <stdexcept>
#include <string>

namespace RestTest {

// Checks that `text` is exactly prefix, a decimal number within [low, high], suffix.
inline ::testing::AssertionResult IsTextWithNumber(const std::string& text, const std::string& prefix, long low,
                                                   long high, const std::string& suffix) {
    auto fail = [&] {
        return ::testing::AssertionFailure() << "\"" << text << "\" is not \"" << prefix << "<" << low << ".." << high
                                             << ">" << suffix << "\"";
    };
    if (text.size() < prefix.size() + suffix.size() + 1 || text.compare(0, prefix.size(), prefix) != 0 ||
        text.compare(text.size() - suffix.size(), suffix.size(), suffix) != 0)
        return fail();
    const std::string digits = text.substr(prefix.size(), text.size() - prefix.size() - suffix.size());
    if (digits.empty() || digits.size() > 9) return fail();
    for (char c : digits)
        if (!std::isdigit(static_cast<unsigned char>(c))) return fail();
    const long number = std::stol(digits);
    if (number < low || number > high) return fail();
    return ::testing::AssertionSuccess();
}

// libcurl's text for a refused connection to 127.0.0.1:port.
inline ::testing::AssertionResult IsRefusedText(const std::string& text, int port) {
    return IsTextWithNumber(text, "Failed to connect to 127.0.0.1 port " + std::to_string(port) + " after ", 0, 999999999,
                            " ms: Couldn't connect to server");
}

// gzip member of `text` (zlib with the gzip wrapper).
inline std::string Gzip(const std::string& text) {
    z_stream stream{};
    if (deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        throw std::runtime_error("deflateInit2 failed");
    std::string out(deflateBound(&stream, text.size()) + 32, '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream.avail_in = static_cast<uInt>(text.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    const int result = deflate(&stream, Z_FINISH);
    out.resize(stream.total_out);
    deflateEnd(&stream);
    if (result != Z_STREAM_END) throw std::runtime_error("deflate failed");
    return out;
}

}  // namespace RestTest
