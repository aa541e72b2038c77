#include "LoadClients.h"

#include "CBRadioBusNames.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

const char* const LoadClients::kServiceName = CBRadioBusNames::SERVICE_NAME;
const char* const LoadClients::kServicePath = CBRadioBusNames::SERVICE_OBJECT;

namespace
{
typedef std::chrono::steady_clock Clock;

const auto& kSignals = CBRadioBusNames::SERVICE_SIGNALS;

uint32_t percentile(std::vector<uint32_t>& sorted, double fraction)
{
    if (sorted.empty())
        return 0;
    const size_t at = std::min(sorted.size() - 1, static_cast<size_t>(fraction * sorted.size()));
    return sorted[at];
}
}

std::vector<LoadCall> defaultLoadMix()
{
    return {
        {"reqCBRStateChange", "{\"CBRState\":1}"},
        {"getProperties", "{\"props\":\"CBRChannelNumber\"}"},
        {"reqCBRStartSeek", "{\"seekDirection\":1}"},
        {"reqCBRAdjustSquelchLevel", "{\"squelchChg\":1}"},
        {"reqCBRGetPresetList", ""},
        {"reqCBRStorePreset", "{\"channelNumber\":19,\"presetNo\":3}"},
        {"reqCBRSelectPreset", "{\"PresetNo\":3}"},
        {"reqCBRHWVersion", ""},
        {"reqCBRWeatherAlertOnOff", "{\"CBRWAState\":1}"},
        {"reqCBRStateChange", "{\"CBRState\":0}"},
        {"getProperties", "{\"props\":\"CBRadioStatus\"}"},
        {"reqCBRAdjustSquelchLevel", "{\"squelchChg\":0}"},
        {"reqCBRStartSeek", "{\"seekDirection\":0}"},
        {"reqCBRSWVersion", ""},
    };
}

// What the clients and the listener share with the controlling thread; kept alive by every client
// thread, so one left behind never touches freed memory.
struct LoadClients::Shared
{
    std::vector<LoadCall> mix;
    int timeoutMs = 0;
    std::atomic<bool> running{true};
    std::atomic<bool> counting{true};
    std::atomic<uint64_t> signals{0};
    std::atomic<int> countedInFlight{0};
    Clock::time_point begun = Clock::now();
    Clock::time_point ended{};

    std::mutex doneMutex;
    std::condition_variable doneChanged;
    int done = 0;
};

struct LoadClients::Client
{
    SVCIPC_tConnection conn = nullptr;
    mutable std::mutex mutex;
    LoadFigures figures;
    std::vector<uint32_t> latenciesUs;
};

LoadClients::LoadClients(const Options& options) : mOptions(options), mShared(std::make_shared<Shared>())
{
    mShared->mix = options.mix;
    mShared->timeoutMs = options.timeoutMs;
}

LoadClients::~LoadClients()
{
    stop();
}

bool LoadClients::start()
{
    if (mOptions.mix.empty() || mOptions.clients <= 0) {
        mError = "nothing to call";
        return false;
    }
    SVCIPC_tError status = SVCIPC_initialize();
    if (status != 0) {
        mError = std::string("SVCIPC_initialize: ") + SVCIPC_errorText(status);
        return false;
    }
    mInitialized = true;
    status = SVCIPC_getConnection(SVCIPC_CONNECTION_SESSION, 1, &mListener);
    for (const char* name : kSignals) {
        if (status != 0)
            break;
        SVCIPC_tSigSubHnd sub = nullptr;
        status = SVCIPC_subscribe(mListener, kServicePath, name, &LoadClients::onSignal, mShared.get(), &sub);
        mSubscriptions.push_back(sub);
    }
    for (int i = 0; i < mOptions.clients && status == 0; ++i) {
        mClients.push_back(std::make_shared<Client>());
        status = SVCIPC_getConnection(SVCIPC_CONNECTION_SESSION, 1, &mClients.back()->conn);
    }
    if (status != 0) {
        mError = std::string("bus connection: ") + SVCIPC_errorText(status);
        return false;
    }
    mShared->begun = Clock::now();
    for (size_t i = 0; i < mClients.size(); ++i)
        mThreads.emplace_back(&LoadClients::clientLoop, mShared, mClients[i], i);
    return true;
}

void LoadClients::onSignal(const char*, const char*, SVCIPC_tUserToken token)
{
    Shared* shared = static_cast<Shared*>(token);
    if (shared->counting.load(std::memory_order_relaxed))
        shared->signals.fetch_add(1, std::memory_order_relaxed);
}

