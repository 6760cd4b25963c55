#include "support/TestFiles.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace ndtest {

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "ndtest-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

std::vector<std::string> ReadLines(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

std::vector<std::string> LogEntries(const std::string& path) {
    std::vector<std::string> entries;
    for (const auto& line : ReadLines(path)) {
        const auto semicolon = line.find(';');
        entries.push_back(semicolon == std::string::npos ? line : line.substr(semicolon + 1));
    }
    return entries;
}

}  // namespace ndtest
