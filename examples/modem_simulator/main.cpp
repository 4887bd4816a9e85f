// A modem without hardware: plays AT commands on a pseudo-terminal, by a script or a flight record.
#include "Simulator.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <sys/signalfd.h>
#include <unistd.h>
#include <vector>

namespace
{
constexpr int kUsageError = 2;

constexpr const char* kUsage =
    "usage: modem_simulator [--echo] [--link PATH] [--script FILE] [--replay FILE]\n"
    "                       [--trace]\n"
    "  --echo         repeat what is received; ATE0 and ATE1 switch it, too\n"
    "  --link PATH    make PATH a symbolic link to the device, as long as the modem is there\n"
    "  --script FILE  reactions that come before the built-in ones\n"
    "  --replay FILE  reactions from a flight record, and no built-in ones\n"
    "  --trace        print the commands and the texts that come\n"
    "Prints the path of the device and answers until SIGTERM or SIGINT.\n";

struct options_t {
    bool bEcho = false;
    bool bTrace = false;
    std::string szLink;
    std::string szScript;
    std::string szRecord;
};

bool bParse(const std::vector<std::string>& args, options_t& options)
{
    for (size_t i = 0; i < args.size(); ++i) {
        const bool bValue = i + 1 < args.size();
        if (args[i] == "--echo") {
            options.bEcho = true;
        } else if (args[i] == "--trace") {
            options.bTrace = true;
        } else if (args[i] == "--link" && bValue) {
            options.szLink = args[++i];
        } else if (args[i] == "--script" && bValue) {
            options.szScript = args[++i];
        } else if (args[i] == "--replay" && bValue) {
            options.szRecord = args[++i];
        } else {
            return false;
        }
    }
    return true;
}

void Append(script_t& script, const script_t& more)
{
    script.reactions.insert(script.reactions.end(), more.reactions.begin(), more.reactions.end());
    script.settings.insert(more.settings.begin(),
                           more.settings.end()); // what is set already, stays
}

script_t ScriptOf(const options_t& options)
{
    script_t script;
    if (!options.szScript.empty()) {
        script = ReadScript(options.szScript);
    }
    Append(script, options.szRecord.empty() ? BuiltInScript() : ReadFlightRecord(options.szRecord));
    return script;
}

int iSignalsThatCount()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int iSignal : {SIGTERM, SIGINT, SIGUSR1, SIGUSR2}) {
        sigaddset(&signals, iSignal);
    }
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
}
} // namespace

int main(int argc, char** argv)
{
    options_t options;
    if (!bParse(std::vector<std::string>(argv + 1, argv + argc), options)) {
        std::fputs(kUsage, stderr);
        return kUsageError;
    }
    try {
        const int iSignals = iSignalsThatCount(); // before anybody knows that it is ready
        Simulator simulator(ScriptOf(options), options.szLink, options.bEcho);
        std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ); // whoever waits for a line gets it
        std::printf("%s\n", simulator.szDevice().c_str());
        simulator.SetTrace(options.bTrace);
        simulator.Run(iSignals);
        close(iSignals);
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "modem_simulator: %s\n", exception.what());
        return 1;
    }
    return 0;
}
