// TJTVector: a growing array; TJTPtrVector: a vector of pointers.
//
// Elements are kept in one contiguous block. When an addition needs more room the capacity
// grows to calcNewCapacity(current, required): at least 8, at least half as much again, at least
// what is required. trim() gives back unused room.
//
// Misuse is an assertion through JTVectorAssertions, raised at the caller's line (the line of
// operator[] itself, which cannot take one): an index not below the size for get/set/erase and
// operator[], above the size for insert (code 0, "Index our of range"); an erase range running
// past the end (code 1, "Invalid parameter"); an iterator outside the vector (code 2, "Invalid
// iterator position"). When the assertion was announced as expected and returns, nothing is
// changed: set/insert/erase return false or end(), and get/operator[] return a default-constructed
// element shared by all such failed calls of one element type.
//
// Not thread-safe: callers lock (for instance with TJTAutoLock).
#ifndef TJTVECTOR_H
#define TJTVECTOR_H

#include "JTAlgorithm.h"
#include "JTContainerAssertions.h"

#include <cstdint>
#include <type_traits>
#include <utility>
#include <vector>

template <class T>
class TJTVector
{
    static_assert(!std::is_same<T, bool>::value, "elements are handed out by reference; use uint8_t for flags");

public:
    typedef T* iterator;
    typedef const T* const_iterator;

    TJTVector() {}
    explicit TJTVector(uint32_t capacity) { reserve(capacity); }

    uint32_t size() const { return static_cast<uint32_t>(mItems.size()); }
    uint32_t getSize() const { return size(); }
    uint32_t getCapacity() const { return static_cast<uint32_t>(mItems.capacity()); }
    bool isEmpty() const { return mItems.empty(); }

    iterator begin() { return mItems.data(); }
    iterator end() { return mItems.data() + mItems.size(); }
    const_iterator begin() const { return mItems.data(); }
    const_iterator end() const { return mItems.data() + mItems.size(); }
    T* getData() { return mItems.data(); }
    const T* getData() const { return mItems.data(); }

    T& get(uint32_t index, SJTCallerLine line = JT_CALLER_LINE)
    {
        if (!checkIndex(index, line))
            return failedElement();
        return mItems[index];
    }
    const T& get(uint32_t index, SJTCallerLine line = JT_CALLER_LINE) const
    {
        if (!checkIndex(index, line))
            return failedElement();
        return mItems[index];
    }
    T& operator[](uint32_t index) { return get(index, SJTCallerLine(__LINE__)); }
    const T& operator[](uint32_t index) const { return get(index, SJTCallerLine(__LINE__)); }

    bool set(uint32_t index, const T& value, SJTCallerLine line = JT_CALLER_LINE)
    {
        if (!checkIndex(index, line))
            return false;
        mItems[index] = value;
        return true;
    }

    void append(const T& value)
    {
        grow(1);
        mItems.push_back(value);
    }
    void append(T&& value)
    {
        grow(1);
        mItems.push_back(std::move(value));
    }
    void push_back(const T& value) { append(value); }

    // Inserts before index; index == size() appends.
    bool insert(uint32_t index, const T& value, SJTCallerLine line = JT_CALLER_LINE)
    {
        if (index > size()) {
            JTVectorAssertions::reportAssertion(JTVectorAssertions::INDEX_OUT_OF_RANGE, line.line);
            return false;
        }
        grow(1);
        mItems.insert(mItems.begin() + index, value);
        return true;
    }
    // Inserts before position; returns the new element's position, or end() on a bad iterator.
    // (A template, so that insert(0, value) picks the index form.)
    template <class It, class = typename std::enable_if<std::is_same<It, iterator>::value>::type>
    iterator insert(It position, const T& value, SJTCallerLine line = JT_CALLER_LINE)
    {
        if (position < begin() || position > end()) {
            JTVectorAssertions::reportAssertion(JTVectorAssertions::INVALID_ITERATOR, line.line);
            return end();
        }
        uint32_t index = static_cast<uint32_t>(position - begin());
        insert(index, value, line);
        return begin() + index;
    }

