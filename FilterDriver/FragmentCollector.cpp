#include "FilterDriver/FragmentCollector.h"

#include <utility>

#include "Platform/Platform.h"

namespace NativeNetworkDriver {

namespace {
uint32_t PayloadLength(const Nat::FrameView& view) { return view.totalLength - view.ipHeaderSize; }
}  // namespace

FragmentCollector::FragmentCollector() : FragmentCollector(Limits{}) {}

FragmentCollector::FragmentCollector(Limits limits, Clock clock) : limits_(limits), clock_(std::move(clock)) {}

uint32_t FragmentCollector::Now() const { return clock_ ? clock_() : Platform::TickCount(); }

bool FragmentCollector::IsComplete(const Datagram& datagram) {
    if (!datagram.lastSeen) return false;
    uint32_t covered = 0;
    for (const auto& [offset, piece] : datagram.pieces) {
        if (offset > covered) return false;  // a hole
        const uint32_t end = offset + PayloadLength(piece.view);
        if (end > covered) covered = end;
    }
    return covered >= datagram.payloadSize;
}

void FragmentCollector::GiveUp(Map::iterator it, std::vector<GivenUp>& out) {
    GivenUp given;
    given.guid = std::get<0>(it->first);
    given.isSend = std::get<1>(it->first);
    given.fragments.reserve(it->second.pieces.size());
    for (auto& [offset, piece] : it->second.pieces) given.fragments.push_back(std::move(piece.frame));
    fragmentCount_ -= it->second.pieces.size();
    datagrams_.erase(it);
    out.push_back(std::move(given));
}

FragmentCollector::Map::iterator FragmentCollector::Oldest() {
    auto oldest = datagrams_.begin();
    for (auto it = datagrams_.begin(); it != datagrams_.end(); ++it) {
        if (it->second.sequence < oldest->second.sequence) oldest = it;
    }
    return oldest;
}

FragmentCollector::Result FragmentCollector::Add(const std::string& guid, bool isSend, const Nat::Frame& frame,
                                                 const Nat::FrameView& view) {
    Result result;
    const uint32_t now = Now();
    for (auto it = datagrams_.begin(); it != datagrams_.end();) {
        auto next = std::next(it);
        if (now - it->second.firstSeen >= limits_.timeoutMs) GiveUp(it, result.givenUp);
        it = next;
    }

    Key key{guid, isSend, view.srcIp, view.dstIp, view.protocol, view.identification};
    auto it = datagrams_.find(key);
    if (it == datagrams_.end()) {
        while (!datagrams_.empty() && datagrams_.size() >= limits_.maxDatagrams) GiveUp(Oldest(), result.givenUp);
        Datagram datagram;
        datagram.firstSeen = now;
        datagram.sequence = nextSequence_++;
        it = datagrams_.emplace(std::move(key), std::move(datagram)).first;
    }
    Datagram& datagram = it->second;
    if (datagram.pieces.count(view.fragmentOffset) != 0) return result;  // a duplicate

    datagram.pieces.emplace(view.fragmentOffset, Piece{frame, view});
    ++fragmentCount_;
    if (view.IsLastFragment() && !datagram.lastSeen) {
        datagram.lastSeen = true;
        datagram.payloadSize = view.fragmentOffset + PayloadLength(view);
    }

    if (IsComplete(datagram)) {
        result.complete = true;
        result.head = datagram.pieces.begin()->second.view;  // offset 0: IsComplete saw no hole
        result.fragments.reserve(datagram.pieces.size());
        for (auto& [offset, piece] : datagram.pieces) result.fragments.push_back(std::move(piece.frame));
        fragmentCount_ -= datagram.pieces.size();
        datagrams_.erase(it);
        return result;
    }
    // Over the fragment budget: the oldest datagrams go first, this one last.
    while (fragmentCount_ > limits_.maxFragments && !datagrams_.empty()) GiveUp(Oldest(), result.givenUp);
    return result;
}

void FragmentCollector::Forget(const std::string& guid) {
    for (auto it = datagrams_.begin(); it != datagrams_.end();) {
        if (std::get<0>(it->first) == guid) {
            fragmentCount_ -= it->second.pieces.size();
            it = datagrams_.erase(it);
        } else {
            ++it;
        }
    }
}

void FragmentCollector::Clear() {
    datagrams_.clear();
    fragmentCount_ = 0;
}

}  // namespace NativeNetworkDriver
