#include "Scenario.h"

#include <fstream>

#include "NetworkDriver/Messages.h"
#include "SystemAdapters.h"

namespace ndpeer {

namespace nd = NativeNetworkDriver;
using nlohmann::json;

namespace {

// Reads fields of one JSON object and names the exact field in every error.
class Fields {
public:
    Fields(const json& object, std::string origin, std::string where)
        : object_(object), origin_(std::move(origin)), where_(std::move(where)) {
        if (!object_.is_object()) Fail(where_, "expected an object");
    }

    [[noreturn]] void Fail(const std::string& field, const std::string& reason) const {
        throw ScenarioError(origin_ + ": " + field + ": " + reason);
    }
    std::string Path(const std::string& key) const { return where_.empty() ? key : where_ + "." + key; }
    bool Has(const std::string& key) const { return object_.contains(key); }
    const json& At(const std::string& key) const {
        if (!Has(key)) Fail(Path(key), "missing");
        return object_.at(key);
    }

    std::string String(const std::string& key, std::optional<std::string> fallback = std::nullopt) const {
        if (!Has(key) && fallback) return *fallback;
        const json& v = At(key);
        if (!v.is_string()) Fail(Path(key), "expected a string");
        return v.get<std::string>();
    }
    bool Bool(const std::string& key, bool fallback) const {
        if (!Has(key)) return fallback;
        if (!At(key).is_boolean()) Fail(Path(key), "expected true or false");
        return At(key).get<bool>();
    }
    uint32_t Number(const std::string& key, std::optional<uint32_t> fallback, uint64_t max = 0xFFFFFFFFull) const {
        if (!Has(key) && fallback) return *fallback;
        const json& v = At(key);
        if (!v.is_number_unsigned() && !(v.is_number_integer() && v.get<int64_t>() >= 0))
            Fail(Path(key), "expected a whole number from 0 to " + std::to_string(max));
        const uint64_t n = v.get<uint64_t>();
        if (n > max) Fail(Path(key), "expected a whole number from 0 to " + std::to_string(max));
        return static_cast<uint32_t>(n);
    }
    double Seconds(const std::string& key) const {
        const json& v = At(key);
        if (!v.is_number() || v.get<double>() < 0) Fail(Path(key), "expected a number of seconds");
        return v.get<double>();
    }
    nd::Bytes Mac(const std::string& key, bool required = true) const {
        if (!Has(key) && !required) return {};
        return Parse(key, ParseMac);
    }
    nd::Bytes Ip(const std::string& key, bool required = true) const {
        if (!Has(key) && !required) return {};
        return Parse(key, ParseIp);
    }
    nd::Bytes Hex(const std::string& key) const {
        const std::string text = String(key);
        nd::Bytes bytes;
        std::string digits;
        for (char c : text)
            if (!std::isspace(static_cast<unsigned char>(c))) digits.push_back(c);
        if (digits.size() % 2 != 0) Fail(Path(key), "odd number of hex digits");
        for (size_t i = 0; i < digits.size(); i += 2) {
            try {
                size_t used = 0;
                bytes.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), &used, 16)));
                if (used != 2) throw std::invalid_argument("");
            } catch (const std::exception&) {
                Fail(Path(key), "not hexadecimal: \"" + digits.substr(i, 2) + "\"");
            }
        }
        return bytes;
    }
    template <typename T, typename F>
    std::vector<T> List(const std::string& key, F&& readElement) const {
        std::vector<T> list;
        if (!Has(key)) return list;
        const json& v = At(key);
        if (!v.is_array()) Fail(Path(key), "expected a list");
        for (size_t i = 0; i < v.size(); ++i) list.push_back(readElement(v[i], Path(key) + "[" + std::to_string(i) + "]"));
        return list;
    }
    const std::string& Origin() const { return origin_; }

private:
    template <typename F>
    nd::Bytes Parse(const std::string& key, F&& parse) const {
        const std::string text = String(key);
        try {
            return parse(text);
        } catch (const std::exception& e) {
            Fail(Path(key), e.what());
        }
    }

    const json& object_;
    std::string origin_;
    std::string where_;
};

