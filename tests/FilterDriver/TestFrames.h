#pragma once
// Frame builders and a recording subscriber for the driver and session suites.
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "FilterDriver/IFilterDriversSubscriber.h"
#include "Packet/Frame.h"
#include "support/InMemoryFilterDriverApi.h"

namespace NativeNetworkDriver::Testing {

// EtherType of the frames that tests use to know that the dispatch thread has caught up.
inline constexpr uint16_t kMarkerType = 0x88B5;

inline constexpr Nat::Ipv4Address kSourceIp{10, 0, 0, 1};
inline constexpr Nat::Ipv4Address kDestinationIp{10, 0, 0, 2};

// An IPv4 frame: 20-byte header, then `payload` bytes of `fill`. offsetBytes must be a
// multiple of 8.
inline Nat::Frame Ipv4Frame(const Nat::MacAddress& dst, const Nat::MacAddress& src, uint16_t id, uint32_t offsetBytes,
                            bool moreFragments, size_t payload, uint8_t fill = 0xAB,
                            const Nat::Ipv4Address& srcIp = kSourceIp, const Nat::Ipv4Address& dstIp = kDestinationIp) {
    Nat::Frame frame = EthernetFrame(dst, src, 0x0800, 20 + payload, fill);
    uint8_t* ip = frame.data() + 14;
    const size_t total = 20 + payload;
    const uint32_t flagsOffset = (moreFragments ? 0x2000u : 0u) | (offsetBytes / 8);
    ip[0] = 0x45;
    ip[1] = 0;
    ip[2] = static_cast<uint8_t>(total >> 8);
    ip[3] = static_cast<uint8_t>(total & 0xFF);
    ip[4] = static_cast<uint8_t>(id >> 8);
    ip[5] = static_cast<uint8_t>(id & 0xFF);
    ip[6] = static_cast<uint8_t>(flagsOffset >> 8);
    ip[7] = static_cast<uint8_t>(flagsOffset & 0xFF);
    ip[8] = 64;
    ip[9] = 17;
    ip[10] = 0;
    ip[11] = 0;
    for (int i = 0; i < 4; ++i) {
        ip[12 + i] = srcIp[i];
        ip[16 + i] = dstIp[i];
    }
    return frame;
}

inline Nat::Frame Marker(const Nat::MacAddress& dst, const Nat::MacAddress& src, uint8_t serial) {
    return EthernetFrame(dst, src, kMarkerType, 46, serial);
}

inline bool IsMarker(const Nat::Frame& frame) {
    return frame.size() >= 14 && frame[12] == (kMarkerType >> 8) && frame[13] == (kMarkerType & 0xFF);
}

inline std::vector<Nat::Frame> WithoutMarkers(std::vector<Nat::Frame> frames) {
    std::erase_if(frames, IsMarker);
    return frames;
}

// Records every offer (markers excepted) and consumes what `consume` says.
class RecordingSubscriber : public IFilterDriversSubscriber {
public:
    struct Offer {
        std::string kind;  // "sent", "received", "sentFragments", "receivedFragments"
        Nat::FragmentList frames;
        std::string guid;
    };

    explicit RecordingSubscriber(std::string name = {}, std::vector<std::string>* order = nullptr)
        : name_(std::move(name)), order_(order) {}

    std::function<bool(const Nat::Frame&)> consume = [](const Nat::Frame&) { return false; };

    bool OnSentFragments(const Nat::FragmentList& fragments, const std::string& guid) override {
        return Record("sentFragments", fragments, guid);
    }
    bool OnSentFrame(const Nat::Frame& frame, const std::string& guid) override {
        return Record("sent", {frame}, guid);
    }
    bool OnReceivedFragments(const Nat::FragmentList& fragments, const std::string& guid) override {
        return Record("receivedFragments", fragments, guid);
    }
    bool OnReceivedFrame(const Nat::Frame& frame, const std::string& guid) override {
        return Record("received", {frame}, guid);
    }

    std::vector<Offer> Offers() const {
        std::lock_guard lock(mutex_);
        return offers_;
    }

    bool WaitForOffers(size_t count, std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) const {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return offers_.size() >= count; });
    }

private:
    bool Record(const std::string& kind, const Nat::FragmentList& frames, const std::string& guid) {
        if (frames.size() == 1 && IsMarker(frames[0])) return false;
        {
            std::lock_guard lock(mutex_);
            offers_.push_back(Offer{kind, frames, guid});
            if (order_ != nullptr) order_->push_back(name_);
            changed_.notify_all();
        }
        bool consumed = false;
        for (const auto& frame : frames) consumed = consume(frame) || consumed;
        return consumed;
    }

    std::string name_;
    std::vector<std::string>* order_;
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Offer> offers_;
};

}  // namespace NativeNetworkDriver::Testing
