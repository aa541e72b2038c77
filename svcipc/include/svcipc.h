/*
 * svcipc.h - the service-IPC client library: services, methods and signals on the session bus.
 *
 * A service registers a bus name and an object path and receives method calls through one request
 * callback; it answers with a result text and emits signals. A client invokes methods (blocking or
 * with a completion callback), subscribes to signals and watches bus names come and go. Every
 * argument, result and signal payload is one text (a compact JSON text by convention).
 *
 * Bus form (fixed, other programs of the head unit rely on it):
 *   - method call: destination = bus name, path = object path, interface = bus name,
 *     member = method name, signature "s" holding the argument text. Calls without arguments are
 *     delivered to the request callback with an empty text, calls without an interface are
 *     accepted, any other signature is answered with "org.freedesktop.DBus.Error.InvalidArgs" and
 *     never reaches the request callback.
 *   - result: a method return with signature "s".
 *   - signal: path = the emitting service's object path, interface = its bus name,
 *     member = the signal name, signature "s".
 *   - org.freedesktop.DBus.Introspectable and org.freedesktop.DBus.Peer are answered by the
 *     library on every registered path.
 *
 * One sender. Everything sent through a connection (calls, replies, signals, name requests) goes
 * out on one bus connection, the one that owns the registered names, so peers see one sender.
 *
 * Threads. Every callback (requests, signals, owner changes, completions, connection lost) runs on
 * a thread owned by the library, never on the thread that made the call which led to it, and never
 * while the library holds a lock that a callback could need. Callbacks of one connection run one at
 * a time, in the order their messages arrived; only while a callback waits in a blocking library
 * call (SVCIPC_invoke, SVCIPC_subscribe, ...) does the next message get dispatched on another
 * library thread, so a blocking call made from a callback, even one that calls a service of the
 * same process, does not deadlock. A blocking call from any thread completes even while every
 * library thread of its connection is busy in a callback: the waiting thread reads the connection
 * itself while nobody else does. Every function may be called from any thread, callbacks included.
 * The library starts its threads only when there is something to call back (a registration, a
 * subscription or owner watch, an asynchronous invoke, a completion callback, a connection-lost
 * callback): a client that only opens a connection, makes blocking calls and closes it runs no
 * thread of the library. When the environment variable SVCIPC_DISPATCH_PRIORITY holds a number,
 * the library's threads ask for that scheduling priority; where the scheduling policy refuses it
 * the request is ignored.
 *
 * Stopping. Ending a registration, a subscription or a connection waits for a callback of it that
 * is running at most a short, fixed time (well under a second), then goes on: a callback stuck
 * beyond that (in a device, say) runs to its end on its own thread later; what it then does with
 * handles that have been ended meanwhile fails with SVCIPC_ERR_BAD_HANDLE, and nothing else of the
 * ended object is called back.
 *
 * Handles are opaque values, never pointers to be followed. A handle that was never issued, or
 * whose object has been closed, unregistered or freed, gives SVCIPC_ERR_BAD_HANDLE; so does a
 * handle of the wrong kind. A bus daemon that goes away turns into failure statuses
 * (SVCIPC_ERR_DISCONNECTED) and failed completions, never into a crash or a hang.
 *
 * Environment: DBUS_SESSION_BUS_ADDRESS names the session bus (read at each SVCIPC_getConnection);
 * DBUS_SYSTEM_BUS_ADDRESS, when set, names the system bus.
 */
#ifndef SVCIPC_H
#define SVCIPC_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------------------------------
 * Basic types
 * ------------------------------------------------------------------------------------------- */

typedef int32_t SVCIPC_tBool; /* 0 false, anything else true */
typedef uint32_t SVCIPC_tUInt32;
typedef int32_t SVCIPC_tInt32;

/* The caller's own value, handed back untouched to the callback it was given with. Functions take
 * it as `const void*` so that a string literal can serve as a token. */
typedef void* SVCIPC_tUserToken;

/* Opaque handles. 0 (NULL) is never a valid handle. */
typedef struct SVCIPC_sConnection* SVCIPC_tConnection; /* a bus connection */
typedef struct SVCIPC_sSvcReg* SVCIPC_tSvcRegHnd;      /* a registered service */
typedef struct SVCIPC_sSigSub* SVCIPC_tSigSubHnd;      /* a signal subscription or owner watch */
typedef void* SVCIPC_tReqContext;                      /* one received method call */

