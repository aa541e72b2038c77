// JTAlgorithm: the few algorithms the containers and their users need, and TJTBefore, the
// ordering they use by default.
//
// TJTBefore<T>(a, b) is a < b; for C texts (const char*, char*) it compares the bytes (strcmp),
// with a null text before every other text. Ranges are half open [first, last); "before" is a
// strict weak ordering. Nothing here allocates, locks or fails.
#ifndef JTALGORITHM_H
#define JTALGORITHM_H

#include <algorithm>
#include <cstring>

template <class T>
struct TJTBefore
{
    bool operator()(const T& a, const T& b) const { return a < b; }
};

template <>
struct TJTBefore<const char*>
{
    bool operator()(const char* a, const char* b) const
    {
        if (a == nullptr || b == nullptr)
            return a == nullptr && b != nullptr;
        return std::strcmp(a, b) < 0;
    }
};

template <>
struct TJTBefore<char*> : TJTBefore<const char*>
{
};

namespace JTAlgorithm
{
// The first position whose element is not inFront, in a range where those that are come first.
template <class It, class InFront>
It partitionPoint(It first, It last, InFront inFront)
{
    auto count = last - first;
    while (count > 0) {
        auto half = count / 2;
        It middle = first + half;
        if (inFront(*middle)) {
            first = middle + 1;
            count -= half + 1;
        } else {
            count = half;
        }
    }
    return first;
}

// The first position whose element is not before value.
template <class It, class V, class Before>
It lowerBound(It first, It last, const V& value, Before before)
{
    return partitionPoint(first, last, [&](const auto& element) { return before(element, value); });
}

template <class It, class V>
It lowerBound(It first, It last, const V& value)
{
    return lowerBound(first, last, value, TJTBefore<V>());
}

// The first position whose element value is before.
template <class It, class V, class Before>
It upperBound(It first, It last, const V& value, Before before)
{
    return partitionPoint(first, last, [&](const auto& element) { return !before(value, element); });
}

template <class It, class V>
It upperBound(It first, It last, const V& value)
{
    return upperBound(first, last, value, TJTBefore<V>());
}

// The first position whose element equals value, or last.
template <class It, class V>
It find(It first, It last, const V& value)
{
    while (first != last && !(*first == value))
        ++first;
    return first;
}

// Sorts in place (not stable).
template <class It, class Before>
void sort(It first, It last, Before before)
{
    std::sort(first, last, before);
}

template <class It>
void sort(It first, It last)
{
    std::sort(first, last);
}

template <class T>
const T& minimum(const T& a, const T& b)
{
    return b < a ? b : a;
}

template <class T>
const T& maximum(const T& a, const T& b)
{
    return a < b ? b : a;
}
}

#endif
