// CJTTraceScopeManager: the process-wide registry of trace scope definitions.
//
// Definitions register in construction order (static initialisation, link order) and get the
// next index; the index identifies a scope to the trace server and in the binary persistence
// block, so it is stable for one build only. Unknown indices fall on the dummy definition
// "CJTTraceScopeManager_sDummy", whose filter is 0: it never traces and cannot be configured.
//
// Settings: filter, media and kernel event per definition; a silent flag that mutes every scope;
// a settings-in-step flag that tells the trace server whether the settings equal the persisted
// ones (cleared by every change of filter or media, not by a range or prefix that matches no
// scope; set after a binary load or store).
//
// Persistence (binary block and text file):
//   binary block: 1 byte silent flag (1 = silent), then filter, media, kernel event per scope in
//   index order; valid only for a block of exactly 3 x count + 1 bytes.
//   text file: a first line "JTTracePersistence <major>.<minor>.<patch>" (accepted for major 1 and
//   minor up to 1), then lines that are empty, comments ("#..."), section headers ("[<process>]"
//   or "[*]"; following settings apply only in a matching section, lines before the first header
//   always) or settings "<prefix> <filter> <media> [<kernel event>]" with the numbers in hex of at
//   most two digits; the prefix works as in configureScopesByName. Later lines override earlier.
// Problems are reported through the framework's own scope "imp_sys_tracesrv_CJTTraceScopeManager"
// / "persistence" and, for the binary block, the system log.
//
// Threads: registration and lookups take an internal lock; settings bytes are relaxed atomics
// read by every tracing thread. Run-time changes (trace server, persistence) come from the trace
// thread. getInstance creates the manager on first use, also during static initialisation.
#ifndef CJTTRACESCOPEMANAGER_H
#define CJTTRACESCOPEMANAGER_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "CJTVersion.h"

class CJTString;
class CJTTraceScope;
class CJTTraceScopeDef;
class CJTSortedScopeDefList;
class IJTTracePersistence;

class CJTTraceScopeManager
{
public:
    static CJTTraceScopeManager& getInstance();
    // The manager if it exists, else null.
    static CJTTraceScopeManager* getInstancePtr();
    static void deleteInstance();

    // Registers def at the end; returns its index (count less one). The dummy is refused (0).
    uint16_t add(CJTTraceScopeDef& def);
    // Takes def out of the list; later definitions keep the indices they were given.
    void remove(CJTTraceScopeDef& def);

    // The definition at index, or the dummy when the index is not below the count.
    CJTTraceScopeDef& getScopeDef(uint16_t index);
    uint16_t getNumberOfScopes() const;

    // Filter or media of every registered index in first..last (inclusive; nothing when
    // first > last; indices outside the list are skipped).
    void setFilter(int first, int last, uint8_t filter);
    void setMedia(int first, int last, uint8_t media);

    // False (and nothing changed) for an unknown index.
    bool configureScope(uint16_t index, uint8_t filter, uint8_t media);
    bool configureScope(uint16_t index, uint8_t filter, uint8_t media, uint8_t kernelEvent);

    // Every definition whose full name begins with prefix; "" or a prefix beginning with "*"
    // means every definition. False when nothing is registered or nothing matches.
    bool configureScopesByName(const char* prefix, uint8_t filter, uint8_t media);
    bool configureScopesByName(const char* prefix, uint8_t filter, uint8_t media, uint8_t kernelEvent);

    bool isSilent() const { return mSilent.load(std::memory_order_relaxed) != 0; }
    uint8_t getSilent() const { return mSilent.load(std::memory_order_relaxed); }
    void setSilent(bool silent) { mSilent.store(silent ? 1 : 0, std::memory_order_relaxed); }
    uint8_t getSettingsInStep() const { return mSettingsInStep.load(std::memory_order_relaxed); }
    void setSettingsInStep(bool inStep) { mSettingsInStep.store(inStep ? 1 : 0, std::memory_order_relaxed); }

    // --- persistence ------------------------------------------------------------------------------
    bool loadBinaryPersistence(IJTTracePersistence& persistence, const char* name);
    bool storeBinaryPeristence(IJTTracePersistence& persistence, const char* name);
    // True if the file was opened and read to its end.
    bool loadTextPersistence(const char* file);
    // A descriptor positioned after the header line, or -1 (reported through the persistence scope).
    // A file that exists but cannot be opened, or is not a regular file (a FIFO, socket, folder),
    // raises the assertion "Unable to load text trace persistence: <file> could not be opened" at
    // once; nothing ever waits for a writer.
    int openTextPersistenceFile(const char* file);

    // The text file format this framework writes and reads: 1.1.0.
    static const CJTVersion sTextFormatVersion;
    // "CJTTraceScopeManager_sDummy" / "CJTTraceScopeManager_sDummy", filter 0, never registered.
    static CJTTraceScopeDef sgDummyScopeInstance;

private:
    // Sets one value of the scopes first..last that exist; any change puts the settings out of step.
    void setRange(int first, int last, void (CJTTraceScopeDef::*set)(uint8_t), uint8_t value);
    CJTTraceScopeManager();
    ~CJTTraceScopeManager();
    CJTTraceScopeManager(const CJTTraceScopeManager&) = delete;
    CJTTraceScopeManager& operator=(const CJTTraceScopeManager&) = delete;

    bool configureByName(const char* prefix, uint8_t filter, uint8_t media, bool withEvent, uint8_t kernelEvent);
    void applyTextLine(const CJTTraceScope& scope, const char* file, int lineNumber, char* line, bool& selected,
                       const char* processName);

    static std::atomic<CJTTraceScopeManager*> spInstance;

    mutable std::recursive_mutex mLock;
    std::vector<CJTTraceScopeDef*> mDefs;
    std::unique_ptr<CJTSortedScopeDefList> mpSortedList;
    std::atomic<uint8_t> mSettingsInStep;
    std::atomic<uint8_t> mSilent;
};

// The framework's own definition for persistence diagnostics.
CJTTraceScopeDef& getPersistenceScopeDef();

// "<component>_<class>_<function>\n" to standard output.
void printScopeString(const char* component, const char* className, const char* function);
// Ignores its arguments (a stand-in where scope strings are not wanted).
void doNothing(const char* component, const char* className, const char* function);
// hash = hash * 5 + byte over the string's bytes (each taken as signed 8-bit), from 0.
uint32_t getHashValueForString(const CJTString& text);

#endif