/* ---------------------------------------------------------------------------------------------
 * Statuses
 *
 * A status is 32 bits: bits 31..30 severity, bits 29..28 reserved (0), bits 27..0 error code.
 * 0 is success. A failure has severity 2 (error) or 3 (fatal), so it is negative as a signed
 * value; callers may test `status < 0` or SVCIPC_IS_ERROR(status).
 * ------------------------------------------------------------------------------------------- */

typedef int32_t SVCIPC_tError;

#define SVCIPC_SEVERITY_SUCCESS 0u
#define SVCIPC_SEVERITY_INFO    1u
#define SVCIPC_SEVERITY_ERROR   2u
#define SVCIPC_SEVERITY_FATAL   3u

#define SVCIPC_MAKE_STATUS(severity, code) \
    ((SVCIPC_tError)((((uint32_t)(severity)&3u) << 30) | ((uint32_t)(code)&0x0FFFFFFFu)))
#define SVCIPC_GET_SEVERITY(status) (((uint32_t)(status)) >> 30)
#define SVCIPC_GET_CODE(status)     (((uint32_t)(status)) & 0x0FFFFFFFu)
#define SVCIPC_IS_ERROR(status)     (SVCIPC_GET_SEVERITY(status) >= SVCIPC_SEVERITY_ERROR)
#define SVCIPC_IS_SUCCESS(status)   (!SVCIPC_IS_ERROR(status))

/* Error codes (the low 28 bits of a failure status). */
#define SVCIPC_ERROR_NONE            0u /* success */
#define SVCIPC_ERROR_NOT_INITIALIZED 1u /* SVCIPC_initialize was not called (or shut down) */
#define SVCIPC_ERROR_NO_MEMORY       2u /* an allocation failed (fatal) */
#define SVCIPC_ERROR_BAD_ARGUMENT \
    3u /* null output pointer, invalid bus name, path, member,
                                             text that is not UTF-8, unknown bus type or flag */
#define SVCIPC_ERROR_BAD_HANDLE \
    4u /* handle never issued, already closed/freed, or of
                                             another kind */
#define SVCIPC_ERROR_NO_CONNECTION \
    5u                                      /* the bus could not be reached: no address in the
                                             environment, daemon not running, refused */
#define SVCIPC_ERROR_DISCONNECTED       6u  /* the connection to the bus daemon was lost */
#define SVCIPC_ERROR_NAME_TAKEN         7u  /* the bus name is owned by another connection */
#define SVCIPC_ERROR_ALREADY_REGISTERED 8u  /* this connection already serves that name or path */
#define SVCIPC_ERROR_TIMEOUT            9u  /* no reply within the time-out */
#define SVCIPC_ERROR_NO_SERVICE         10u /* the called bus name has no owner */
#define SVCIPC_ERROR_REMOTE \
    11u                                 /* the peer answered with an error reply; see
                                             SVCIPC_getLastErrorName / errName */
#define SVCIPC_ERROR_NOT_REGISTERED 12u /* SVCIPC_asyncEmit on a connection serving nothing */
#define SVCIPC_ERROR_INTERNAL       13u /* libdbus refused an operation for another reason */

#define SVCIPC_ERR(code)   SVCIPC_MAKE_STATUS(SVCIPC_SEVERITY_ERROR, (code))
#define SVCIPC_FATAL(code) SVCIPC_MAKE_STATUS(SVCIPC_SEVERITY_FATAL, (code))

#define SVCIPC_ERR_NOT_INITIALIZED    SVCIPC_ERR(SVCIPC_ERROR_NOT_INITIALIZED)
#define SVCIPC_ERR_NO_MEMORY          SVCIPC_FATAL(SVCIPC_ERROR_NO_MEMORY)
#define SVCIPC_ERR_BAD_ARGUMENT       SVCIPC_ERR(SVCIPC_ERROR_BAD_ARGUMENT)
#define SVCIPC_ERR_BAD_HANDLE         SVCIPC_ERR(SVCIPC_ERROR_BAD_HANDLE)
#define SVCIPC_ERR_NO_CONNECTION      SVCIPC_ERR(SVCIPC_ERROR_NO_CONNECTION)
#define SVCIPC_ERR_DISCONNECTED       SVCIPC_ERR(SVCIPC_ERROR_DISCONNECTED)
#define SVCIPC_ERR_NAME_TAKEN         SVCIPC_ERR(SVCIPC_ERROR_NAME_TAKEN)
#define SVCIPC_ERR_ALREADY_REGISTERED SVCIPC_ERR(SVCIPC_ERROR_ALREADY_REGISTERED)
#define SVCIPC_ERR_TIMEOUT            SVCIPC_ERR(SVCIPC_ERROR_TIMEOUT)
#define SVCIPC_ERR_NO_SERVICE         SVCIPC_ERR(SVCIPC_ERROR_NO_SERVICE)
#define SVCIPC_ERR_REMOTE             SVCIPC_ERR(SVCIPC_ERROR_REMOTE)
#define SVCIPC_ERR_NOT_REGISTERED     SVCIPC_ERR(SVCIPC_ERROR_NOT_REGISTERED)
#define SVCIPC_ERR_INTERNAL           SVCIPC_ERR(SVCIPC_ERROR_INTERNAL)

