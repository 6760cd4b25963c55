#include "Peer.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <thread>

#include "NetworkDriver/Messages.h"

namespace ndpeer {

namespace {

std::atomic<bool> interrupted{false};
constexpr size_t kKeptFrames = 1000;
void OnSignal(int) { interrupted = true; }

const char* TypeName(uint32_t type) {
    static const char* names[] = {"?",         "InitializeConfiguration", "Frame",   "StartVPN",
                                  "AddSupervisorMACToVPN", "RemoveSupervisorMACFromVPN", "StopVPN", "StartICS",
                                  "StopICS",   "StartNAT",                "StopNAT"};
    return type <= 10 ? names[type] : "?";
}

std::string Hex(const std::vector<uint8_t>& bytes) {
    std::string text;
    char part[4];
    for (uint8_t b : bytes) {
        std::snprintf(part, sizeof(part), text.empty() ? "%02x" : " %02x", b);
        text += part;
    }
    return text;
}

}  // namespace

std::string DescribeMessage(const Message& m) {
    std::string text = "type " + std::to_string(m.type) + " (" + TypeName(m.type) + ")";
    if (m.type == NativeNetworkDriver::kVpnFrame) return text + ", frame of " + std::to_string(m.payload.size()) + " bytes";
    if (m.payload.empty()) return text + ", empty";
    if (m.payload.size() == 6 && m.payload[1] == NativeNetworkDriver::kTagEnum32) {
        const uint32_t result = static_cast<uint32_t>(m.payload[2]) | static_cast<uint32_t>(m.payload[3]) << 8 |
                                static_cast<uint32_t>(m.payload[4]) << 16 | static_cast<uint32_t>(m.payload[5]) << 24;
        return text + ", result " + std::to_string(result) + " [" + Hex(m.payload) + "]";
    }
    if (m.payload.size() > 64) {
        const std::vector<uint8_t> head(m.payload.begin(), m.payload.begin() + 32);
        return text + ", payload of " + std::to_string(m.payload.size()) + " bytes [" + Hex(head) + " ...]";
    }
    return text + ", payload [" + Hex(m.payload) + "]";
}

Peer::Peer(PeerOptions options) : options_(std::move(options)), channel_(options_.pipeDir) {}

Peer::~Peer() { Shutdown(); }

bool Peer::StartDaemon() {
    return daemon_.Start(options_.daemonPath, {{"NETWORKDRIVER_PIPE_DIR", options_.pipeDir}}, options_.daemonNetns);
}

void Peer::ReceiveLoop() {
    while (!stop_) {
        Message message;
        if (!channel_.Receive(message, 200)) {
            if (channel_.Closed()) break;
            continue;
        }
        if (message.type == NativeNetworkDriver::kVpnFrame) {
            pcap_.Write(message.payload.data(), message.payload.size());
            if (options_.showFrames) std::cout << "<- " << DescribeMessage(message) << std::endl;
            if (tap_.IsOpen()) {
                tap_.Write(message.payload);
                continue;
            }
            std::lock_guard lock(answersLock_);
            if (frames_.size() >= kKeptFrames) frames_.pop_front();
            frames_.push_back(std::move(message));
            answersChanged_.notify_all();
            continue;
        }
        std::cout << "<- " << DescribeMessage(message) << std::endl;
        std::lock_guard lock(answersLock_);
        answers_.push_back(std::move(message));
        answersChanged_.notify_all();
    }
    std::lock_guard lock(answersLock_);
    closed_ = true;
    answersChanged_.notify_all();
}

void Peer::TapLoop() {
    std::vector<uint8_t> buffer(65536);
    while (!stop_) {
        if (!tap_.WaitReadable(200)) continue;
        int n;
        while ((n = tap_.Read(buffer.data(), buffer.size())) > 0) {
            std::vector<uint8_t> frame(buffer.begin(), buffer.begin() + n);
            pcap_.Write(frame.data(), frame.size());
            std::lock_guard lock(sendLock_);
            channel_.Send(NativeNetworkDriver::kVpnFrame, frame);
        }
    }
}

std::optional<Message> Peer::NextFrame(double seconds) {
    std::unique_lock lock(answersLock_);
    answersChanged_.wait_for(lock, std::chrono::duration<double>(seconds), [&] { return !frames_.empty() || closed_; });
    if (frames_.empty()) return std::nullopt;
    Message m = std::move(frames_.front());
    frames_.pop_front();
    return m;
}

std::optional<Message> Peer::NextAnswer(double seconds) {
    std::unique_lock lock(answersLock_);
    answersChanged_.wait_for(lock, std::chrono::duration<double>(seconds), [&] { return !answers_.empty() || closed_; });
    if (answers_.empty()) return std::nullopt;
    Message m = std::move(answers_.front());
    answers_.pop_front();
    return m;
}

bool Peer::CheckAnswer(const Step& step, size_t index) {
    const Expectation& e = *step.expect;
    const std::string where = "step " + std::to_string(index) + " (" + step.name + ")";
    if (e.none) {
        if (auto m = NextAnswer(1.0)) {
            std::cerr << where << ": expected no answer, got " << DescribeMessage(*m) << std::endl;
            return false;
        }
        return true;
    }
    auto answer = NextAnswer(options_.answerTimeout);
    if (!answer) {
        std::cerr << where << ": no answer within " << options_.answerTimeout << " s" << std::endl;
        return false;
    }
    const uint32_t expectedType = e.type.value_or(step.type);
    bool ok = answer->type == expectedType;
    if (e.result) ok = ok && answer->payload == NativeNetworkDriver::EncodeResult(*e.result);
    if (e.payload) ok = ok && answer->payload == *e.payload;
    std::vector<uint8_t> whole = answer->header;
    whole.insert(whole.end(), answer->payload.begin(), answer->payload.end());
    if (e.message) ok = ok && whole == *e.message;
    if (!ok) {
        std::cerr << where << ": unexpected answer " << DescribeMessage(*answer) << " (expected type " << expectedType;
        if (e.result) std::cerr << ", result " << *e.result;
        if (e.payload) std::cerr << ", payload [" << Hex(*e.payload) << "]";
        if (e.message) std::cerr << ", message [" << Hex(*e.message) << "], got [" << Hex(whole) << "]";
        std::cerr << ")" << std::endl;
    }
    return ok;
}

bool Peer::RunStep(const Step& step, size_t index) {
    switch (step.kind) {
        case Step::Kind::Sleep:
            std::this_thread::sleep_for(std::chrono::duration<double>(step.seconds));
            return true;
        case Step::Kind::ClosePipe:
            std::cout << "-- closing the pipe to the daemon" << std::endl;
            channel_.CloseToDaemon();
            return true;
        case Step::Kind::ExpectExit: {
            const auto status = daemon_.WaitExit(step.seconds);
            if (!status) {
                std::cerr << "step " << index << ": the daemon did not exit within " << step.seconds << " s" << std::endl;
                return false;
            }
            std::cout << "-- daemon exited with status " << *status << std::endl;
            if (*status != step.exitCode) {
                std::cerr << "step " << index << ": expected exit status " << step.exitCode << std::endl;
                return false;
            }
            return true;
        }
        case Step::Kind::WaitFile: {
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(step.seconds);
            std::error_code error;
            while (!std::filesystem::exists(step.path, error)) {
                if (interrupted || std::chrono::steady_clock::now() >= deadline) {
                    std::cerr << "step " << index << ": " << step.path << " did not appear within " << step.seconds
                              << " s" << std::endl;
                    return false;
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
            std::cout << "-- " << step.path << " appeared" << std::endl;
            return true;
        }
        case Step::Kind::ExpectFrame: {
            const auto frame = NextFrame(step.seconds);
            if (!frame) {
                std::cerr << "step " << index << ": no tunnel frame within " << step.seconds << " s" << std::endl;
                return false;
            }
            std::cout << "<- " << DescribeMessage(*frame) << std::endl;
            if (frame->payload != step.payload) {
                std::cerr << "step " << index << ": unexpected frame [" << Hex(frame->payload) << "] (expected ["
                          << Hex(step.payload) << "])" << std::endl;
                return false;
            }
            return true;
        }
        case Step::Kind::Send: break;
    }
    {
        std::lock_guard lock(sendLock_);
        bool sent;
        if (step.rawBytes) {
            std::cout << "-> raw bytes (" << step.rawBytes->size() << ")" << std::endl;
            sent = channel_.SendRaw(*step.rawBytes);
        } else {
            std::cout << "-> " << DescribeMessage({step.type, step.payload, {}}) << std::endl;
            if (step.type == NativeNetworkDriver::kVpnFrame) pcap_.Write(step.payload.data(), step.payload.size());
            sent = channel_.Send(step.type, step.payload);
        }
        if (!sent) {
            std::cerr << "step " << index << ": the daemon's pipe is closed" << std::endl;
            return false;
        }
    }
    return !step.expect || CheckAnswer(step, index);
}

void Peer::Hold() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(options_.hold);
    while (!interrupted && (options_.hold < 0 || std::chrono::steady_clock::now() < deadline)) {
        {
            std::lock_guard lock(answersLock_);
            if (closed_) break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

void Peer::Shutdown() {
    stop_ = true;
    if (tapReader_.joinable()) tapReader_.join();
    if (receiver_.joinable()) receiver_.join();
    channel_.CloseToDaemon();
    if (daemon_.Running() && !daemon_.WaitExit(10)) daemon_.Kill();
}

int Peer::Run(const Scenario& scenario) {
    std::signal(SIGINT, OnSignal);
    std::signal(SIGTERM, OnSignal);
    if (!options_.pcapPath.empty()) pcap_.Open(options_.pcapPath);
    channel_.Listen();
    if (!options_.daemonPath.empty() && !StartDaemon()) {
        std::cerr << "cannot start " << options_.daemonPath << std::endl;
        return 3;
    }
    if (!channel_.Accept(static_cast<int>(options_.connectTimeout * 1000))) {
        std::cerr << "the daemon did not connect to " << options_.pipeDir << " within " << options_.connectTimeout
                  << " s" << std::endl;
        return 3;
    }
    std::cout << "-- daemon connected" << std::endl;
    const std::string tapName = !options_.tapName.empty() ? options_.tapName : scenario.tap;
    if (!tapName.empty()) {
        tap_.Open(tapName, options_.tapMac, options_.tapNetns);
        std::cout << "-- bridging tap " << tapName << std::endl;
        tapReader_ = std::thread(&Peer::TapLoop, this);
    }
    receiver_ = std::thread(&Peer::ReceiveLoop, this);
    int failures = 0;
    for (size_t i = 0; i < scenario.steps.size() && !interrupted; ++i)
        if (!RunStep(scenario.steps[i], i)) ++failures;
    if (options_.hold != 0) Hold();
    Shutdown();
    std::cout << "-- " << scenario.steps.size() << " steps, " << failures << " failed" << std::endl;
    return failures == 0 ? 0 : 1;
}

}  // namespace ndpeer
