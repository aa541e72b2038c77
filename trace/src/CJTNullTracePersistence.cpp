#include "CJTNullTracePersistence.h"

CJTNullTracePersistence CJTNullTracePersistence::sInstance;

void CJTNullTracePersistence::load(const char*, CJTByteStream&) {}

void CJTNullTracePersistence::store(const char*, CJTByteStream&) {}

void CJTNullTracePersistence::kill(const char*) {}

bool CJTNullTracePersistence::isKillRequired() const
{
    return false;
}
