// peersim: stands in for the head-unit services the CB radio service uses as a client.
//
// Owns the bus names of AudioManager, PersistentKeyValue, TextToSpeechService, DiagnosticService,
// ModeManager, MERIDOOnOff and CAN_HMI (or those given with --only) on the session bus, answers
// their methods as PeerServices decides and emits their signals on command. Commands (see
// PeerCommand) come from --cmd and --script in the order given, then from standard input.
// Every call, answer and signal is logged, one time-stamped line each, on standard output and in
// --log=FILE. SIGINT, SIGTERM or "quit" end it; exit status 1 when the bus went away.
#include "PeerBus.h"
#include "PeerCommand.h"
#include "PeerLog.h"
#include "PeerServices.h"
#include "PeerSpeaker.h"

#include "CommandInput.h"
#include "ToolProcess.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>

namespace
{
PeerBus* gBus = nullptr;
std::atomic<bool> gQuit(false);
std::mutex gQuitMutex;
std::condition_variable gQuitChanged;

void onSignal(int)
{
    gQuit.store(true, std::memory_order_relaxed);
    if (gBus)
        gBus->stop();
}

void quit()
{
    gQuit.store(true, std::memory_order_relaxed);
    gBus->stop();
    std::lock_guard<std::mutex> lock(gQuitMutex);
    gQuitChanged.notify_all();
}

bool quitting()
{
    return gQuit.load(std::memory_order_relaxed);
}

// Sleeps for `ms`, or less when peersim is told to quit; false then.
bool pause(long ms)
{
    std::unique_lock<std::mutex> lock(gQuitMutex);
    gQuitChanged.wait_for(lock, std::chrono::milliseconds(ms), [] { return quitting(); });
    return !quitting();
}

class Commands
{
public:
    Commands(PeerServices& services, PeerBus& bus, PeerLog& log) : mServices(services), mBus(bus), mLog(log) {}

    // False when peersim is to stop.
    bool execute(const std::string& line)
    {
        const PeerCommand c = PeerCommand::parse(line);
        switch (c.kind) {
        case PeerCommand::NONE:
            break;
        case PeerCommand::HELP:
            std::fputs(PeerCommand::helpText(), stdout);
            std::fflush(stdout);
            break;
        case PeerCommand::QUIT:
            quit();
            return false;
        case PeerCommand::SLEEP:
            return pause(c.number);
        case PeerCommand::STATUS: {
            std::istringstream lines(mServices.describe() + "\n" + presence());
            for (std::string l; std::getline(lines, l);)
                mLog.note(l);
            break;
        }
        case PeerCommand::JOIN:
        case PeerCommand::LEAVE:
        case PeerCommand::BOUNCE:
            for (Peer p : c.peers)
                if (c.kind != PeerCommand::JOIN)
                    mBus.leave(p);
            if (c.kind == PeerCommand::BOUNCE && !pause(c.number))
                return false;
            for (Peer p : c.peers)
                if (c.kind != PeerCommand::LEAVE)
                    mBus.join(p);
            break;
        case PeerCommand::ERROR:
            mLog.note("error: " + c.text);
            break;
        default: {
            const PeerOutcome out = mServices.apply(c);
            if (!out.message.empty()) {
                std::istringstream lines(out.message);
                for (std::string l; std::getline(lines, l);)
                    mLog.note(out.ok ? l : "error: " + l);
            }
            for (const PeerSignal& s : out.signals)
                mBus.emit(s);
            break;
        }
        }
        return !quitting();
    }

private:
    std::string presence() const
    {
        std::string on, off;
        for (int i = 0; i < kPeerCount; ++i)
            ((mBus.isJoined(peerAt(i)) ? on : off) += " ") += peerName(peerAt(i));
        return "on the bus:" + (on.empty() ? std::string(" none") : on) +
               (off.empty() ? std::string() : "\noff the bus:" + off);
    }

