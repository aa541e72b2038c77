// TJTSortedVector: a vector kept sorted by a "before" ordering (TJTBefore by default).
//
// Lookups bisect with JTAlgorithm::lowerBound. insert() places a new element after the elements
// it equals (neither is before the other), so equal elements keep their insertion order;
// insertUnique() refuses an element that has an equal. Elements are only read through the
// vector, so the order cannot be broken from outside. Misuse asserts as in TJTVector.
//
// Not thread-safe: callers lock.
#ifndef TJTSORTEDVECTOR_H
#define TJTSORTEDVECTOR_H

#include "TJTVector.h"

template <class T, class Before = TJTBefore<T>>
class TJTSortedVector
{
public:
    typedef const T* const_iterator;

    explicit TJTSortedVector(Before before = Before()) : mBefore(before) {}

    uint32_t size() const { return mItems.size(); }
    uint32_t getSize() const { return mItems.size(); }
    bool isEmpty() const { return mItems.isEmpty(); }
    const_iterator begin() const { return mItems.begin(); }
    const_iterator end() const { return mItems.end(); }
    const T& get(uint32_t index, SJTCallerLine line = JT_CALLER_LINE) const { return mItems.get(index, line); }
    const T& operator[](uint32_t index) const { return mItems.get(index, SJTCallerLine(__LINE__)); }

    // Index of the first element not before value (size() when there is none).
    uint32_t lowerBound(const T& value) const
    {
        return static_cast<uint32_t>(JTAlgorithm::lowerBound(begin(), end(), value, mBefore) - begin());
    }
    // Index of the first element value is before.
    uint32_t upperBound(const T& value) const
    {
        return static_cast<uint32_t>(JTAlgorithm::upperBound(begin(), end(), value, mBefore) - begin());
    }

    // Index of the first element equal to value, or -1.
    int32_t find(const T& value) const
    {
        uint32_t index = lowerBound(value);
        if (index < size() && !mBefore(value, mItems.get(index)))
            return static_cast<int32_t>(index);
        return -1;
    }
    bool contains(const T& value) const { return find(value) >= 0; }

    // Returns the index the element got.
    uint32_t insert(const T& value)
    {
        uint32_t index = upperBound(value);
        mItems.insert(index, value);
        return index;
    }
    // False (and nothing inserted) when an equal element is there; index gets its position.
    bool insertUnique(const T& value, uint32_t* index = nullptr)
    {
        uint32_t at = lowerBound(value);
        bool found = at < size() && !mBefore(value, mItems.get(at));
        if (index != nullptr)
            *index = at;
        if (found)
            return false;
        mItems.insert(at, value);
        return true;
    }

    bool erase(uint32_t index, SJTCallerLine line = JT_CALLER_LINE) { return mItems.erase(index, line); }
    // Removes the first element equal to value; false when there is none.
    bool remove(const T& value)
    {
        int32_t index = find(value);
        return index >= 0 && mItems.erase(static_cast<uint32_t>(index));
    }

    void reserve(uint32_t capacity) { mItems.reserve(capacity); }
    void trim() { mItems.trim(); }
    void clear() { mItems.clear(); }

private:
    TJTVector<T> mItems;
    Before mBefore;
};

#endif
