// SPDX-License-Identifier: GPL-2.0-or-later
#include <gtest/gtest.h>

#include <cstring>

#include "Guid.h"

namespace {
const unsigned char kAppGuid[16] = {0x50, 0x2E, 0x35, 0xF6, 0x40, 0x5C, 0xEE, 0x11,
                                    0xBE, 0xE1, 0x47, 0xBA, 0xD2, 0x01, 0x1C, 0x1F};

GUID filled(unsigned char byte)
{
    GUID g;
    memset(&g, byte, sizeof(g));
    return g;
}
} // namespace

TEST(Guid, PlainAndBracedGiveSameBytes)
{
    GUID plain = filled(0xAA);
    GUID braced = filled(0x55);
    stringToGuid(plain, "F6352E50-5C40-11EE-BEE1-47BAD2011C1F");
    stringToGuid(braced, "{F6352E50-5C40-11EE-BEE1-47BAD2011C1F}");
    EXPECT_EQ(memcmp(&plain, &braced, 16), 0);
    EXPECT_EQ(plain.Data1, 0xF6352E50u);
    EXPECT_EQ(memcmp(&plain, kAppGuid, 16), 0);
}

TEST(Guid, NullGivesZeros)
{
    GUID g = filled(0xFF);
    stringToGuid(g, nullptr);
    const GUID zero = filled(0);
    EXPECT_EQ(memcmp(&g, &zero, 16), 0);
}

// Texts that all name the application's GUID: case and braces do not matter, a missing closing brace
// neither, and a stray closing one is past the plain format's end.
class GuidText : public ::testing::TestWithParam<const char*> {};

TEST_P(GuidText, GivesTheApplicationGuid)
{
    GUID g = filled(0);
    stringToGuid(g, GetParam());
    EXPECT_EQ(memcmp(&g, kAppGuid, 16), 0);
}

INSTANTIATE_TEST_SUITE_P(Forms, GuidText,
                         ::testing::Values("F6352E50-5C40-11EE-BEE1-47BAD2011C1F",
                                           "{F6352E50-5C40-11EE-BEE1-47BAD2011C1F}",
                                           "f6352e50-5c40-11ee-bee1-47bad2011c1f",
                                           "{F6352E50-5C40-11EE-BEE1-47BAD2011C1F",
                                           "F6352E50-5C40-11EE-BEE1-47BAD2011C1F}"));

// Malformed text converts up to the first mismatch; the fields after it keep their bytes.
struct MalformedGuid {
    const char* text;
    uint16_t data3;
};

class GuidMalformed : public ::testing::TestWithParam<MalformedGuid> {};

TEST_P(GuidMalformed, StopsAtTheFirstMismatch)
{
    GUID g = filled(0x77);
    stringToGuid(g, GetParam().text);
    EXPECT_EQ(g.Data1, 0xF6352E50u);
    EXPECT_EQ(g.Data2, 0x5C40u);
    EXPECT_EQ(g.Data3, GetParam().data3);
    for (unsigned char b : g.Data4) {
        EXPECT_EQ(b, 0x77);
    }
}

INSTANTIATE_TEST_SUITE_P(ThirdGroup, GuidMalformed,
                         ::testing::Values(
                             // "1X" scans as hex 1 and stops there: the third field takes 1.
                             MalformedGuid{"F6352E50-5C40-1XEE-BEE1-47BAD2011C1F", 0x0001},
                             // Nothing to scan: the third field is untouched.
                             MalformedGuid{"F6352E50-5C40-XXEE-BEE1-47BAD2011C1F", 0x7777}));
