// SPDX-License-Identifier: GPL-2.0-or-later
// The context-menu scan record: {"paths": [...]}, the payload of command type 4.
#pragma once

#include <string>
#include <vector>

#include "JsonSerializer.h"
#include "Locks.h"

namespace JsonReflect {
namespace JRGUIContextMenuScan {

class JRGUIContextMenuScan : public JsonSerializerObject {
public:
    JRGUIContextMenuScan() = default;
    ~JRGUIContextMenuScan() override;

    void Serialize(JsonSerializerHelper& out) override;
    void Deserialize(JsonSerializerHelper& in) override;

    // The lock covers only the moment of the call; one thread per record fills or reads it.
    std::vector<std::string>& getPaths();

private:
    std::vector<std::string> paths;
    CRwLock lock;
};

} // namespace JRGUIContextMenuScan
} // namespace JsonReflect
