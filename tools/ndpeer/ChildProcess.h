#pragma once
// The daemon as a child of the peer: started with extra environment, waited for with a
// time limit, killed if it outstays the peer.
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace ndpeer {

class ChildProcess {
public:
    ChildProcess();
    ~ChildProcess();  // kills a child that is still running
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // `networkNamespace` (Linux: a name under /run/netns) is where the child runs; empty: here.
    bool Start(const std::string& path, const std::map<std::string, std::string>& environment,
               const std::string& networkNamespace = {});
    bool Running() const;
    // The exit status (on POSIX, signal N reads as 128 + N), or nothing if the child is
    // still running after `seconds`.
    std::optional<int> WaitExit(double seconds);
    void Kill();

private:
    struct Handle;
    std::unique_ptr<Handle> handle_;
};

}  // namespace ndpeer
