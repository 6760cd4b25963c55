#pragma once
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Packet/IFilterDriversSubscriber.h"
#include "support/InMemoryFilterDriverApi.h"

namespace NativeNetworkDriver::Testing {

// Records every offer (the in-memory network's markers excepted) and consumes what
// `consume` says.
class RecordingSubscriber : public IFilterDriversSubscriber {
public:
    struct Offer {
        std::string kind;  // "sent", "received", "sentFragments", "receivedFragments"
        Nat::FragmentList frames;
        std::string guid;
    };

    std::function<bool(const Nat::Frame&)> consume = [](const Nat::Frame&) { return false; };

    bool OnSentFragments(Nat::FragmentList& fragments, const Nat::FrameView&, const std::string& guid) override {
        return Record("sentFragments", fragments, guid);
    }
    bool OnSentFrame(Nat::Frame& frame, const Nat::FrameView&, const Nat::FrameOffload&,
                     const std::string& guid) override {
        return Record("sent", {frame}, guid);
    }
    bool OnReceivedFragments(Nat::FragmentList& fragments, const Nat::FrameView&, const std::string& guid) override {
        return Record("receivedFragments", fragments, guid);
    }
    bool OnReceivedFrame(Nat::Frame& frame, const Nat::FrameView&, const Nat::FrameOffload&,
                         const std::string& guid) override {
        return Record("received", {frame}, guid);
    }

    // The offers so far, forgetting them.
    std::vector<Offer> Take() {
        std::lock_guard lock(mutex_);
        return std::exchange(offers_, {});
    }
    bool WaitForOffers(size_t count, std::chrono::seconds timeout = std::chrono::seconds(5)) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return offers_.size() >= count; });
    }

private:
    bool Record(const std::string& kind, const Nat::FragmentList& frames, const std::string& guid) {
        if (frames.size() == 1 && IsMarker(frames[0])) return false;
        {
            std::lock_guard lock(mutex_);
            offers_.push_back(Offer{kind, frames, guid});
            changed_.notify_all();
        }
        bool consumed = false;
        for (const auto& frame : frames) consumed = consume(frame) || consumed;
        return consumed;
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Offer> offers_;
};

}  // namespace NativeNetworkDriver::Testing
