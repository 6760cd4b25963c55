#pragma once
// A scenario is what the peer does, step by step: send requests, check the answers, wait.
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace ndpeer {

struct Expectation {
    std::optional<uint32_t> type;
    std::optional<uint32_t> result;        // a result answer's value
    std::optional<std::vector<uint8_t>> payload;  // exact payload bytes
    std::optional<std::vector<uint8_t>> message;  // exact bytes of the whole answer, header included
    bool none = false;                     // no answer at all may come
};

struct Step {
    enum class Kind { Send, Sleep, ClosePipe, ExpectExit, ExpectFrame, WaitFile } kind = Kind::Send;
    std::string name;  // request name, for printing
    uint32_t type = 0;
    std::vector<uint8_t> payload;                  // Send; ExpectFrame: the frame
    std::optional<std::vector<uint8_t>> rawBytes;  // sent as they are, no framing
    std::optional<Expectation> expect;
    double seconds = 0;                   // Sleep; ExpectExit, ExpectFrame, WaitFile: how long to wait
    std::string path;                     // WaitFile
    int exitCode = 0;                     // ExpectExit
};

struct Scenario {
    std::vector<Step> steps;
    std::string tap;  // bridge frames to this tap device, if set
};

// Thrown for a scenario that cannot be used: names the file, the field and the reason.
class ScenarioError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

Scenario LoadScenario(const std::string& path);
Scenario ParseScenario(const nlohmann::json& document, const std::string& origin);
// One step from a JSON object (the command line builds these too).
Step ParseStep(const nlohmann::json& step, const std::string& origin, const std::string& where);

}  // namespace ndpeer
