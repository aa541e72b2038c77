// CJTVersion: a three-part version number (major.minor.patch), used for the trace server's
// version, the version the client requires of it, and the text persistence format.
//
// A plain value type: copy it freely, no thread concerns. 0.0.0 (CJTVersion::invalid) stands for
// "unknown" (no answer from the server).
#ifndef CJTVERSION_H
#define CJTVERSION_H

#include <cstdint>

struct CJTVersion
{
    uint16_t major;
    uint16_t minor;
    uint16_t patch;

    constexpr CJTVersion() : major(0), minor(0), patch(0) {}
    constexpr CJTVersion(uint16_t maj, uint16_t min, uint16_t pat) : major(maj), minor(min), patch(pat) {}

    // 0.0.0 is the "no version known" value.
    constexpr bool isValid() const { return major != 0 || minor != 0 || patch != 0; }

    constexpr bool operator==(const CJTVersion& o) const
    {
        return major == o.major && minor == o.minor && patch == o.patch;
    }
    constexpr bool operator!=(const CJTVersion& o) const { return !(*this == o); }

    static const CJTVersion invalid;
};

inline constexpr CJTVersion CJTVersion::invalid{0, 0, 0};

#endif
