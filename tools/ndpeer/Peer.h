#pragma once
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "ChildProcess.h"
#include "PcapWriter.h"
#include "PeerChannel.h"
#include "Scenario.h"
#include "TapDevice.h"

namespace ndpeer {

struct PeerOptions {
    std::string pipeDir;
    std::string daemonPath;   // start this daemon, if set
    std::string tapName;      // bridge type-2 frames to this tap, if set
    std::string tapNetns;     // network namespace the tap is made in
    std::string daemonNetns;  // network namespace the daemon runs in
    std::string pcapPath;     // write every tunnel frame to this capture file, if set
    std::vector<uint8_t> tapMac;
    double connectTimeout = 10;
    double answerTimeout = 10;
    double hold = 0;          // keep bridging this long after the steps (< 0: until a signal)
    bool showFrames = false;
};

// The native side: serves the pipes, runs a scenario and checks the answers.
class Peer {
public:
    explicit Peer(PeerOptions options);
    ~Peer();

    // Returns the process exit status: 0 when every expectation held.
    int Run(const Scenario& scenario);

private:
    bool StartDaemon();
    bool RunStep(const Step& step, size_t index);
    bool CheckAnswer(const Step& step, size_t index);
    std::optional<Message> NextAnswer(double seconds);
    std::optional<Message> NextFrame(double seconds);
    void ReceiveLoop();
    void TapLoop();
    void Hold();
    void Shutdown();

    PeerOptions options_;
    PeerChannel channel_;
    TapDevice tap_;
    PcapWriter pcap_;
    std::mutex sendLock_;
    std::mutex answersLock_;
    std::condition_variable answersChanged_;
    std::deque<Message> answers_;
    std::deque<Message> frames_;  // tunnel frames, kept for ExpectFrame steps when no tap takes them
    bool closed_ = false;
    std::atomic<bool> stop_{false};
    std::thread receiver_;
    std::thread tapReader_;
    ChildProcess daemon_;
};

std::string DescribeMessage(const Message& message);

}  // namespace ndpeer
