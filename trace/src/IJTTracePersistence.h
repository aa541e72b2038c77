// IJTTracePersistence: where the binary block of trace settings is kept between runs.
//
// Supplied by the application (the service passes CJTDefaultBinaryTracePersistence::getInstance()).
// The name is always the process name the process registered with. The block's contents belong
// to CJTTraceScopeManager (loadBinaryPersistence / storeBinaryPeristence); an implementation only
// keeps the bytes.
//
// Called on the trace thread only.
#ifndef IJTTRACEPERSISTENCE_H
#define IJTTRACEPERSISTENCE_H

class CJTByteStream;

class IJTTracePersistence
{
public:
    virtual ~IJTTracePersistence() {}
    // Appends the stored block for name to data; appends nothing when there is none.
    virtual void load(const char* name, CJTByteStream& data) = 0;
    // Replaces the stored block for name by the whole of data.
    virtual void store(const char* name, CJTByteStream& data) = 0;
    // Forgets the stored block for name.
    virtual void kill(const char* name) = 0;
    // True when the store asks for its block to be killed instead of loaded at the next load.
    virtual bool isKillRequired() const = 0;
};

#endif