// "a.b.c.d/len": an address with its mask.
nd::IpEntry ParseIpWithPrefix(const std::string& text) {
    const size_t slash = text.find('/');
    if (slash == std::string::npos) throw std::invalid_argument("expected address/prefix-length: \"" + text + "\"");
    nd::IpEntry entry{ParseIp(text.substr(0, slash)), nd::Bytes(4, 0)};
    const std::string digits = text.substr(slash + 1);
    const bool number = !digits.empty() && digits.size() <= 2 && digits.find_first_not_of("0123456789") == std::string::npos;
    const unsigned length = number ? static_cast<unsigned>(std::stoul(digits)) : 99;
    if (length > 32) throw std::invalid_argument("expected a prefix length from 0 to 32: \"" + text + "\"");
    for (unsigned bit = 0; bit < length; ++bit) entry.mask[bit / 8] |= static_cast<uint8_t>(0x80 >> (bit % 8));
    return entry;
}

// An adapter is an interface name, or an object naming the interface with overrides.
// "absent": true describes an interface that need not exist here (its GUID from the name,
// addresses only from the overrides), for requests that name a missing adapter.
nd::AdapterInfo ReadAdapterField(const json& value, const std::string& origin, const std::string& where) {
    std::string name;
    bool absent = false;
    if (value.is_string()) {
        name = value.get<std::string>();
    } else {
        Fields f(value, origin, where);
        name = f.String("interface");
        absent = f.Bool("absent", false);
    }
    nd::AdapterInfo info;
    try {
        if (absent) {
            info.ID = nd::FormatGuid(InterfaceGuid(name));
            info.name = name;
        } else {
            info = ReadAdapter(name);
        }
    } catch (const std::exception& e) {
        throw ScenarioError(origin + ": " + where + ": " + e.what());
    }
    if (value.is_object()) {
        Fields f(value, origin, where);
        if (f.Has("ip")) {
            try {
                info.IPs = {ParseIpWithPrefix(f.String("ip"))};
            } catch (const std::invalid_argument& e) {
                f.Fail(f.Path("ip"), e.what());
            }
        }
        if (f.Has("gatewayIp")) info.GWIP = f.Ip("gatewayIp");
        if (f.Has("gatewayMac")) info.GWMAC = f.Mac("gatewayMac");
        if (f.Has("mac")) info.MAC = f.Mac("mac");
    }
    return info;
}

nd::AdapterInfo Adapter(const Fields& f, const std::string& key) {
    return ReadAdapterField(f.At(key), f.Origin(), f.Path(key));
}

nd::ProxyInfo ReadProxy(const Fields& f) {
    nd::ProxyInfo proxy;
    if (!f.Has("proxy")) return proxy;
    Fields p(f.At("proxy"), f.Origin(), f.Path("proxy"));
    proxy.hasProxy = p.Bool("hasProxy", true);
    proxy.ProxyMacAddress = p.Mac("mac", false);
    proxy.ProxyPort = p.Number("port", 0, 65535);
    proxy.ProxyIpAddress = p.Ip("ip", false);
    return proxy;
}

std::vector<nd::Bytes> ReadWhiteList(const Fields& f) {
    return f.List<nd::Bytes>("macWhiteList", [&](const json& v, const std::string& where) {
        if (!v.is_string()) Fields(json::object(), f.Origin(), "").Fail(where, "expected a MAC address string");
        try {
            return ParseMac(v.get<std::string>());
        } catch (const std::exception& e) {
            throw ScenarioError(f.Origin() + ": " + where + ": " + e.what());
        }
    });
}

uint32_t ReadProtocol(const Fields& f) {
    if (!f.Has("protocol")) return 6;
    const json& v = f.At("protocol");
    if (v.is_string()) {
        const std::string p = v.get<std::string>();
        if (p == "TCP" || p == "tcp") return 6;
        if (p == "UDP" || p == "udp") return 17;
        f.Fail(f.Path("protocol"), "expected \"TCP\", \"UDP\" or a protocol number");
    }
    return f.Number("protocol", std::nullopt, 255);
}

