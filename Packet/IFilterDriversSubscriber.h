#pragma once
#include <string>

#include "Packet/Frame.h"
#include "Packet/FrameView.h"
#include "Packet/SuperFrame.h"

namespace NativeNetworkDriver {

// A session that wants the frames of some adapters. A true result consumes the frame:
// later subscribers do not see it and it is not passed on. A subscriber may change a
// frame it consumes (to send it on translated) and must leave alone one it does not.
// A frame's offload state says whether it is a super-frame or carries a partial checksum
// (see Packet/SuperFrame.h); fragments are always wire frames. Each frame comes with the
// view the publisher read of it (of a datagram's fragments, the view of the fragment at
// offset 0, the first in the list), so that no subscriber parses it again.
class IFilterDriversSubscriber {
public:
    virtual ~IFilterDriversSubscriber() = default;
    virtual bool OnSentFragments(Nat::FragmentList& fragments, const Nat::FrameView& head, const std::string& guid) = 0;
    virtual bool OnSentFrame(Nat::Frame& frame, const Nat::FrameView& view, const Nat::FrameOffload& offload,
                             const std::string& guid) = 0;
    virtual bool OnReceivedFragments(Nat::FragmentList& fragments, const Nat::FrameView& head,
                                     const std::string& guid) = 0;
    virtual bool OnReceivedFrame(Nat::Frame& frame, const Nat::FrameView& view, const Nat::FrameOffload& offload,
                                 const std::string& guid) = 0;
};

}  // namespace NativeNetworkDriver
