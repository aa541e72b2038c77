// CJTNullTracePersistence: the persistence that keeps nothing.
//
// load, store and kill do nothing and isKillRequired is false. The trace helper recognises
// sInstance and skips every persistence action (no log codes are sent) when it is set.
#ifndef CJTNULLTRACEPERSISTENCE_H
#define CJTNULLTRACEPERSISTENCE_H

#include "IJTTracePersistence.h"

class CJTNullTracePersistence : public IJTTracePersistence
{
public:
    void load(const char* name, CJTByteStream& data) override;
    void store(const char* name, CJTByteStream& data) override;
    void kill(const char* name) override;
    bool isKillRequired() const override;

    static CJTNullTracePersistence sInstance;
};

#endif