    bool erase(uint32_t index, SJTCallerLine line = JT_CALLER_LINE)
    {
        if (!checkIndex(index, line))
            return false;
        mItems.erase(mItems.begin() + index);
        return true;
    }
    // Erases count elements from first.
    bool erase(uint32_t first, uint32_t count, SJTCallerLine line = JT_CALLER_LINE)
    {
        if (first > size()) {
            JTVectorAssertions::reportAssertion(JTVectorAssertions::INDEX_OUT_OF_RANGE, line.line);
            return false;
        }
        if (count > size() - first) {
            JTVectorAssertions::reportAssertion(JTVectorAssertions::INVALID_PARAMETER, line.line);
            return false;
        }
        mItems.erase(mItems.begin() + first, mItems.begin() + first + count);
        return true;
    }
    // Erases the element at position; returns the position that follows it.
    template <class It, class = typename std::enable_if<std::is_same<It, iterator>::value>::type>
    iterator erase(It position, SJTCallerLine line = JT_CALLER_LINE)
    {
        if (position < begin() || position >= end()) {
            JTVectorAssertions::reportAssertion(JTVectorAssertions::INVALID_ITERATOR, line.line);
            return end();
        }
        uint32_t index = static_cast<uint32_t>(position - begin());
        mItems.erase(mItems.begin() + index);
        return begin() + index;
    }

    // Removes the first element equal to value; false when there is none.
    bool remove(const T& value)
    {
        int32_t index = find(value);
        if (index < 0)
            return false;
        mItems.erase(mItems.begin() + index);
        return true;
    }

    // Index of the first element equal to value at or after from, or -1.
    int32_t find(const T& value, uint32_t from = 0) const
    {
        if (from >= size())
            return -1;
        const_iterator at = JTAlgorithm::find(begin() + from, end(), value);
        return at == end() ? -1 : static_cast<int32_t>(at - begin());
    }
    bool contains(const T& value) const { return find(value) >= 0; }

    void reserve(uint32_t capacity)
    {
        if (capacity > mItems.capacity())
            mItems.reserve(capacity);
    }
    // New elements are copies of fill.
    void resize(uint32_t newSize, const T& fill = T())
    {
        if (newSize > size())
            grow(newSize - size());
        mItems.resize(newSize, fill);
    }
    void trim() { mItems.shrink_to_fit(); }
    void clear() { mItems.clear(); }

    static uint32_t calcNewCapacity(uint32_t current, uint32_t required)
    {
        uint64_t grown = static_cast<uint64_t>(current) + current / 2;
        if (grown < 8)
            grown = 8;
        if (grown < required)
            grown = required;
        return grown > 0xFFFFFFFFull ? 0xFFFFFFFFu : static_cast<uint32_t>(grown);
    }

    bool operator==(const TJTVector& other) const { return mItems == other.mItems; }
    bool operator!=(const TJTVector& other) const { return !(*this == other); }

private:
    bool checkIndex(uint32_t index, SJTCallerLine line) const
    {
        if (index < size())
            return true;
        JTVectorAssertions::reportAssertion(JTVectorAssertions::INDEX_OUT_OF_RANGE, line.line);
        return false;
    }
    void grow(uint32_t more)
    {
        uint64_t required = static_cast<uint64_t>(size()) + more;
        if (required > mItems.capacity())
            mItems.reserve(calcNewCapacity(getCapacity(), static_cast<uint32_t>(required)));
    }
    static T& failedElement()
    {
        static T element{};
        element = T();
        return element;
    }

    std::vector<T> mItems;
};

// Holds pointers it does not own; deleteAll() is there for owners that put new'd objects in.
template <class T>
class TJTPtrVector : public TJTVector<T*>
{
public:
    void deleteAll()
    {
        for (T* item : *this)
            delete item;
        this->clear();
    }
};

#endif
