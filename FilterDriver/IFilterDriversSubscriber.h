#pragma once
#include <string>

#include "Packet/Frame.h"

namespace NativeNetworkDriver {

// A session that wants the frames of some adapters. A true result consumes the frame:
// later subscribers do not see it and it is not passed on.
class IFilterDriversSubscriber {
public:
    virtual ~IFilterDriversSubscriber() = default;
    virtual bool OnSentFragments(const Nat::FragmentList& fragments, const std::string& guid) = 0;
    virtual bool OnSentFrame(const Nat::Frame& frame, const std::string& guid) = 0;
    virtual bool OnReceivedFragments(const Nat::FragmentList& fragments, const std::string& guid) = 0;
    virtual bool OnReceivedFrame(const Nat::Frame& frame, const std::string& guid) = 0;
};

}  // namespace NativeNetworkDriver
