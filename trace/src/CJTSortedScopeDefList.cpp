#include "CJTSortedScopeDefList.h"

#include <cstring>
#include <utility>

#include "CJTTraceScopeDef.h"

namespace
{
// Orders a full name against a prefix on their common length; a full name that is a proper
// beginning of the prefix counts as before it.
int compareWithPrefix(const std::string& fullName, const char* prefix, size_t prefixLength)
{
    size_t n = fullName.size() < prefixLength ? fullName.size() : prefixLength;
    int r = memcmp(fullName.data(), prefix, n);
    if (r == 0 && fullName.size() < prefixLength)
        return -1;
    return r;
}
}

void CJTSortedScopeDefList::build(const std::vector<CJTTraceScopeDef*>& defs)
{
    mEntries.clear();
    mEntries.reserve(defs.size());
    char buffer[512];
    for (CJTTraceScopeDef* def : defs) {
        if (!def)
            continue;
        buffer[0] = '\0';
        def->getScopeName(buffer, sizeof(buffer) - 1);
        mEntries.push_back(tEntry{def, buffer});
    }
    if (mEntries.size() > 1)
        quicksort(0, mEntries.size() - 1);
}

bool CJTSortedScopeDefList::before(const tEntry& a, const tEntry& b)
{
    // Comparing the joined names orders by name, then scope name, except where one name begins
    // another and continues with a byte below '_' ("CTimerMaster" against "CTimer"): there the
    // joined order is the one the prefix bisection needs.
    return a.fullName < b.fullName;
}

// Hoare partitioning around the middle element; recursion only into the smaller half keeps the
// stack shallow even for unlucky orders.
void CJTSortedScopeDefList::quicksort(size_t first, size_t last)
{
    while (first < last) {
        const tEntry pivot = mEntries[first + (last - first) / 2];
        size_t i = first;
        size_t j = last;
        for (;;) {
            while (before(mEntries[i], pivot))
                ++i;
            while (before(pivot, mEntries[j]))
                --j;
            if (i >= j)
                break;
            std::swap(mEntries[i], mEntries[j]);
            ++i;
            --j;
        }
        // [first, j] and [j + 1, last]
        if (j - first < last - j) {
            quicksort(first, j);
            first = j + 1;
        } else {
            quicksort(j + 1, last);
            last = j;
        }
    }
}

size_t CJTSortedScopeDefList::findScopeStartingWith(const char* prefix) const
{
    if (!prefix)
        prefix = "";
    size_t prefixLength = strlen(prefix);
    size_t low = 0;
    size_t high = mEntries.size();
    while (low < high) {
        size_t mid = low + (high - low) / 2;
        if (compareWithPrefix(mEntries[mid].fullName, prefix, prefixLength) < 0)
            low = mid + 1;
        else
            high = mid;
    }
    return startsWith(low, prefix) ? low : mEntries.size();
}

bool CJTSortedScopeDefList::startsWith(size_t pos, const char* prefix) const
{
    if (pos >= mEntries.size())
        return false;
    if (!prefix)
        return true;
    return mEntries[pos].fullName.compare(0, strlen(prefix), prefix) == 0;
}
