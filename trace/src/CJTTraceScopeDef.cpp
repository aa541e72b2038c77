#include "CJTTraceScopeDef.h"

#include <cstdio>

#include "CJTString.h"
#include "CJTTraceScopeManager.h"

CJTTraceScopeDef::CJTTraceScopeDef(const char* name, const char* scopeName)
    : mName(name), mScopeName(scopeName), mFilter(0), mMedia(1), mKernelEvent(0), mIndex(0)
{
    mIndex = CJTTraceScopeManager::getInstance().add(*this);
}

CJTTraceScopeDef::CJTTraceScopeDef(const char* name, const char* scopeName, uint8_t filter)
    : mName(name), mScopeName(scopeName), mFilter(filter), mMedia(1), mKernelEvent(0), mIndex(0)
{
    mIndex = CJTTraceScopeManager::getInstance().add(*this);
}

CJTTraceScopeDef::CJTTraceScopeDef(const char* name, const char* scopeName, uint8_t filter, uint8_t media)
    : mName(name), mScopeName(scopeName), mFilter(filter), mMedia(media), mKernelEvent(0), mIndex(0)
{
    mIndex = CJTTraceScopeManager::getInstance().add(*this);
}

CJTTraceScopeDef::~CJTTraceScopeDef()
{
    mIndex = 0;
    // At process exit the manager may already be gone; then there is nothing to leave.
    if (CJTTraceScopeManager* manager = CJTTraceScopeManager::getInstancePtr())
        manager->remove(*this);
}

CJTString CJTTraceScopeDef::getScopeName() const
{
    if (!mName)
        return CJTString();
    char buffer[512];
    getScopeName(buffer, sizeof(buffer) - 1);
    return CJTString(buffer);
}

int CJTTraceScopeDef::getScopeName(char* buffer, size_t size) const
{
    if (!buffer || !mName)
        return 0;
    if (mScopeName)
        return snprintf(buffer, size, "%s_%s", mName, mScopeName);
    return snprintf(buffer, size, "%s", mName);
}