nd::RedirectRule ReadRule(const json& v, const std::string& origin, const std::string& where) {
    Fields f(v, origin, where);
    nd::RedirectRule rule;
    rule.fromAdapter = Adapter(f, "fromAdapter");
    rule.fromPort = f.Number("fromPort", std::nullopt, 65535);
    rule.protocol = ReadProtocol(f);
    rule.toAdapter = Adapter(f, "toAdapter");
    rule.toIP = f.Ip("toIp");
    rule.toPort = f.Number("toPort", std::nullopt, 65535);
    rule.translateSource = f.Bool("translateSource", false);
    rule.httpHostFieldTranslation = f.Bool("httpHostTranslation", false);
    rule.ftpSupport = f.Bool("ftpSupport", false);
    rule.fromIPs = f.List<nd::FromIpRange>("fromIpRanges", [&](const json& r, const std::string& at) {
        Fields range(r, origin, at);
        return nd::FromIpRange{range.Ip("low"), range.Ip("high"), range.Ip("mask", false)};
    });
    return rule;
}

Expectation ReadExpectation(const Fields& step) {
    Fields f(step.At("expect"), step.Origin(), step.Path("expect"));
    Expectation e;
    e.none = f.Bool("none", false);
    if (f.Has("type")) e.type = f.Number("type", std::nullopt);
    if (f.Has("result")) e.result = f.Number("result", std::nullopt);
    if (f.Has("payloadHex")) e.payload = f.Hex("payloadHex");
    if (f.Has("messageHex")) e.message = f.Hex("messageHex");
    return e;
}

}  // namespace

