// CJTSortedScopeDefList: the registered scope definitions sorted for lookup by name prefix.
//
// Sorted with a quicksort by name, then by scope name, as one byte comparison of the full scope
// names ("<name>_<scope name>"). Sorting on the joined text keeps the bisection of
// findScopeStartingWith exact when one name begins another ("CBRadio_CTimer" and
// "CBRadio_CTimerMaster"): every full name beginning with a prefix then lies in one run.
//
// The list is a snapshot: build() takes the definitions as they are; the scope manager rebuilds it
// whenever its number of definitions differs from getCount(). Used under the manager's lock.
#ifndef CJTSORTEDSCOPEDEFLIST_H
#define CJTSORTEDSCOPEDEFLIST_H

#include <cstddef>
#include <string>
#include <vector>

class CJTTraceScopeDef;

class CJTSortedScopeDefList
{
public:
    void build(const std::vector<CJTTraceScopeDef*>& defs);

    size_t getCount() const { return mEntries.size(); }
    CJTTraceScopeDef* get(size_t pos) const { return pos < mEntries.size() ? mEntries[pos].def : nullptr; }
    const char* getFullName(size_t pos) const { return pos < mEntries.size() ? mEntries[pos].fullName.c_str() : ""; }

    // Position of the first definition whose full name begins with prefix, else getCount().
    size_t findScopeStartingWith(const char* prefix) const;
    // True if the full name at pos begins with prefix; false for a position outside the list.
    bool startsWith(size_t pos, const char* prefix) const;

private:
    struct tEntry
    {
        CJTTraceScopeDef* def;
        std::string fullName;
    };

    static bool before(const tEntry& a, const tEntry& b);
    void quicksort(size_t first, size_t last);

    std::vector<tEntry> mEntries;
};

#endif
