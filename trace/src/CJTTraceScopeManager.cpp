#include "CJTTraceScopeManager.h"

#include <algorithm>
#include <cstdio>

#include "CJTSortedScopeDefList.h"
#include "CJTString.h"
#include "CJTTraceScopeDef.h"

std::atomic<CJTTraceScopeManager*> CJTTraceScopeManager::spInstance{nullptr};

// Constant-initialised: usable by definitions that register before this file's dynamic
// initialisation has run.
CJTTraceScopeDef CJTTraceScopeManager::sgDummyScopeInstance(CJTTraceScopeDef::tUnregistered(),
                                                            "CJTTraceScopeManager_sDummy",
                                                            "CJTTraceScopeManager_sDummy");

const CJTVersion CJTTraceScopeManager::sTextFormatVersion(1, 1, 0);

namespace
{
std::mutex& instanceLock()
{
    static std::mutex lock;
    return lock;
}
}

CJTTraceScopeManager::CJTTraceScopeManager() : mSettingsInStep(0), mSilent(0) {}

CJTTraceScopeManager::~CJTTraceScopeManager() {}

CJTTraceScopeManager& CJTTraceScopeManager::getInstance()
{
    CJTTraceScopeManager* manager = spInstance.load(std::memory_order_acquire);
    if (manager)
        return *manager;
    std::lock_guard<std::mutex> guard(instanceLock());
    manager = spInstance.load(std::memory_order_relaxed);
    if (!manager) {
        manager = new CJTTraceScopeManager();
        spInstance.store(manager, std::memory_order_release);
    }
    return *manager;
}

CJTTraceScopeManager* CJTTraceScopeManager::getInstancePtr()
{
    return spInstance.load(std::memory_order_acquire);
}

void CJTTraceScopeManager::deleteInstance()
{
    std::lock_guard<std::mutex> guard(instanceLock());
    delete spInstance.exchange(nullptr, std::memory_order_acq_rel);
}

uint16_t CJTTraceScopeManager::add(CJTTraceScopeDef& def)
{
    if (&def == &sgDummyScopeInstance)
        return 0;
    std::lock_guard<std::recursive_mutex> guard(mLock);
    mDefs.push_back(&def);
    return static_cast<uint16_t>(mDefs.size() - 1);
}

void CJTTraceScopeManager::remove(CJTTraceScopeDef& def)
{
    std::lock_guard<std::recursive_mutex> guard(mLock);
    auto it = std::find(mDefs.begin(), mDefs.end(), &def);
    if (it != mDefs.end())
        mDefs.erase(it);
    // The sorted list holds pointers; one to a definition that is gone must never be used, even
    // if a later registration brings the count back to the list's count.
    mpSortedList.reset();
}

CJTTraceScopeDef& CJTTraceScopeManager::getScopeDef(uint16_t index)
{
    std::lock_guard<std::recursive_mutex> guard(mLock);
    if (index >= mDefs.size())
        return sgDummyScopeInstance;
    return *mDefs[index];
}

uint16_t CJTTraceScopeManager::getNumberOfScopes() const
{
    std::lock_guard<std::recursive_mutex> guard(mLock);
    return static_cast<uint16_t>(mDefs.size());
}

void CJTTraceScopeManager::setFilter(int first, int last, uint8_t filter)
{
    setRange(first, last, &CJTTraceScopeDef::setFilter, filter);
}

void CJTTraceScopeManager::setMedia(int first, int last, uint8_t media)
{
    setRange(first, last, &CJTTraceScopeDef::setMedia, media);
}

void CJTTraceScopeManager::setRange(int first, int last, void (CJTTraceScopeDef::*set)(uint8_t), uint8_t value)
{
    std::lock_guard<std::recursive_mutex> guard(mLock);
    int count = static_cast<int>(mDefs.size());
    for (int i = std::max(first, 0); i <= last && i < count; ++i) {
        (mDefs[i]->*set)(value);
        mSettingsInStep.store(0, std::memory_order_relaxed);
    }
}

bool CJTTraceScopeManager::configureScope(uint16_t index, uint8_t filter, uint8_t media)
{
    std::lock_guard<std::recursive_mutex> guard(mLock);
    if (index >= mDefs.size())
        return false;
    mDefs[index]->setFilter(filter);
    mDefs[index]->setMedia(media);
    mSettingsInStep.store(0, std::memory_order_relaxed);
    return true;
}

bool CJTTraceScopeManager::configureScope(uint16_t index, uint8_t filter, uint8_t media, uint8_t kernelEvent)
{
    std::lock_guard<std::recursive_mutex> guard(mLock);
    if (!configureScope(index, filter, media))
        return false;
    mDefs[index]->setKernelEvent(kernelEvent);
    return true;
}

bool CJTTraceScopeManager::configureScopesByName(const char* prefix, uint8_t filter, uint8_t media)
{
    return configureByName(prefix, filter, media, false, 0);
}

bool CJTTraceScopeManager::configureScopesByName(const char* prefix, uint8_t filter, uint8_t media, uint8_t kernelEvent)
{
    return configureByName(prefix, filter, media, true, kernelEvent);
}

bool CJTTraceScopeManager::configureByName(const char* prefix, uint8_t filter, uint8_t media, bool withEvent,
                                           uint8_t kernelEvent)
{
    std::lock_guard<std::recursive_mutex> guard(mLock);
    if (mDefs.empty())
        return false;
    // Only a scope that is actually configured puts the settings out of step.
    auto apply = [&](CJTTraceScopeDef& def) {
        def.setFilter(filter);
        def.setMedia(media);
        if (withEvent)
            def.setKernelEvent(kernelEvent);
        mSettingsInStep.store(0, std::memory_order_relaxed);
    };

    if (!prefix || prefix[0] == '\0' || prefix[0] == '*') {
        for (CJTTraceScopeDef* def : mDefs)
            apply(*def);
        return true;
    }

    if (!mpSortedList)
        mpSortedList.reset(new CJTSortedScopeDefList());
    if (mpSortedList->getCount() != mDefs.size())
        mpSortedList->build(mDefs);

    size_t pos = mpSortedList->findScopeStartingWith(prefix);
    if (pos >= mpSortedList->getCount())
        return false;
    for (; mpSortedList->startsWith(pos, prefix); ++pos)
        apply(*mpSortedList->get(pos));
    return true;
}

void printScopeString(const char* component, const char* className, const char* function)
{
    printf("%s_%s_%s\n", component, className, function);
}

void doNothing(const char*, const char*, const char*) {}

uint32_t getHashValueForString(const CJTString& text)
{
    uint32_t hash = 0;
    const char* bytes = text.c_str();
    for (uint32_t i = 0; i < text.getByteCount(); ++i)
        hash = hash * 5 + static_cast<uint32_t>(static_cast<int32_t>(static_cast<int8_t>(bytes[i])));
    return hash;
}
