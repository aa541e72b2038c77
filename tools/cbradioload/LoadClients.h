// LoadClients: the callers and the signal listener of a load run against the CB radio service.
//
// start() opens, on the session bus named by DBUS_SESSION_BUS_ADDRESS, one private connection per
// client and one for the listener, subscribes the listener to every signal of the service and
// starts one thread per client. Each client calls the methods of the mix one after another
// (client k starts at entry k, so the clients do not move in step) with a blocking invoke of
// Options::timeoutMs, until stop(). Every call begun while counting is on (from start() until
// endCount()) is counted when it ends: answered (a result text; "failure" results are counted
// apart), timed out, or another error (both also grouped by call and error text), with its
// latency.
//
// stop() waits for every client to finish its current call, at most the call time-out plus two
// seconds; a client still stuck after that is left behind (its state stays alive) and reported
// by stuckClients(). Connections of stuck clients are not closed.
//
// Threads: start(), endCount(), figures() and stop() belong to one controlling thread; the
// listener counts on service-IPC library threads.
#ifndef LOADCLIENTS_H
#define LOADCLIENTS_H

#include "svcipc.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

struct LoadCall
{
    std::string method;
    std::string params;
};

// Radio on and off, seeks, squelch, presets, versions, weather alert and property queries: every
// method that answers at once and needs no peer service.
std::vector<LoadCall> defaultLoadMix();

struct LoadFigures
{
    uint64_t calls = 0;
    uint64_t answered = 0;        // a result came back (including "failure" results)
    uint64_t failureResults = 0;  // of those, {"code":1,...}
    uint64_t timeouts = 0;
    uint64_t errors = 0;                         // neither an answer nor a time-out
    std::map<std::string, uint64_t> errorKinds;  // time-outs and errors by call and error text
    uint64_t signals = 0;
    double seconds = 0;  // length of the counting period
    uint32_t p50Us = 0, p99Us = 0, maxUs = 0;

    double callsPerSecond() const { return seconds > 0 ? calls / seconds : 0; }
};

class LoadClients
{
public:
    struct Options
    {
        int clients = 4;
        int timeoutMs = 2000;
        std::vector<LoadCall> mix = defaultLoadMix();
    };

    explicit LoadClients(const Options& options);
    ~LoadClients();
    LoadClients(const LoadClients&) = delete;
    LoadClients& operator=(const LoadClients&) = delete;

    // False, with error() saying why, when the library or a connection could not be set up.
    bool start();
    // Calls begun from now on (and signals) are no longer counted; returns once the counted calls
    // still under way have ended (at most the call time-out plus a second). The clients go on
    // calling until stop().
    void endCount();
    LoadFigures figures() const;
    void stop();
    int stuckClients() const { return mStuck; }
    const std::string& error() const { return mError; }

    static const char* const kServiceName;
    static const char* const kServicePath;

private:
    struct Shared;
    struct Client;

    static void clientLoop(std::shared_ptr<Shared> shared, std::shared_ptr<Client> client, size_t first);
    static void onSignal(const char* sigName, const char* data, SVCIPC_tUserToken token);

    Options mOptions;
    std::shared_ptr<Shared> mShared;
    std::vector<std::shared_ptr<Client>> mClients;
    std::vector<std::thread> mThreads;
    SVCIPC_tConnection mListener = nullptr;
    std::vector<SVCIPC_tSigSubHnd> mSubscriptions;
    bool mInitialized = false;
    int mStuck = 0;
    std::string mError;
};

#endif
