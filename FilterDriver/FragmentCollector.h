#pragma once
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "Packet/Frame.h"
#include "Packet/FrameView.h"

namespace NativeNetworkDriver {

// Holds the fragments of IPv4 datagrams until each datagram is complete, then yields its
// fragment frames in offset order. A datagram is keyed by adapter, direction, addresses,
// protocol and identification.
//
// Bounds, so that a flood of fragments cannot grow memory:
// - a datagram not complete 5 seconds after its first fragment is given up (senders emit
//   all fragments back to back; stacks wait longer, but our copy only has to cover the
//   time in flight through this process);
// - at most 64 datagrams and 512 fragment frames (about 760 KiB) are held; past that the
//   oldest datagrams are given up first.
// Given-up fragments are handed back to the caller, which passes them on unchanged: the
// end host then reassembles (or times out) exactly as it would without this process.
// Time-outs are checked whenever a fragment arrives. Exact duplicates (same offset) of a
// held fragment are dropped.
class FragmentCollector {
public:
    struct Limits {
        uint32_t timeoutMs = 5000;
        size_t maxDatagrams = 64;
        size_t maxFragments = 512;
    };
    using Clock = std::function<uint32_t()>;

    struct GivenUp {
        std::string guid;
        bool isSend = false;
        Nat::FragmentList fragments;  // in offset order
    };
    struct Result {
        bool complete = false;
        Nat::FragmentList fragments;  // the complete datagram, in offset order
        Nat::FrameView head;          // the view of its first fragment
        std::vector<GivenUp> givenUp;
    };

    FragmentCollector();
    explicit FragmentCollector(Limits limits, Clock clock = {});

    // `view` must be the frame's, of a fragment the collector can hold (IsFragment() and
    // Collectable()): a frame whose lengths do not fit is handled as a whole, never collected.
    Result Add(const std::string& guid, bool isSend, const Nat::Frame& frame, const Nat::FrameView& view);
    // Drops everything held for an adapter (it is being closed).
    void Forget(const std::string& guid);
    void Clear();

    size_t DatagramCount() const { return datagrams_.size(); }
    size_t FragmentCount() const { return fragmentCount_; }

private:
    using Key = std::tuple<std::string, bool, Nat::Ipv4Address, Nat::Ipv4Address, uint8_t, uint16_t>;
    struct Piece {
        Nat::Frame frame;
        Nat::FrameView view;
    };
    struct Datagram {
        uint32_t firstSeen = 0;
        uint64_t sequence = 0;               // arrival order of first fragments, for eviction
        std::map<uint32_t, Piece> pieces;    // by fragment offset
        bool lastSeen = false;
        uint32_t payloadSize = 0;            // known once the last fragment arrived
    };
    using Map = std::map<Key, Datagram>;

    uint32_t Now() const;
    static bool IsComplete(const Datagram& datagram);
    void GiveUp(Map::iterator it, std::vector<GivenUp>& out);
    Map::iterator Oldest();

    Limits limits_;
    Clock clock_;
    Map datagrams_;
    size_t fragmentCount_ = 0;
    uint64_t nextSequence_ = 0;
};

}  // namespace NativeNetworkDriver