void LoadClients::clientLoop(std::shared_ptr<Shared> shared, std::shared_ptr<Client> client, size_t first)
{
    for (size_t next = first; shared->running.load(std::memory_order_relaxed); ++next) {
        const LoadCall& call = shared->mix[next % shared->mix.size()];
        SVCIPC_tResponse* response = nullptr;
        const bool counted = shared->counting.load(std::memory_order_relaxed);
        if (counted)
            shared->countedInFlight.fetch_add(1);
        const Clock::time_point t0 = Clock::now();
        const SVCIPC_tError status = SVCIPC_invoke(client->conn, kServiceName, kServicePath, call.method.c_str(),
                                                   call.params.c_str(), 0,
                                                   static_cast<SVCIPC_tUInt32>(shared->timeoutMs), &response);
        const auto us = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - t0).count();
        const bool failure = status == 0 && response != nullptr && response->result != nullptr &&
                             std::string(response->result).find("\"code\":1") != std::string::npos;
        if (response != nullptr)
            SVCIPC_freeResponse(response);
        if (!counted) {
            // A bus whose service has gone answers at once: do not spin against it.
            if (status != 0)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            continue;
        }
        std::unique_lock<std::mutex> lock(client->mutex);
        LoadFigures& f = client->figures;
        ++f.calls;
        client->latenciesUs.push_back(static_cast<uint32_t>(std::min<long long>(us, UINT32_MAX)));
        if (status == 0) {
            ++f.answered;
            f.failureResults += failure ? 1 : 0;
        } else {
            if (SVCIPC_GET_CODE(status) == SVCIPC_ERROR_TIMEOUT)
                ++f.timeouts;
            else
                ++f.errors;
            ++f.errorKinds[call.method + " " + call.params + ": " + SVCIPC_errorText(status)];
        }
        lock.unlock();
        shared->countedInFlight.fetch_sub(1);
    }
    std::lock_guard<std::mutex> lock(shared->doneMutex);
    ++shared->done;
    shared->doneChanged.notify_all();
}

void LoadClients::endCount()
{
    if (!mShared->counting.exchange(false))
        return;
    // The calls already under way still count, even when they end in a time-out.
    const auto deadline = Clock::now() + std::chrono::milliseconds(mOptions.timeoutMs + 1000);
    while (mShared->countedInFlight.load() > 0 && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    mShared->ended = Clock::now();
}

LoadFigures LoadClients::figures() const
{
    LoadFigures total;
    std::vector<uint32_t> latencies;
    for (const auto& client : mClients) {
        std::lock_guard<std::mutex> lock(client->mutex);
        const LoadFigures& f = client->figures;
        total.calls += f.calls;
        total.answered += f.answered;
        total.failureResults += f.failureResults;
        total.timeouts += f.timeouts;
        total.errors += f.errors;
        for (const auto& kind : f.errorKinds)
            total.errorKinds[kind.first] += kind.second;
        latencies.insert(latencies.end(), client->latenciesUs.begin(), client->latenciesUs.end());
    }
    std::sort(latencies.begin(), latencies.end());
    total.p50Us = percentile(latencies, 0.50);
    total.p99Us = percentile(latencies, 0.99);
    total.maxUs = latencies.empty() ? 0 : latencies.back();
    total.signals = mShared->signals.load(std::memory_order_relaxed);
    const Clock::time_point end = mShared->counting.load() ? Clock::now() : mShared->ended;
    total.seconds = std::chrono::duration<double>(end - mShared->begun).count();
    return total;
}

void LoadClients::stop()
{
    endCount();
    mShared->running.store(false, std::memory_order_relaxed);
    if (!mThreads.empty()) {
        std::unique_lock<std::mutex> lock(mShared->doneMutex);
        const auto deadline = Clock::now() + std::chrono::milliseconds(mOptions.timeoutMs + 2000);
        mShared->doneChanged.wait_until(lock, deadline,
                                        [&] { return mShared->done == static_cast<int>(mThreads.size()); });
        mStuck = static_cast<int>(mThreads.size()) - mShared->done;
    }
    for (std::thread& t : mThreads) {
        if (mStuck == 0)
            t.join();  // each is past its last call
        else
            t.detach();  // a stuck one holds its own state
    }
    mThreads.clear();
    for (SVCIPC_tSigSubHnd sub : mSubscriptions)
        if (sub != nullptr)
            SVCIPC_unsubscribe(sub);
    mSubscriptions.clear();
    if (mListener != nullptr)
        SVCIPC_closeConnection(mListener);
    mListener = nullptr;
    if (mStuck == 0) {
        for (const auto& client : mClients)
            if (client->conn != nullptr)
                SVCIPC_closeConnection(client->conn);
        if (mInitialized)
            SVCIPC_shutdown();
        mInitialized = false;
    }
    for (const auto& client : mClients)
        client->conn = nullptr;
}
