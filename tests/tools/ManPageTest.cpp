// The manual page of ndpeer documents exactly the options that ndpeer --help lists.
#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "support/TestFiles.h"

namespace {

// The first long option of a help line or a page term line that starts with an option.
void AddOption(std::string line, std::set<std::string>& options) {
    static const std::regex option(R"(^(\.B[IR]? +)?\s*(-\w.*?)?(--[a-z][a-z0-9-]*))");
    for (size_t at; (at = line.find("\\-")) != std::string::npos;) line.replace(at, 2, "-");
    std::smatch match;
    if (std::regex_search(line, match, option)) options.insert(match[3]);
}

}  // namespace

TEST(ManPage, NdpeerPageAndHelpListTheSameOptions) {
    std::set<std::string> help, page;
    std::FILE* pipe = popen(ND_PEER_PATH " --help", "r");
    ASSERT_NE(pipe, nullptr);
    for (char line[512]; std::fgets(line, sizeof(line), pipe) != nullptr;) AddOption(line, help);
    EXPECT_EQ(pclose(pipe), 0);
    EXPECT_TRUE(help.count("--pcap") && help.count("--help")) << "help output not understood";

    // The terms of the OPTIONS section: the line after each .TP.
    std::istringstream text(ndtest::ReadFile(ND_SOURCE_DIR "/man/ndpeer.1"));
    bool inOptions = false, term = false;
    for (std::string line; std::getline(text, line); term = line == ".TP") {
        if (line.rfind(".SH", 0) == 0) inOptions = line == ".SH OPTIONS";
        if (inOptions && term) AddOption(line, page);
    }
    EXPECT_EQ(page, help);
}
