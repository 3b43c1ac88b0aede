// SPDX-License-Identifier: GPL-2.0-or-later
#include "JRGUIContextMenuScan.h"

namespace JsonReflect {
namespace JRGUIContextMenuScan {

JRGUIContextMenuScan::~JRGUIContextMenuScan() = default;

void JRGUIContextMenuScan::Serialize(JsonSerializerHelper& out)
{
    CReadLocker guard(lock);
    out.Write("paths", paths);
}

void JRGUIContextMenuScan::Deserialize(JsonSerializerHelper& in)
{
    CWriteLocker guard(lock);
    in.Read("paths", paths);
}

std::vector<std::string>& JRGUIContextMenuScan::getPaths()
{
    CReadLocker guard(lock);
    return paths;
}

} // namespace JRGUIContextMenuScan
} // namespace JsonReflect
