// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>

// Scratch files for the tests: a private temporary directory, removed with
// everything in it when the object goes.
class ScratchDirectory {
public:
    ScratchDirectory();
    ~ScratchDirectory();
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    const std::string& Path() const { return m_path; }
    // Writes `content` to Path()/name with the given mode; returns the full path.
    std::string Write(const std::string& name, const std::string& content, unsigned mode = 0600) const;

private:
    std::string m_path;
};

// The whole file, or an empty text when it cannot be read.
std::string ReadWholeFile(const std::string& path);
// The permission bits of the file, or -1.
int FileMode(const std::string& path);

// A log file line "YYYY-MM-DD HH:MM:SS.mmm LEVEL source:line text" without
// its time stamp: "LEVEL source:line text"; "MALFORMED " and the line when it
// does not start with a well-formed time stamp.
std::string WithoutTimeStamp(const std::string& line);
// The same, also without the source line number: "LEVEL source text".
std::string WithoutTimeStampAndLine(const std::string& line);
