#include "support/TestFiles.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
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
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::string> LogEntries(const std::string& path) {
    std::vector<std::string> entries;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) entries.push_back(line.substr(line.find(';') + 1));
    return entries;
}

}  // namespace ndtest
