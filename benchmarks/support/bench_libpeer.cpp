// The service-IPC library's echo server in a process of its own: the plain libdbus echo's twin,
// so the 4-client benchmark can tell the library's share of the service's cost from the rest.
//   bench_libpeer <bus name> <object path> <reply>
// The bus is the session bus of the environment. Runs until it is killed.
#include "svcipc.h"

#include <unistd.h>

#include <cstdio>

namespace
{
const char* gReply = "";

void answer(SVCIPC_tReqContext context, const char*, const char*, SVCIPC_tBool, SVCIPC_tUserToken)
{
    SVCIPC_asyncReturnResult(context, gReply, nullptr, nullptr);
    SVCIPC_freeReqContext(context);
}
}  // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: bench_libpeer <bus name> <object path> <reply>\n");
        return 2;
    }
    gReply = argv[3];
    SVCIPC_tConnection connection = nullptr;
    SVCIPC_tSvcRegHnd registration = nullptr;
    if (SVCIPC_initialize() != 0 || SVCIPC_getConnection(0, 1, &connection) != 0 ||
        SVCIPC_registerService(connection, argv[1], argv[2], 0, &answer, nullptr, &registration) != 0) {
        std::fprintf(stderr, "bench_libpeer: cannot serve %s\n", argv[1]);
        return 1;
    }
    for (;;)
        ::pause();
}
