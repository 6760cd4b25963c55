#include "Logging/BrandInfo.h"

#include <filesystem>

#include "Platform/Platform.h"

namespace TorvUtils {

void IBrandInfo::BuildFrom(const std::vector<std::string>& folders) {
    logDirectory = Platform::CommonAppDataFolder();
    for (const auto& folder : folders) {
        logDirectory += Platform::kPathSeparator;
        logDirectory += folder;
    }
    logDirectory += Platform::kPathSeparator;
}

void TorvBrandInfo::BuildPaths() { BuildFrom({"TORV", "Tessaril", "Runtime"}); }
void VudBrandInfo::BuildPaths() { BuildFrom({"VUD", "TARVELIS connect", "Runtime"}); }
void HalbrookBrandInfo::BuildPaths() { BuildFrom({"Halbrook Automation", "Cobaltreach Remote Access", "Runtime"}); }

std::unique_ptr<IBrandInfo> ChooseBrand(const std::string& executablePath) {
    std::unique_ptr<IBrandInfo> brand;
    if (executablePath.find("VUD") != std::string::npos)
        brand = std::make_unique<VudBrandInfo>();
    else if (executablePath.find("Halbrook") != std::string::npos)
        brand = std::make_unique<HalbrookBrandInfo>();
    else
        brand = std::make_unique<TorvBrandInfo>();
    brand->BuildPaths();
    brand->ClearExtra();
    return brand;
}

IBrandInfo& BrandInfo() {
    static const std::unique_ptr<IBrandInfo> profile = ChooseBrand(Platform::ExecutablePath());
    return *profile;
}

bool CreateDirectoryChain(const std::string& path) {
    namespace fs = std::filesystem;
    bool lastCreated = false;
    for (size_t i = 1; i <= path.size(); ++i) {
        if (i < path.size() && path[i] != Platform::kPathSeparator) continue;
        const std::string prefix = path.substr(0, i);
        std::error_code ec;
        // A bare drive ("C:") is not something every C runtime can stat; its root is.
        const bool drive = prefix.size() == 2 && prefix[1] == ':';
        if (fs::is_directory(drive ? prefix + Platform::kPathSeparator : prefix, ec)) continue;
        lastCreated = fs::create_directory(prefix, ec) && !ec;
        if (!lastCreated) break;
    }
    return lastCreated;
}

}  // namespace TorvUtils