Step ParseStep(const json& value, const std::string& origin, const std::string& where) {
    Fields f(value, origin, where);
    Step step;
    if (f.Has("sleep")) {
        step.kind = Step::Kind::Sleep;
        step.seconds = f.Seconds("sleep");
        return step;
    }
    if (f.Has("closePipe")) {
        step.kind = Step::Kind::ClosePipe;
        return step;
    }
    if (f.Has("waitFile")) {
        // Lets a test script choose when the following steps run: it creates the file.
        step.kind = Step::Kind::WaitFile;
        step.path = f.String("waitFile");
        if (step.path.empty()) f.Fail(f.Path("waitFile"), "expected a file path");
        step.seconds = f.Has("within") ? f.Seconds("within") : 60.0;
        return step;
    }
    if (f.Has("expectExit")) {
        Fields e(f.At("expectExit"), origin, f.Path("expectExit"));
        step.kind = Step::Kind::ExpectExit;
        step.exitCode = static_cast<int>(e.Number("code", 0, 255));
        step.seconds = e.Has("within") ? e.Seconds("within") : 10.0;
        return step;
    }
    if (f.Has("expectFrame")) {
        // The next tunnel frame (type 2) from the daemon, when no tap takes them.
        Fields e(f.At("expectFrame"), origin, f.Path("expectFrame"));
        step.kind = Step::Kind::ExpectFrame;
        step.payload = e.Hex("hex");
        step.seconds = e.Has("within") ? e.Seconds("within") : 10.0;
        return step;
    }
    step.name = f.String("send");
    if (f.Has("expect")) step.expect = ReadExpectation(f);
    const std::string& n = step.name;
    if (n == "InitializeConfiguration") {
        step.type = nd::kInitializeConfiguration;
        step.payload = nd::Encode(nd::InitializeConfigurationRequest{f.Bool("HandleVirtualMachine", false)});
    } else if (n == "StartVPN") {
        nd::StartVPNRequest r;
        r.SupervisorMACAddress = f.Mac("SupervisorMACAddress");
        r.VpnPromiscuousMode = f.Bool("VpnPromiscuousMode", false);
        r.guids = f.List<nd::Bytes>("adapters", [&](const json& a, const std::string& at) {
            if (!a.is_string()) f.Fail(at, "expected an interface name");
            return InterfaceGuid(a.get<std::string>());
        });
        step.type = nd::kStartVPN;
        step.payload = nd::Encode(r);
    } else if (n == "AddSupervisorMACToVPN") {
        step.type = nd::kAddSupervisorMACToVPN;
        step.payload = nd::Encode(
            nd::AddSupervisorMACToVPNRequest{f.Mac("SupervisorMACAddress"), f.Bool("VpnPromiscuousMode", false)});
    } else if (n == "RemoveSupervisorMACFromVPN") {
        step.type = nd::kRemoveSupervisorMACFromVPN;
        step.payload = nd::Encode(nd::RemoveSupervisorMACFromVPNRequest{f.Mac("SupervisorMACAddress")});
    } else if (n == "StopVPN" || n == "StopICS" || n == "StopNAT") {
        step.type = n == "StopVPN" ? nd::kStopVPN : n == "StopICS" ? nd::kStopICS : nd::kStopNAT;
    } else if (n == "StartICS") {
        nd::StartICSRequest r;
        r.sharedAdapter = Adapter(f, "sharedAdapter");
        r.internalAdapters = f.List<nd::AdapterInfo>("internalAdapters", [&](const json& a, const std::string& at) {
            return ReadAdapterField(a, origin, at);
        });
        r.proxy = ReadProxy(f);
        r.MacAddressWhiteList = ReadWhiteList(f);
        r.TcpPortPoolSize = f.Number("tcpPortPoolSize", 100);
        r.UdpPortPoolSize = f.Number("udpPortPoolSize", 100);
        r.IcsTableEntryTimeout = f.Number("timeout", 60000);
        step.type = nd::kStartICS;
        step.payload = nd::Encode(r);
    } else if (n == "StartNAT") {
        nd::StartNATRequest r;
        r.rules = f.List<nd::RedirectRule>("rules", [&](const json& v, const std::string& at) {
            return ReadRule(v, origin, at);
        });
        r.mappings = f.List<nd::AdapterMapping>("mappings", [&](const json& v, const std::string& at) {
            Fields m(v, origin, at);
            return nd::AdapterMapping{Adapter(m, "external"), Adapter(m, "internal")};
        });
        r.proxy = ReadProxy(f);
        r.MacAddressWhiteList = ReadWhiteList(f);
        r.TcpPortPoolSize = f.Number("tcpPortPoolSize", 100);
        r.UdpPortPoolSize = f.Number("udpPortPoolSize", 100);
        r.DNatTableEntryTimeout = f.Number("timeout", 60000);
        r.ReservedPortPoolLowerBound = f.Number("reservedPortLower", 0, 65535);
        r.ReservedPortPoolUpperBound = f.Number("reservedPortUpper", 0, 65535);
        step.type = nd::kStartNAT;
        step.payload = nd::Encode(r);
    } else if (n == "Frame") {
        step.type = nd::kVpnFrame;
        step.payload = f.Hex("hex");
    } else if (n == "Raw") {
        // Bytes exactly as given, header included: for malformed input.
        step.rawBytes = f.Hex("hex");
    } else if (n == "Message") {
        // Any type with any payload, framed.
        step.type = f.Number("type", std::nullopt);
        step.payload = f.Has("payloadHex") ? f.Hex("payloadHex") : nd::Bytes{};
    } else {
        f.Fail(f.Path("send"), "unknown request \"" + n +
                                   "\" (InitializeConfiguration, StartVPN, AddSupervisorMACToVPN, "
                                   "RemoveSupervisorMACFromVPN, StopVPN, StartICS, StopICS, StartNAT, StopNAT, "
                                   "Frame, Message, Raw)");
    }
    // Length changes for the stream tests: zero bytes appended, or the tail cut off. The
    // header announces the changed length.
    if (f.Has("padTo")) {
        const uint32_t size = f.Number("padTo", std::nullopt, 64u << 20);
        if (size > step.payload.size()) step.payload.resize(size, 0);
    }
    if (f.Has("truncateBy")) {
        const uint32_t cut = f.Number("truncateBy", std::nullopt, step.payload.size());
        step.payload.resize(step.payload.size() - cut);
    }
    return step;
}

Scenario ParseScenario(const json& document, const std::string& origin) {
    Fields top(document, origin, "");
    Scenario scenario;
    scenario.tap = top.String("tap", std::string());
    (void)top.String("comment", std::string());  // free text for people
    if (!top.Has("steps")) top.Fail("steps", "missing");
    scenario.steps = top.List<Step>("steps", [&](const json& v, const std::string& at) { return ParseStep(v, origin, at); });
    return scenario;
}

Scenario LoadScenario(const std::string& path) {
    std::ifstream in(path);
    if (!in) throw ScenarioError(path + ": cannot be read");
    json document;
    try {
        document = json::parse(in);
    } catch (const json::parse_error& e) {
        throw ScenarioError(path + ": not valid JSON: " + e.what());
    }
    return ParseScenario(document, path);
}

}  // namespace ndpeer
