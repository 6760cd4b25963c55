#include "ChildProcess.h"

#include <windows.h>

namespace ndpeer {

struct ChildProcess::Handle {
    HANDLE process = nullptr;
};

ChildProcess::ChildProcess() : handle_(std::make_unique<Handle>()) {}

ChildProcess::~ChildProcess() { Kill(); }

bool ChildProcess::Start(const std::string& path, const std::map<std::string, std::string>& environment,
                         const std::string& networkNamespace) {
    if (!networkNamespace.empty()) return false;  // network namespaces are Linux's
    // The child inherits the peer's environment; it is the only process the peer starts.
    for (const auto& [name, value] : environment) SetEnvironmentVariableA(name.c_str(), value.c_str());
    std::string commandLine = "\"" + path + "\"";
    STARTUPINFOA startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION info{};
    if (!CreateProcessA(path.c_str(), commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                        &info))
        return false;
    CloseHandle(info.hThread);
    handle_->process = info.hProcess;
    return true;
}

bool ChildProcess::Running() const { return handle_->process != nullptr; }

std::optional<int> ChildProcess::WaitExit(double seconds) {
    if (handle_->process == nullptr) return std::nullopt;
    if (WaitForSingleObject(handle_->process, static_cast<DWORD>(seconds * 1000)) != WAIT_OBJECT_0) return std::nullopt;
    DWORD code = 0;
    GetExitCodeProcess(handle_->process, &code);
    CloseHandle(handle_->process);
    handle_->process = nullptr;
    return static_cast<int>(code);
}

void ChildProcess::Kill() {
    if (handle_->process == nullptr) return;
    TerminateProcess(handle_->process, 1);
    WaitForSingleObject(handle_->process, 10000);
    CloseHandle(handle_->process);
    handle_->process = nullptr;
}

}  // namespace ndpeer
