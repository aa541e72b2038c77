// Feeds arbitrary bytes to the text persistence loader as the contents of a settings file.
// A few scopes are registered so prefixes can match; the persistence scope routes its
// diagnostics to the do-nothing handler so formatting paths run without output.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <unistd.h>

#include "CJTTraceHelper.h"
#include "CJTTraceScopeDef.h"
#include "CJTTraceScopeManager.h"

static CJTTraceScopeDef gsFuzzA("CBRadio_CCBRadio", "run");
static CJTTraceScopeDef gsFuzzB("CBRadio_CCBRadio", "startService");
static CJTTraceScopeDef gsFuzzC("CBRadio_CTimerMaster", "run");
static CJTTraceScopeDef gsFuzzD("CBRadio_main", nullptr);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const char* path = [] {
        CJTTraceHelper& helper = CJTTraceHelper::getInstance();
        helper.setProcessName("CBRadio");
        helper.setHandler(CJTTraceHelper::MEDIA_TRACE_CLIENT, CJTTraceHelper::sendToNirvana, "Nirvana");
        getPersistenceScopeDef().setFilter(0xFF);
        getPersistenceScopeDef().setMedia(CJTTraceHelper::MEDIA_TRACE_CLIENT);
        static char name[] = "/tmp/fuzz_tracepersistence_XXXXXX";
        int fd = mkstemp(name);
        if (fd < 0)
            abort();
        close(fd);
        return static_cast<const char*>(name);
    }();

    FILE* file = fopen(path, "wb");
    if (!file)
        abort();
    if (size > 0)
        fwrite(data, 1, size, file);
    fclose(file);

    CJTTraceScopeManager::getInstance().loadTextPersistence(path);
    // "*" lines may have changed the diagnostics scope; keep its output going nowhere.
    getPersistenceScopeDef().setMedia(CJTTraceHelper::MEDIA_TRACE_CLIENT);
    return 0;
}
