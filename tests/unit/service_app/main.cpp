// SPDX-License-Identifier: GPL-2.0-or-later
// The application tests need a Qt application object for the program's own directory.
#include <QCoreApplication>

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
