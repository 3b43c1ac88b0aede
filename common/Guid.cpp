// SPDX-License-Identifier: GPL-2.0-or-later
#include "Guid.h"

#include <cstdio>
#include <cstring>

void stringToGuid(GUID& out, const char* text)
{
    if (text == nullptr) {
        memset(&out, 0, sizeof(out));
        return;
    }
    // The result is not checked on purpose: fields before the first mismatch are converted, the
    // rest keep their values. Callers only pass fixed, well-formed texts.
    if (text[0] == '{') {
        sscanf(text, "{%08x-%04hx-%04hx-%02hhx%02hhx-%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx}", &out.Data1, &out.Data2,
               &out.Data3, &out.Data4[0], &out.Data4[1], &out.Data4[2], &out.Data4[3], &out.Data4[4], &out.Data4[5],
               &out.Data4[6], &out.Data4[7]);
    } else {
        sscanf(text, "%08x-%04hx-%04hx-%02hhx%02hhx-%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx", &out.Data1, &out.Data2,
               &out.Data3, &out.Data4[0], &out.Data4[1], &out.Data4[2], &out.Data4[3], &out.Data4[4], &out.Data4[5],
               &out.Data4[6], &out.Data4[7]);
    }
}