/* ---------------------------------------------------------------------------------------------
 * Records
 * ------------------------------------------------------------------------------------------- */

/* What a completion callback is told. The record and its texts belong to the library and are valid
 * only during the callback. */
typedef struct SVCIPC_sCallbackStatus
{
    SVCIPC_tInt32 errCode; /* 0: the call completed; else the error code (SVCIPC_ERROR_TIMEOUT,
                               SVCIPC_ERROR_REMOTE, SVCIPC_ERROR_NO_SERVICE,
                               SVCIPC_ERROR_DISCONNECTED, ...) */
    const char* result;    /* the reply text; "" when there is none or the call failed */
    SVCIPC_tError status;  /* the full status: 0, or SVCIPC_ERR(errCode) */
    const char* errName;   /* on an error reply the bus error name, else "" */
    const char* errMsg;    /* on an error reply its message, else "" */
} SVCIPC_tCallbackStatus;

/* The reply of a blocking SVCIPC_invoke; owned by the caller until SVCIPC_freeResponse. */
typedef struct SVCIPC_sResponse
{
    const char* result; /* the reply's first string argument; "" when there is none */
} SVCIPC_tResponse;

/* ---------------------------------------------------------------------------------------------
 * Callbacks (all run on a library dispatch thread)
 * ------------------------------------------------------------------------------------------- */

/* A method call arrived for a registered service. `method` is the member name, `parms` the
 * argument text ("" for a call without arguments), `noReplyExpected` nonzero when the caller asked
 * for no reply. The context stays valid until SVCIPC_freeReqContext, which the service must call
 * exactly once, with or without a result (without one the library answers with an error); the
 * result may be returned later from any thread. The texts are valid during the callback only. */
typedef void (*SVCIPC_tRequestCallback)(SVCIPC_tReqContext context, const char* method, const char* parms,
                                        SVCIPC_tBool noReplyExpected, SVCIPC_tUserToken token);

/* A subscribed signal arrived: its member name and its first (string) argument. */
typedef void (*SVCIPC_tSignalCallback)(const char* sigName, const char* data, SVCIPC_tUserToken token);

/* The owner of a watched bus name changed. Owners are unique connection names; "" where the name
 * had (oldOwner) or has (newOwner) no owner. */
typedef void (*SVCIPC_tNameOwnerChangedCallback)(const char* busName, const char* oldOwner, const char* newOwner,
                                                 SVCIPC_tUserToken token);

/* A fire-and-forget operation (result or signal) was handed to the bus, or failed. */
typedef void (*SVCIPC_tStatusCallback)(const SVCIPC_tCallbackStatus* status, SVCIPC_tUserToken token);

/* An asynchronous invoke completed: `result` equals status->result. */
typedef void (*SVCIPC_tResultCallback)(const SVCIPC_tCallbackStatus* status, const char* result,
                                       SVCIPC_tUserToken token);

/* ---------------------------------------------------------------------------------------------
 * Library and connections
 * ------------------------------------------------------------------------------------------- */

#define SVCIPC_CONNECTION_SESSION 0u
#define SVCIPC_CONNECTION_SYSTEM  1u

/* Starts the library. Calls are counted: each SVCIPC_initialize needs one SVCIPC_shutdown.
 * Errors: SVCIPC_ERR_INTERNAL when libdbus cannot be made thread-safe. */
SVCIPC_tError SVCIPC_initialize(void);

/* Ends one SVCIPC_initialize; the last one closes every connection still open (unregistering its
 * services and ending its subscriptions) and invalidates every handle.
 * Errors: SVCIPC_ERR_NOT_INITIALIZED. */
