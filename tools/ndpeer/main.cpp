// ndpeer: the native side of NetworkDriver's pipes, for people and for tests.
#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>

#include "Peer.h"
#include "Scenario.h"
#include "SystemAdapters.h"

int main(int argc, char** argv) {
    CLI::App app{"ndpeer: plays the native side of NetworkDriver's two pipes"};
    ndpeer::PeerOptions options;
    const char* envDir = std::getenv("NETWORKDRIVER_PIPE_DIR");
    options.pipeDir = envDir != nullptr ? envDir : "/run/networkdriver";
    std::string scenarioPath, request, tapMac;
    std::string supervisorMac = "02:00:00:00:00:01";
    std::vector<std::string> adapters;
    bool promiscuous = false, vm = false;

    app.add_option("--pipe-dir", options.pipeDir, "folder of the pipe sockets (Linux; Windows pipes have fixed names)")
        ->type_name("DIR")
        ->capture_default_str();
    app.add_option("--daemon", options.daemonPath, "start this NetworkDriver binary")->type_name("PATH");
    app.add_option("--scenario", scenarioPath, "JSON scenario file to run")->type_name("FILE");
    app.add_option("--request", request,
                   "one request instead of a scenario: init, start-vpn, add-mac, remove-mac, stop-vpn, stop-ics, stop-nat")
        ->type_name("NAME");
    app.add_option("--adapter", adapters, "interface for start-vpn (repeatable)")->type_name("IFACE");
    app.add_option("--mac", supervisorMac, "supervisor MAC for start-vpn, add-mac, remove-mac")
        ->type_name("MAC")
        ->capture_default_str();
    app.add_flag("--promiscuous", promiscuous, "VpnPromiscuousMode");
    app.add_flag("--vm", vm, "HandleVirtualMachine for init");
    app.add_option("--tap", options.tapName, "bridge tunnel frames to this tap device")->type_name("NAME");
    app.add_option("--tap-mac", tapMac, "MAC address of the tap device")->type_name("MAC");
    app.add_option("--tap-netns", options.tapNetns, "network namespace to make the tap in")->type_name("NS");
    app.add_option("--daemon-netns", options.daemonNetns, "network namespace to start the daemon in")->type_name("NS");
    app.add_option("--hold", options.hold, "keep serving this many seconds after the steps (-1: until Ctrl-C)")
        ->type_name("SECONDS");
    app.add_option("--connect-timeout", options.connectTimeout, "seconds to wait for the daemon")
        ->type_name("SECONDS")
        ->capture_default_str();
    app.add_option("--answer-timeout", options.answerTimeout, "seconds to wait for each answer")
        ->type_name("SECONDS")
        ->capture_default_str();
    app.add_flag("--show-frames", options.showFrames, "print every tunnel frame");
    app.add_option("--pcap", options.pcapPath, "write every tunnel frame, both directions, to this pcap file")
        ->type_name("FILE");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // --help arrives here too, with status 0; every other parse error is a usage error.
        return app.exit(e) == 0 ? 0 : 2;
    }

    try {
        if (!tapMac.empty()) options.tapMac = ndpeer::ParseMac(tapMac);
        ndpeer::Scenario scenario;
        if (!scenarioPath.empty()) {
            scenario = ndpeer::LoadScenario(scenarioPath);
        } else if (!request.empty()) {
            static const std::map<std::string, std::string> names = {
                {"init", "InitializeConfiguration"}, {"start-vpn", "StartVPN"},
                {"add-mac", "AddSupervisorMACToVPN"}, {"remove-mac", "RemoveSupervisorMACFromVPN"},
                {"stop-vpn", "StopVPN"},              {"stop-ics", "StopICS"},
                {"stop-nat", "StopNAT"}};
            const auto name = names.find(request);
            if (name == names.end()) throw ndpeer::ScenarioError("--request: unknown request \"" + request + "\"");
            nlohmann::json step = {{"send", name->second},
                                   {"HandleVirtualMachine", vm},
                                   {"SupervisorMACAddress", supervisorMac},
                                   {"VpnPromiscuousMode", promiscuous},
                                   {"adapters", adapters},
                                   {"expect", nlohmann::json::object()}};
            scenario.steps.push_back(ndpeer::ParseStep(step, "command line", "request"));
        }
        ndpeer::Peer peer(options);
        return peer.Run(scenario);
    } catch (const ndpeer::ScenarioError& e) {
        std::cerr << "ndpeer: " << e.what() << std::endl;
        return 2;
    } catch (const std::exception& e) {
        std::cerr << "ndpeer: " << e.what() << std::endl;
        return 2;
    }
}
