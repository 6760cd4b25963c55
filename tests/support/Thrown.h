#pragma once
#include <functional>
#include <string>

#include "Packet/NatException.h"

namespace ndtest {

// The text of the E that `action` throws (Message() of a Nat::Exception, what() of a
// standard exception), or "<nothing thrown>". Any other exception escapes and fails the test.
template <typename E = Nat::Exception>
std::string Thrown(const std::function<void()>& action) {
    try {
        action();
    } catch (const E& e) {
        if constexpr (requires { e.Message(); })
            return e.Message();
        else
            return e.what();
    }
    return "<nothing thrown>";
}

}  // namespace ndtest
