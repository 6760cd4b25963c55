#pragma once
#include <locale>
#include <sstream>
#include <string>

namespace TorvUtils {

// Numeric punctuation without digit grouping: log numbers never read "1,234,567".
class NoThousandSep : public std::numpunct<char> {
protected:
    std::string do_grouping() const override { return ""; }
};

// A string stream for composing log lines, carrying NoThousandSep.
class LogStream : public std::ostringstream {
public:
    LogStream() { imbue(std::locale(std::locale::classic(), new NoThousandSep)); }
};

}  // namespace TorvUtils