SVCIPC_tError SVCIPC_shutdown(void);

/* Opens a connection to the bus `connType` (SVCIPC_CONNECTION_SESSION: the address in
 * DBUS_SESSION_BUS_ADDRESS; SVCIPC_CONNECTION_SYSTEM: the system bus). Unless `openPrivate` is
 * nonzero, all callers share one underlying connection per bus; each call still returns a handle
 * of its own, to be closed once. Errors: SVCIPC_ERR_NOT_INITIALIZED, SVCIPC_ERR_BAD_ARGUMENT,
 * SVCIPC_ERR_NO_CONNECTION. */
SVCIPC_tError SVCIPC_getConnection(SVCIPC_tUInt32 connType, SVCIPC_tBool openPrivate, SVCIPC_tConnection* conn);

/* Closes a handle from SVCIPC_getConnection. When it was the last handle of its underlying
 * connection, that connection's services are unregistered, its subscriptions end, blocking calls
 * waiting on it return SVCIPC_ERR_DISCONNECTED, outstanding asynchronous invokes complete with
 * SVCIPC_ERROR_DISCONNECTED (on a library thread, possibly after this returns), what is still
 * queued for the bus is flushed for a short while, and its threads stop (a callback of that
 * connection may call this; its own thread then ends after the callback returns). Never waits
 * long for a stuck callback (see "Stopping" above). Errors: SVCIPC_ERR_BAD_HANDLE. */
SVCIPC_tError SVCIPC_closeConnection(SVCIPC_tConnection conn);

/* Asks for `onLost` to be called when the bus connection behind `conn` is lost under the process
 * (the bus daemon ended, or closed the connection): once, on a library thread, after every
 * blocking call on it has failed and every outstanding completion has run. Not called when the
 * connection is ended with SVCIPC_closeConnection or SVCIPC_shutdown. A later call replaces the
 * callback; null removes it. A library thread watches the connection from then on, so the loss
 * is noticed at once even while the process makes no calls; a connection already lost calls back
 * at once (on a library thread). The callback is shared by every handle of the same underlying
 * connection. Errors: SVCIPC_ERR_BAD_HANDLE. */
typedef void (*SVCIPC_tConnectionLostCallback)(SVCIPC_tUserToken token);
SVCIPC_tError SVCIPC_setConnectionLostCallback(SVCIPC_tConnection conn, SVCIPC_tConnectionLostCallback onLost,
                                               const void* token);

/* ---------------------------------------------------------------------------------------------
 * Services
 * ------------------------------------------------------------------------------------------- */

#define SVCIPC_REG_FLAG_NONE 0u

/* Claims `busName` (never queued behind another owner) and routes method calls on `objPath` to
 * `onRequest`. `flags` must be SVCIPC_REG_FLAG_NONE. The callback may be called before this
 * function returns. Errors: SVCIPC_ERR_BAD_HANDLE, SVCIPC_ERR_BAD_ARGUMENT,
 * SVCIPC_ERR_NAME_TAKEN (owned by another connection), SVCIPC_ERR_ALREADY_REGISTERED (this
 * connection already serves the name or the path), SVCIPC_ERR_TIMEOUT, SVCIPC_ERR_DISCONNECTED. */
SVCIPC_tError SVCIPC_registerService(SVCIPC_tConnection conn, const char* busName, const char* objPath,
                                     SVCIPC_tUInt32 flags, SVCIPC_tRequestCallback onRequest, const void* token,
                                     SVCIPC_tSvcRegHnd* regHnd);

/* Hands the library the interface description of the object `objPath`: D-Bus introspection XML
 * holding one or more <interface> elements, on their own or inside one <node> document (an XML
 * declaration, a DOCTYPE and comments may precede it; child <node> elements and copies of the
 * standard org.freedesktop.DBus.* interfaces are left out). From then on
 * org.freedesktop.DBus.Introspectable.Introspect on that path, once a service is registered there,
 * lists those interfaces verbatim besides the standard ones, and a request freed without a result
 * is answered "org.freedesktop.DBus.Error.UnknownMethod" unless its member is a method of the
 * description (see SVCIPC_freeReqContext). Call it before SVCIPC_registerService so that even the
 * first call is described; a later call replaces the description; it stays with the connection
 * across unregistering. The text is checked and copied: it must be well-formed (balanced tags,
 * quoted attributes, only predefined and character references, no DOCTYPE internal subset, at most
 * 32 levels deep) and every interface and method must have a valid name.
 * Errors: SVCIPC_ERR_BAD_HANDLE, SVCIPC_ERR_BAD_ARGUMENT (bad path; null, malformed or non-UTF-8
 * text; no interface in it). */
