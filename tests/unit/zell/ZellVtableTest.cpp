// SPDX-License-Identifier: GPL-2.0-or-later
// The slot positions the service relies on when it calls through these interfaces.
#include <gtest/gtest.h>

#include <cstring>

#include "IMervoConfig.h"
#include "IZellClientMgr.h"

namespace {

// Itanium C++ ABI: a pointer to a virtual member function holds 1 + the slot's byte offset in the vtable.
template <typename F>
long slotOf(F member)
{
    static_assert(sizeof(F) == 2 * sizeof(uintptr_t), "Itanium member function pointer");
    uintptr_t raw[2];
    memcpy(raw, &member, sizeof(raw));
    EXPECT_EQ(raw[0] & 1u, 1u) << "not a virtual function";
    return static_cast<long>((raw[0] - 1) / sizeof(void*));
}

} // namespace

TEST(ZellVtable, ClientManagerSlots)
{
    EXPECT_EQ(slotOf(&IZellClientMgr::version), 0);
    EXPECT_EQ(slotOf(&IZellClientMgr::isConnected), 1);
    EXPECT_EQ(slotOf(&IZellClientMgr::endPointCount), 2);
    EXPECT_EQ(slotOf(&IZellClientMgr::createEndPoint), 3);
    EXPECT_EQ(slotOf(&IZellClientMgr::destroyEndPoint), 4);
    EXPECT_EQ(slotOf(&IZellClientMgr::init), 5);
    EXPECT_EQ(slotOf(&IZellClientMgr::setLogCallback), 6);
    EXPECT_EQ(slotOf(&IZellClientMgr::setLogLevel), 7);
    EXPECT_EQ(slotOf(&IZellClientMgr::setLogMask), 8);
    EXPECT_EQ(slotOf(&IZellClientMgr::release), 9);
    EXPECT_EQ(slotOf(&IZellClientMgr::stop), 10);
    // Later additions come after the original operations.
    EXPECT_EQ(slotOf(&IZellClientMgr::lastError), 11);
    EXPECT_EQ(slotOf(&IZellClientMgr::waitConnected), 12);
}

TEST(ZellVtable, InitResultsKeepTheirValuesAndNames)
{
    EXPECT_EQ(ZELL_INIT_OK, 0);
    EXPECT_EQ(ZELL_INIT_BAD_SETTINGS, 1);
    EXPECT_EQ(ZELL_INIT_BAD_ADDRESS, 2);
    EXPECT_EQ(ZELL_INIT_NOT_FRESH, 3);
    EXPECT_EQ(ZELL_INIT_NO_RESOURCES, 4);
    EXPECT_STREQ(zellInitResultName(ZELL_INIT_BAD_ADDRESS), "ZELL_INIT_BAD_ADDRESS");
    EXPECT_STREQ(zellInitResultName(ZELL_INIT_OK), "ZELL_INIT_OK");
    EXPECT_STREQ(zellInitResultName(99), "ZELL_INIT_UNKNOWN");
}

TEST(ZellVtable, EndPointSlots)
{
    EXPECT_EQ(slotOf(&IZellMREndPoint4::init), 0);
    EXPECT_EQ(slotOf(&IZellMREndPoint4::uninit), 1);
    EXPECT_EQ(slotOf(&IZellMREndPoint4::registerRecvNotify), 2);
    EXPECT_EQ(slotOf(&IZellMREndPoint4::unregisterRecvNotify), 3);
    EXPECT_EQ(slotOf(&IZellMREndPoint4::sendMsg), 4);
    // Later additions come after the original operations.
    EXPECT_EQ(slotOf(&IZellMREndPoint4::sendMsgWait), 5);
    EXPECT_EQ(slotOf(&IZellMREndPoint4::isRegistered), 6);
    EXPECT_EQ(slotOf(&IZellMREndPoint4::setRegisteredNotify), 7);
}

TEST(ZellVtable, ReceiverSlots)
{
    // Two destructor slots first, then ReceiveCallback.
    EXPECT_EQ(slotOf(&IMRReceiveComplete::ReceiveCallback), 2);
}

TEST(ZellVtable, ConfigurationSlots)
{
    EXPECT_EQ(slotOf(&IMervoConfig::getString), 0);
    EXPECT_EQ(slotOf(&IMervoConfig::setString), 1);
    EXPECT_EQ(slotOf(&IMervoConfig::removeKey), 2);
    EXPECT_EQ(slotOf(&IMervoConfig::save), 3);
    EXPECT_EQ(slotOf(&IMervoConfig::request), 4);
}
