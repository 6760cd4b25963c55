#include "ChildProcess.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

namespace ndpeer {

struct ChildProcess::Handle {
    pid_t pid = -1;
};

ChildProcess::ChildProcess() : handle_(std::make_unique<Handle>()) {}

ChildProcess::~ChildProcess() { Kill(); }

bool ChildProcess::Start(const std::string& path, const std::map<std::string, std::string>& environment,
                         const std::string& networkNamespace) {
    const pid_t pid = fork();
    if (pid < 0) return false;
    if (pid == 0) {
        for (const auto& [name, value] : environment) setenv(name.c_str(), value.c_str(), 1);
        if (!networkNamespace.empty()) {
            const int ns = ::open(("/run/netns/" + networkNamespace).c_str(), O_RDONLY | O_CLOEXEC);
            if (ns < 0 || setns(ns, CLONE_NEWNET) != 0) _exit(126);
        }
        execl(path.c_str(), path.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    handle_->pid = pid;
    return true;
}

bool ChildProcess::Running() const { return handle_->pid > 0; }

std::optional<int> ChildProcess::WaitExit(double seconds) {
    if (handle_->pid <= 0) return std::nullopt;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    do {
        int raw = 0;
        if (waitpid(handle_->pid, &raw, WNOHANG) == handle_->pid) {
            handle_->pid = -1;
            return WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    } while (std::chrono::steady_clock::now() < deadline);
    return std::nullopt;
}

void ChildProcess::Kill() {
    if (handle_->pid <= 0) return;
    kill(handle_->pid, SIGKILL);
    waitpid(handle_->pid, nullptr, 0);
    handle_->pid = -1;
}

}  // namespace ndpeer
