/* Value access shared by the management entry points. */
#ifndef DHCPSNOOP_NM_VALUE_H
#define DHCPSNOOP_NM_VALUE_H

#include <string.h>

#include "dhcpsnoop_nm.h"

/* Values arrive as untyped pointers that may sit anywhere in a request
 * buffer: copy, never cast. */
inline uint32_t nm_value_u32(const void *value)
{
    uint32_t v;
    memcpy(&v, value, sizeof v);
    return v;
}

inline void nm_value_put_u32(void *value, uint32_t v) { memcpy(value, &v, sizeof v); }

/* A text value record, or null when the value cannot be one. */
inline QorTextPair *nm_value_text(void *value)
{
    auto *t = static_cast<QorTextPair *>(value);
    if (!t || (!t->buf && t->len))
        return nullptr;
    return t;
}

#endif
