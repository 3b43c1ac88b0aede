// SPDX-License-Identifier: GPL-2.0-or-later
// A shared library without Qt plugin metadata.
extern "C" int kuv_not_a_plugin()
{
    return 42;
}