SVCIPC_tError SVCIPC_setInterfaceDescription(SVCIPC_tConnection conn, const char* objPath, const char* xml);

/* Releases the bus name and the object path; later calls are answered
 * "org.freedesktop.DBus.Error.UnknownObject". Request contexts already handed out stay usable.
 * A request callback still running is waited for only briefly (see "Stopping" above).
 * Errors: SVCIPC_ERR_BAD_HANDLE, SVCIPC_ERR_DISCONNECTED (the registration is gone anyway). */
SVCIPC_tError SVCIPC_unregisterService(SVCIPC_tSvcRegHnd regHnd);

/* Sends `result` (null: "") as the reply to the call behind `context`. The context stays valid
 * until SVCIPC_freeReqContext; a second result for the same call is sent too (the caller only
 * sees the first). Nothing is sent when the caller expects no reply (success all the same).
 * `onStatus` (may be null) is called afterwards on a library thread, only when this function
 * returned success: asked for from a callback, right after that callback on the same thread;
 * from another thread, soon, several sharing one wake-up. A null `onStatus` costs nothing.
 * Errors: SVCIPC_ERR_BAD_HANDLE, SVCIPC_ERR_BAD_ARGUMENT (not UTF-8), SVCIPC_ERR_DISCONNECTED. */
SVCIPC_tError SVCIPC_asyncReturnResult(SVCIPC_tReqContext context, const char* result, SVCIPC_tStatusCallback onStatus,
                                       const void* token);

/* Frees a request context. A call whose context is freed without a result (SVCIPC_asyncReturnResult
 * never succeeded for it) is answered at once with an error, so that its caller never waits out
 * a time-out: "com.quorin.SvcIpc.Error.NoResult" when the member is a method of the interface
 * description of the call's path (SVCIPC_setInterfaceDescription), else
 * "org.freedesktop.DBus.Error.UnknownMethod" (also when the path has no description). A call
 * flagged no-reply-expected gets nothing. Errors: SVCIPC_ERR_BAD_HANDLE. */
SVCIPC_tError SVCIPC_freeReqContext(SVCIPC_tReqContext context);

/* Emits the signal `sigName` with the text `data` (null: "") from the service registered on
 * `conn` (the earliest registration still in place when there are several). `onStatus` as for
 * SVCIPC_asyncReturnResult. Errors: SVCIPC_ERR_BAD_HANDLE, SVCIPC_ERR_BAD_ARGUMENT,
 * SVCIPC_ERR_NOT_REGISTERED, SVCIPC_ERR_DISCONNECTED. */
SVCIPC_tError SVCIPC_asyncEmit(SVCIPC_tConnection conn, const char* sigName, const char* data,
                               SVCIPC_tStatusCallback onStatus, const void* token);

/* ---------------------------------------------------------------------------------------------
 * Signals and owners
 * ------------------------------------------------------------------------------------------- */

/* Delivers every signal named `sigName` on object `objPath`, any interface, sent by the current
 * owner of the bus name that the path spells (the leading slash dropped, the other slashes read as
 * dots: "/com/quorin/service/AudioManager" is heard from whoever owns
 * "com.quorin.service.AudioManager"), to `onSignal`. Signals from anyone else, signals aimed at one
 * connection instead of broadcast, and signals whose first argument is not a string are ignored.
 * The bus has accepted the match rule when this returns, so no signal emitted afterwards is
 * missed. Errors: SVCIPC_ERR_BAD_HANDLE, SVCIPC_ERR_BAD_ARGUMENT (also a path that spells no bus
 * name, such as "/a"), SVCIPC_ERR_TIMEOUT, SVCIPC_ERR_DISCONNECTED. */
SVCIPC_tError SVCIPC_subscribe(SVCIPC_tConnection conn, const char* objPath, const char* sigName,
                               SVCIPC_tSignalCallback onSignal, const void* token, SVCIPC_tSigSubHnd* subHnd);

/* Ends a subscription or an owner watch; no callback for it starts after this returns (one that
 * is running is waited for only briefly, see "Stopping" above). Errors: SVCIPC_ERR_BAD_HANDLE. */
SVCIPC_tError SVCIPC_unsubscribe(SVCIPC_tSigSubHnd subHnd);

