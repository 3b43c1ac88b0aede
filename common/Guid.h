// SPDX-License-Identifier: GPL-2.0-or-later
// The bus's 16-byte binary GUID and its conversion from text.
#pragma once

#include <cstdint>

struct GUID {
    uint32_t Data1;
    uint16_t Data2;
    uint16_t Data3;
    uint8_t Data4[8];
};
static_assert(sizeof(GUID) == 16, "GUID is 16 bytes on the wire");

// Fills out from "XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX", with or without braces; null gives zeros.
// Malformed text converts up to the first mismatch and leaves the remaining fields untouched.
void stringToGuid(GUID& out, const char* text);
