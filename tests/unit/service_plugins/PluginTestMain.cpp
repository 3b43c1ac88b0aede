// SPDX-License-Identifier: GPL-2.0-or-later
// The plugin manager's slot runs through a queued connection, so the tests need an application object.
#include <QCoreApplication>

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
