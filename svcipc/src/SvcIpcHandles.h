// SvcIpcHandles: the table behind every handle the library gives out.
//
// A handle is a number, never a pointer: it is looked up here, so a handle that was never issued,
// was removed already or names an object of another kind is simply not found (the caller turns
// that into SVCIPC_ERR_BAD_HANDLE). Numbers are never reused. Request contexts, made and freed with
// every call, are kept apart from the other handles, so serving calls takes no lock that the rest
// of the library uses. All functions are thread-safe and never call out while holding a lock.
#ifndef SVCIPC_HANDLES_H
#define SVCIPC_HANDLES_H

#include <cstdint>
#include <memory>
#include <vector>

namespace svcipc
{

class Connection;

enum class HandleKind { Connection, Registration, Subscription, Request };

struct HandleEntry
{
    HandleKind kind = HandleKind::Connection;
    std::shared_ptr<Connection> conn;
    std::shared_ptr<void> object;
};

namespace Handles
{
uintptr_t add(HandleKind kind, std::shared_ptr<Connection> conn, std::shared_ptr<void> object);
bool get(uintptr_t handle, HandleKind kind, HandleEntry& out);
bool remove(uintptr_t handle, HandleKind kind, HandleEntry* out = nullptr);
// Removes every handle of `conn`; returns the removed entries (released by the caller, outside
// the table's lock).
std::vector<HandleEntry> removeAllOf(const Connection* conn);
// Every connection that still has a handle.
std::vector<std::shared_ptr<Connection>> connections();
// Number of connection handles still naming `conn`.
int connectionHandles(const Connection* conn);
}  // namespace Handles

}  // namespace svcipc

#endif
