#include "SvcIpcHandles.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <unordered_map>

namespace svcipc
{

namespace
{
// Handles start at an odd, large value so that small integers and typical pointers are never
// valid handles by accident. One counter for both tables: a number names one object of one kind.
const uintptr_t kFirstHandle = 0x5C1C0001u;
std::atomic<uintptr_t> gNext{kFirstHandle};

struct Table
{
    std::mutex mutex;
    std::unordered_map<uintptr_t, HandleEntry> entries;
};

// Request contexts come and go with every call: they live in a table of their own, so serving
// a call never contends with the other handles.
Table& table(HandleKind kind)
{
    static Table* main = new Table;  // both outlive every static and thread-local destructor
    static Table* requests = new Table;
    return kind == HandleKind::Request ? *requests : *main;
}
}  // namespace

namespace Handles
{

uintptr_t add(HandleKind kind, std::shared_ptr<Connection> conn, std::shared_ptr<void> object)
{
    const uintptr_t handle = gNext.fetch_add(2, std::memory_order_relaxed);
    Table& t = table(kind);
    std::lock_guard<std::mutex> lock(t.mutex);
    t.entries.emplace(handle, HandleEntry{kind, std::move(conn), std::move(object)});
    return handle;
}

bool get(uintptr_t handle, HandleKind kind, HandleEntry& out)
{
    Table& t = table(kind);
    std::lock_guard<std::mutex> lock(t.mutex);
    auto it = t.entries.find(handle);
    if (it == t.entries.end() || it->second.kind != kind)
        return false;
    out = it->second;
    return true;
}

bool remove(uintptr_t handle, HandleKind kind, HandleEntry* out)
{
    HandleEntry removed;
    {
        Table& t = table(kind);
        std::lock_guard<std::mutex> lock(t.mutex);
        auto it = t.entries.find(handle);
        if (it == t.entries.end() || it->second.kind != kind)
            return false;
        removed = std::move(it->second);
        t.entries.erase(it);
    }
    if (out)
        *out = std::move(removed);
    return true;
}

std::vector<HandleEntry> removeAllOf(const Connection* conn)
{
    std::vector<HandleEntry> removed;
    for (HandleKind kind : {HandleKind::Connection, HandleKind::Request}) {
        Table& t = table(kind);
        std::lock_guard<std::mutex> lock(t.mutex);
        for (auto it = t.entries.begin(); it != t.entries.end();) {
            if (it->second.conn.get() == conn) {
                removed.push_back(std::move(it->second));
                it = t.entries.erase(it);
            } else {
                ++it;
            }
        }
    }
    return removed;
}

std::vector<std::shared_ptr<Connection>> connections()
{
    std::vector<std::shared_ptr<Connection>> all;
    Table& t = table(HandleKind::Connection);
    std::lock_guard<std::mutex> lock(t.mutex);
    for (const auto& e : t.entries)
        if (e.second.kind == HandleKind::Connection && std::find(all.begin(), all.end(), e.second.conn) == all.end())
            all.push_back(e.second.conn);
    return all;
}

int connectionHandles(const Connection* conn)
{
    Table& t = table(HandleKind::Connection);
    std::lock_guard<std::mutex> lock(t.mutex);
    int n = 0;
    for (const auto& e : t.entries)
        if (e.second.kind == HandleKind::Connection && e.second.conn.get() == conn)
            ++n;
    return n;
}

}  // namespace Handles

}  // namespace svcipc
