// Case tables kept in data files, for tests whose cases read best as rows.
//
// A file is a list of sections. A section starts with a line "<key> <title>"
// for the key the test reads by; any other line without '|' sets a named
// value ("<name> <value>") that holds for the rows below it in the section;
// a line with '|' is a row of columns. Lines starting with '#' are comments.
#pragma once

#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace tktest {

struct Case {
    std::string where;                            // "file:line", for failure messages
    std::map<std::string, std::string> settings;  // the section's values in force at this row
    std::vector<std::string> columns;             // trimmed, not decoded
    std::string setting(const std::string& name) const;
};

struct CaseSection {
    std::string title;
    std::vector<Case> cases;
};

// Test names print a section by its title.
inline void PrintTo(const CaseSection& section, std::ostream* out) { *out << section.title; }

std::vector<CaseSection> readCases(const std::string& file, const std::string& sectionKey);

// The value a column stands for: outer double quotes keep blanks at its ends,
// \t \n \r \v \f \0 \xHH \" \\ are escapes, and {text*N} is text N times.
std::string decode(const std::string& column);

// Blank-separated words, each decoded; a quoted word may hold blanks.
std::vector<std::string> words(const std::string& text);

}  // namespace tktest
