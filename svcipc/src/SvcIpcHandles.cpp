#include "SvcIpcHandles.h"

#include <algorithm>
#include <mutex>
#include <unordered_map>

namespace svcipc
{

namespace
{
// Handles start at an odd, large value so that small integers and typical pointers are never
// valid handles by accident.
const uintptr_t kFirstHandle = 0x5C1C0001u;

struct Table
{
    std::mutex mutex;
    uintptr_t next = kFirstHandle;
    std::unordered_map<uintptr_t, HandleEntry> entries;
};

Table& table()
{
    static Table* t = new Table;  // outlives every static and thread-local destructor
    return *t;
}
}  // namespace

namespace Handles
{

uintptr_t add(HandleKind kind, std::shared_ptr<Connection> conn, std::shared_ptr<void> object)
{
    Table& t = table();
    std::lock_guard<std::mutex> lock(t.mutex);
    uintptr_t handle = t.next;
    t.next += 2;
    t.entries[handle] = HandleEntry{kind, std::move(conn), std::move(object)};
    return handle;
}

bool get(uintptr_t handle, HandleKind kind, HandleEntry& out)
{
    Table& t = table();
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
        Table& t = table();
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
    Table& t = table();
    std::lock_guard<std::mutex> lock(t.mutex);
    for (auto it = t.entries.begin(); it != t.entries.end();) {
        if (it->second.conn.get() == conn) {
            removed.push_back(std::move(it->second));
            it = t.entries.erase(it);
        } else {
            ++it;
        }
    }
    return removed;
}

std::vector<std::shared_ptr<Connection>> connections()
{
    std::vector<std::shared_ptr<Connection>> all;
    Table& t = table();
    std::lock_guard<std::mutex> lock(t.mutex);
    for (const auto& e : t.entries)
        if (e.second.kind == HandleKind::Connection
            && std::find(all.begin(), all.end(), e.second.conn) == all.end())
            all.push_back(e.second.conn);
    return all;
}

int connectionHandles(const Connection* conn)
{
    Table& t = table();
    std::lock_guard<std::mutex> lock(t.mutex);
    int n = 0;
    for (const auto& e : t.entries)
        if (e.second.kind == HandleKind::Connection && e.second.conn.get() == conn)
            ++n;
    return n;
}

}  // namespace Handles

}  // namespace svcipc
