#include "support/DaemonProcess.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#include "support/TestFiles.h"

namespace ndtest {

DaemonProcess::DaemonProcess(std::string pipeDir, std::string appDataDir, std::string binary)
    : pipeDir_(std::move(pipeDir)), appDataDir_(std::move(appDataDir)), binary_(std::move(binary)) {}

DaemonProcess::~DaemonProcess() { Kill(); }

void DaemonProcess::Start() {
    const pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        setenv("NETWORKDRIVER_PIPE_DIR", pipeDir_.c_str(), 1);
        setenv("NETWORKDRIVER_APPDATA_DIR", appDataDir_.c_str(), 1);
        execl(binary_.c_str(), binary_.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    pid_ = pid;
}

std::optional<int> DaemonProcess::WaitExit(double seconds) {
    if (pid_ < 0) return std::nullopt;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    do {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    } while (std::chrono::steady_clock::now() < deadline);
    return std::nullopt;
}

void DaemonProcess::Kill() {
    if (pid_ < 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

std::string DaemonProcess::LogPath() const {
    return appDataDir_ + "/TORV/Tessaril/Runtime/NetworkDriver_log_0.txt";
}

std::vector<std::string> DaemonProcess::LogEntries() const { return ndtest::LogEntries(LogPath()); }

}  // namespace ndtest
