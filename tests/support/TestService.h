// A service of the test's own on the service-IPC library, and the log its callbacks (and any
// other library callbacks) write to, for tests that meet the library or a client on a private bus.
#ifndef TESTSERVICE_H
#define TESTSERVICE_H

#include "svcipc.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// Lines added by callbacks, with the thread each came on, for the test thread to wait on.
struct CallbackLog
{
    std::mutex mutex;
    std::condition_variable cond;
    std::vector<std::string> lines;
    std::vector<std::thread::id> threads;

    void add(const std::string& line)
    {
        std::lock_guard<std::mutex> lock(mutex);
        lines.push_back(line);
        threads.push_back(std::this_thread::get_id());
        cond.notify_all();
    }
    bool waitFor(size_t count, std::chrono::milliseconds limit = std::chrono::seconds(5))
    {
        std::unique_lock<std::mutex> lock(mutex);
        return cond.wait_for(lock, limit, [&] { return lines.size() >= count; });
    }
    std::vector<std::string> snapshot()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return lines;
    }
    // Library callbacks whose token is a CallbackLog: "<signal>=<data>", "<name>|<old>|<new owner>".
    static void onSignal(const char* name, const char* data, SVCIPC_tUserToken token)
    {
        static_cast<CallbackLog*>(token)->add(std::string(name) + "=" + data);
    }
    static void onOwner(const char* name, const char* oldOwner, const char* newOwner, SVCIPC_tUserToken token)
    {
        static_cast<CallbackLog*>(token)->add(std::string(name) + "|" + oldOwner + "|" + newOwner);
    }
};

// Logs every request as "method(parms)", with " noreply" when no answer is wanted, then hands it
// to onRequest; without one it echoes ("echo:<parms>"), or keeps it when `hold` is set. Requests
// kept (also with keep()) get no result until the service is destroyed.
struct TestService
{
    std::function<void(SVCIPC_tReqContext, const std::string& method, const std::string& parms)> onRequest;
    bool hold = false;
    CallbackLog log;
    SVCIPC_tSvcRegHnd reg = nullptr;

    ~TestService()
    {
        std::lock_guard<std::mutex> lock(mHeldMutex);
        for (SVCIPC_tReqContext ctx : mHeld)
            SVCIPC_freeReqContext(ctx);
    }
    SVCIPC_tError registerOn(SVCIPC_tConnection conn, const char* name, const char* path)
    {
        return SVCIPC_registerService(conn, name, path, 0, &TestService::callback, this, &reg);
    }
    void keep(SVCIPC_tReqContext ctx)
    {
        std::lock_guard<std::mutex> lock(mHeldMutex);
        mHeld.push_back(ctx);
    }
    static void reply(SVCIPC_tReqContext ctx, const std::string& text)
    {
        SVCIPC_asyncReturnResult(ctx, text.c_str(), nullptr, nullptr);
        SVCIPC_freeReqContext(ctx);
    }

private:
    static void callback(SVCIPC_tReqContext ctx, const char* method, const char* parms, SVCIPC_tBool noReply,
                         SVCIPC_tUserToken token)
    {
        auto* self = static_cast<TestService*>(token);
        self->log.add(std::string(method) + "(" + parms + ")" + (noReply ? " noreply" : ""));
        if (self->onRequest)
            self->onRequest(ctx, method, parms);
        else if (self->hold)
            self->keep(ctx);
        else
            reply(ctx, "echo:" + std::string(parms));
    }

    std::mutex mHeldMutex;
    std::vector<SVCIPC_tReqContext> mHeld;
};

#endif
