#pragma once
#include <memory>
#include <string>
#include <vector>

namespace TorvUtils {

// Which brand this installation is, and from that where its runtime files live.
class IBrandInfo {
public:
    virtual ~IBrandInfo() = default;
    virtual void BuildPaths() = 0;
    virtual void ClearExtra() = 0;

    std::string logDirectory;  // always ends with a path separator
    std::string extra;         // unused by every brand; kept empty

protected:
    // Builds logDirectory from the common application-data folder and the brand's folders.
    void BuildFrom(const std::vector<std::string>& folders);
};

class BrandInfoBase : public IBrandInfo {
public:
    void ClearExtra() override { extra.clear(); }
};

class TorvBrandInfo : public BrandInfoBase {
public:
    void BuildPaths() override;
};

class VudBrandInfo : public BrandInfoBase {
public:
    void BuildPaths() override;
};

class HalbrookBrandInfo : public BrandInfoBase {
public:
    void BuildPaths() override;
};

// Picks the brand from the executable's full path (case-sensitive): "VUD" first, then "Halbrook".
std::unique_ptr<IBrandInfo> ChooseBrand(const std::string& executablePath);

// The process-wide profile, chosen on first use from the running executable's path.
IBrandInfo& BrandInfo();

// Creates every missing folder of the path; true only when the last creation attempted succeeded.
bool CreateDirectoryChain(const std::string& path);

}  // namespace TorvUtils
