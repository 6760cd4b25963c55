// The manual page of ndpeer documents exactly the options that ndpeer --help lists.
#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "support/TestFiles.h"

namespace {

std::set<std::string> LongOptions(const std::string& text) {
    static const std::regex option(R"((^|[^\w-])(--[a-z][a-z0-9-]*))");
    std::set<std::string> found;
    for (auto it = std::sregex_iterator(text.begin(), text.end(), option); it != std::sregex_iterator(); ++it)
        found.insert((*it)[2]);
    return found;
}

// The option lines of --help: those that start with a dash after the indentation.
std::set<std::string> HelpOptions() {
    std::FILE* pipe = popen(ND_PEER_PATH " --help", "r");
    if (pipe == nullptr) return {};
    std::string lines;
    char line[512];
    while (std::fgets(line, sizeof(line), pipe) != nullptr) {
        std::string text = line;
        const size_t first = text.find_first_not_of(' ');
        if (first != std::string::npos && text[first] == '-') lines += text.substr(0, text.find("  ", first));
        lines += '\n';
    }
    EXPECT_EQ(pclose(pipe), 0);
    return LongOptions(lines);
}

// The term lines of the page's OPTIONS section: the line after each .TP.
std::set<std::string> PageOptions() {
    std::istringstream page(ndtest::ReadFile(ND_SOURCE_DIR "/man/ndpeer.1"));
    std::string line, terms;
    bool inOptions = false, term = false;
    while (std::getline(page, line)) {
        if (line.rfind(".SH", 0) == 0) inOptions = line == ".SH OPTIONS";
        if (inOptions && term) {
            for (size_t at; (at = line.find("\\-")) != std::string::npos;) line.replace(at, 2, "-");
            terms += line + '\n';
        }
        term = line == ".TP";
    }
    return LongOptions(terms);
}

}  // namespace

TEST(ManPage, NdpeerPageAndHelpListTheSameOptions) {
    const std::set<std::string> help = HelpOptions();
    EXPECT_TRUE(help.count("--pcap") && help.count("--help")) << "help output not understood";
    EXPECT_EQ(PageOptions(), help);
}