/* Calls `onOwnerChanged` whenever the owner of `busName` changes (it is not called for the owner
 * at the time of the call; ask SVCIPC_nameHasOwner for that). Ended with SVCIPC_unsubscribe.
 * Errors: as SVCIPC_subscribe. */
SVCIPC_tError SVCIPC_subscribeOwnerChanged(SVCIPC_tConnection conn, const char* busName,
                                           SVCIPC_tNameOwnerChangedCallback onOwnerChanged, const void* token,
                                           SVCIPC_tSigSubHnd* subHnd);

/* Asks the bus whether `busName` has an owner now; `*hasOwner` is set to 1 or 0. `msecTimeout` 0
 * means the default time-out. Errors: SVCIPC_ERR_BAD_HANDLE, SVCIPC_ERR_BAD_ARGUMENT,
 * SVCIPC_ERR_TIMEOUT, SVCIPC_ERR_DISCONNECTED. */
SVCIPC_tError SVCIPC_nameHasOwner(SVCIPC_tConnection conn, const char* busName, SVCIPC_tBool* hasOwner,
                                  SVCIPC_tUInt32 msecTimeout);

/* ---------------------------------------------------------------------------------------------
 * Method calls
 * ------------------------------------------------------------------------------------------- */

/* The time-out used where 0 is given and a reply is expected. */
#define SVCIPC_DEFAULT_TIMEOUT_MS 25000u

/* Calls `method` of the service `busName` on `objPath` with the argument text `parms` (null: "")
 * and waits up to `msecTimeout` ms (0: SVCIPC_DEFAULT_TIMEOUT_MS) for the reply, which is stored
 * in a new `*response` on success (free it with SVCIPC_freeResponse; on failure `*response` is
 * set to null). With `noReplyExpected` nonzero the call is only sent, `response` may be null and
 * nothing is returned in it. Errors: SVCIPC_ERR_BAD_HANDLE, SVCIPC_ERR_BAD_ARGUMENT,
 * SVCIPC_ERR_TIMEOUT, SVCIPC_ERR_NO_SERVICE, SVCIPC_ERR_REMOTE (error reply; the error name is
 * then in SVCIPC_getLastErrorName), SVCIPC_ERR_DISCONNECTED. The call goes out on the
 * connection itself, and the calling thread reads the reply itself while no library thread
 * reads the connection (see "Threads" above). */
SVCIPC_tError SVCIPC_invoke(SVCIPC_tConnection conn, const char* busName, const char* objPath, const char* method,
                            const char* parms, SVCIPC_tBool noReplyExpected, SVCIPC_tUInt32 msecTimeout,
                            SVCIPC_tResponse** response);

/* Sends the same call without waiting. Unless `noReplyExpected` is nonzero, `onResult` (may be
 * null) is called once on a dispatch thread with the reply, or with SVCIPC_ERROR_TIMEOUT after
 * `msecTimeout` ms (0: SVCIPC_DEFAULT_TIMEOUT_MS), or with the error of an error reply; it is
 * called only when this function returned success. Errors: SVCIPC_ERR_BAD_HANDLE,
 * SVCIPC_ERR_BAD_ARGUMENT, SVCIPC_ERR_DISCONNECTED, SVCIPC_ERR_INTERNAL (no library thread could
 * be started to complete it). */
SVCIPC_tError SVCIPC_asyncInvoke(SVCIPC_tConnection conn, const char* busName, const char* objPath, const char* method,
                                 const char* parms, SVCIPC_tBool noReplyExpected, SVCIPC_tUInt32 msecTimeout,
                                 SVCIPC_tResultCallback onResult, const void* token);

/* Frees a reply from SVCIPC_invoke. Errors: SVCIPC_ERR_BAD_HANDLE (null, or not a live reply). */
SVCIPC_tError SVCIPC_freeResponse(SVCIPC_tResponse* response);

/* ---------------------------------------------------------------------------------------------
 * Diagnostics
 * ------------------------------------------------------------------------------------------- */

/* A short English text for a status ("success", "time-out", ...); never null. */
const char* SVCIPC_errorText(SVCIPC_tError status);

/* The bus error name and message of the last failed call made by the calling thread ("" when
 * the failure was not an error reply from the bus). Valid until the thread's next library call. */
const char* SVCIPC_getLastErrorName(void);
const char* SVCIPC_getLastErrorMessage(void);

#ifdef __cplusplus
}
#endif

#endif /* SVCIPC_H */
