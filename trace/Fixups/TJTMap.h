// TJTMap: a map kept as a sorted vector of TJTPair entries, ordered by TJTBefore on the key.
//
// Keys are unique. Lookups bisect (JTAlgorithm::lowerBound); insertion and removal move the
// entries after the position, which suits the small maps of the framework. Pointers returned by
// find() stay valid until the next insertion or removal. getAt() asserts on a bad index as
// TJTVector does.
//
// Not thread-safe: callers lock.
#ifndef TJTMAP_H
#define TJTMAP_H

#include "TJTVector.h"

template <class K, class V>
struct TJTPair
{
    TJTPair() : first(), second() {}
    TJTPair(const K& key, const V& value) : first(key), second(value) {}

    bool operator==(const TJTPair& other) const { return first == other.first && second == other.second; }

    K first;
    V second;
};

template <class K, class V, class Before = TJTBefore<K>>
class TJTMap
{
public:
    typedef TJTPair<K, V> tEntry;
    typedef const tEntry* const_iterator;
    typedef tEntry* iterator;

    explicit TJTMap(Before before = Before()) : mBefore(before) {}

    uint32_t size() const { return mEntries.size(); }
    uint32_t getSize() const { return mEntries.size(); }
    bool isEmpty() const { return mEntries.isEmpty(); }
    const_iterator begin() const { return mEntries.begin(); }
    const_iterator end() const { return mEntries.end(); }
    iterator begin() { return mEntries.begin(); }
    iterator end() { return mEntries.end(); }

    const tEntry& getAt(uint32_t index, SJTCallerLine line = JT_CALLER_LINE) const { return mEntries.get(index, line); }

    // Index of the entry with this key, or -1.
    int32_t indexOf(const K& key) const
    {
        uint32_t at = position(key);
        return at < size() && !mBefore(key, mEntries.get(at).first) ? static_cast<int32_t>(at) : -1;
    }
    bool contains(const K& key) const { return indexOf(key) >= 0; }

    V* find(const K& key)
    {
        int32_t at = indexOf(key);
        return at < 0 ? nullptr : &mEntries.get(static_cast<uint32_t>(at)).second;
    }
    const V* find(const K& key) const
    {
        int32_t at = indexOf(key);
        return at < 0 ? nullptr : &mEntries.get(static_cast<uint32_t>(at)).second;
    }

    // Adds the entry unless the key is there; false (value unchanged) when it is.
    bool insert(const K& key, const V& value)
    {
        uint32_t at = position(key);
        if (at < size() && !mBefore(key, mEntries.get(at).first))
            return false;
        mEntries.insert(at, tEntry(key, value));
        return true;
    }
    // Adds the entry or replaces the value of the key.
    void set(const K& key, const V& value) { (*this)[key] = value; }
    // The value of the key, added default-constructed when missing.
    V& operator[](const K& key)
    {
        uint32_t at = position(key);
        if (at >= size() || mBefore(key, mEntries.get(at).first))
            mEntries.insert(at, tEntry(key, V()));
        return mEntries.get(at).second;
    }

    bool remove(const K& key)
    {
        int32_t at = indexOf(key);
        return at >= 0 && mEntries.erase(static_cast<uint32_t>(at));
    }
    void clear() { mEntries.clear(); }

private:
    struct SKeyBefore
    {
        Before before;
        bool operator()(const tEntry& entry, const K& key) const { return before(entry.first, key); }
    };
    uint32_t position(const K& key) const
    {
        return static_cast<uint32_t>(JTAlgorithm::lowerBound(begin(), end(), key, SKeyBefore{mBefore}) - begin());
    }

    TJTVector<tEntry> mEntries;
    Before mBefore;
};

#endif
