#pragma once
#include <optional>
#include <string>
#include <vector>

namespace ndtest {

// The real NetworkDriver binary, started with its pipe and log folders in a test folder.
class DaemonProcess {
public:
    DaemonProcess(std::string pipeDir, std::string appDataDir, std::string binary = ND_DAEMON_PATH);
    ~DaemonProcess();
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    void Start();
    // Exit status (signal N reads as 128 + N), or nothing if it is still running after `seconds`.
    std::optional<int> WaitExit(double seconds);
    void Kill();
    std::string LogPath() const;  // the first file of the ring in the default brand folder
    std::vector<std::string> LogEntries() const;

private:
    std::string pipeDir_, appDataDir_, binary_;
    int pid_ = -1;
};

}  // namespace ndtest