    PeerServices& mServices;
    PeerBus& mBus;
    PeerLog& mLog;
};

void usage()
{
    std::printf("usage: peersim [--cmd \"COMMAND\"]... [--script FILE]... [--log=FILE] [--only=NAME,NAME...]\n"
                "               [--kv-file=FILE] [--speak-dir=DIR] [--no-stdin]\n"
                "Stands in for the head-unit services the CB radio service calls, on the session bus\n"
                "(DBUS_SESSION_BUS_ADDRESS). The key-value store lives in --kv-file, by default\n"
                "$CBRADIO_ROOT/var/lib/peersim/keyvalue.json. --cmd and --script run in the given order,\n"
                "then commands are read from standard input.\n\n%s",
                PeerCommand::helpText());
}

bool parseOnly(const std::string& list, bool wanted[kPeerCount])
{
    for (int i = 0; i < kPeerCount; ++i)
        wanted[i] = false;
    std::istringstream words(list);
    for (std::string w; std::getline(words, w, ',');) {
        Peer p;
        if (!findPeer(w, p)) {
            std::fprintf(stderr, "peersim: unknown service '%s' in --only\n", w.c_str());
            return false;
        }
        wanted[static_cast<int>(p)] = true;
    }
    return true;
}
}

namespace
{
struct Options
{
    std::string logPath, kvPath = KeyValueFile::defaultPath(), speakDir;
    bool wanted[kPeerCount] = {true, true, true, true, true, true, true};
};

// The exit status when the arguments end the tool (help, an error); -1 to go on.
int parseArguments(int argc, char** argv, CommandInput& input, Options& o)
{
    std::string value;
    for (int i = 1; i < argc; ++i) {
        if (input.takeOption(argc, argv, i))
            continue;
        const std::string a = argv[i];
        if (takeOptionValue(a, "--log", value))
            o.logPath = value;
        else if (takeOptionValue(a, "--kv-file", value))
            o.kvPath = value;
        else if (takeOptionValue(a, "--speak-dir", value))
            o.speakDir = value;
        else if (takeOptionValue(a, "--only", value)) {
            if (!parseOnly(value, o.wanted))
                return 2;
        } else
            return refuseArgument("peersim", a, usage);
    }
    return -1;
}
}

int main(int argc, char** argv)
{
    CommandInput input;
    Options o;
    const int refused = parseArguments(argc, argv, input, o);
    if (refused >= 0)
        return refused;

    FILE* logFile = nullptr;
    if (!o.logPath.empty() && (logFile = openLogFile("peersim", o.logPath)) == nullptr)
        return 1;
    PeerLog log(logFile);
    PeerServices services(o.kvPath);
    std::string error;
    if (!services.loadStore(error))
        log.note("error: " + error);
    log.note("key-value store " + o.kvPath);
    PeerSpeaker speaker(log, o.speakDir);
    PeerBus bus(log, [&](Peer peer, const std::string& method, const std::string& params) {
        PeerAnswer a = services.onCall(peer, method, params);
        if (!a.speak.empty())
            speaker.speak(a.speak);
        return a;
    });
    if (!bus.connect(error)) {
        std::fprintf(stderr, "peersim: %s\n", error.c_str());
        return 1;
    }
    gBus = &bus;
    catchStopSignals(onSignal);

    std::string ready;
    for (int i = 0; i < kPeerCount; ++i)
        if (o.wanted[i] && bus.join(peerAt(i)))
            ready += std::string(" ") + peerName(peerAt(i));
    log.note("ready:" + (ready.empty() ? std::string(" no service") : ready));
    if (!bus.start())
        return 1;

    Commands commands(services, bus, log);
    std::thread reader([&] {
        input.run([&](const std::string& line) { return commands.execute(line); },
                  [&](const std::string& text) { log.note(text); }, "peersim> ");
    });
    reader.detach();

    const int status = bus.wait();
    log.note("stopped");
    endTool(logFile, status);
}
