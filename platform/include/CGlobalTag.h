// SPDX-License-Identifier: GPL-2.0-or-later
// A named per-user instance tag: a kernel-held lock plus published attributes.
#pragma once

#include "KuvExport.h"

#include <map>
#include <memory>
#include <string>

class KUV_EXPORT CGlobalTag {
public:
    // Where tags of one scope live; getUserConfig() is the calling user's runtime directory.
    class TagConfig {
    public:
        static TagConfig getUserConfig();
        std::string dir;   // directory holding the tag files, with a final "/"; empty when refused
        std::string error; // why the directory was refused
    };

    CGlobalTag(const std::string& name, const TagConfig& config);
    // Releases the tag (if held) and removes its attribute file.
    ~CGlobalTag();
    CGlobalTag(const CGlobalTag&) = delete;
    CGlobalTag& operator=(const CGlobalTag&) = delete;

    // 1: this process now holds the tag; 2: another live process holds it;
    // -1: the tag cannot be created or taken. wait=false never blocks.
    int trylock(bool wait) const;
    // Publishes key=value into the tag's attribute file (atomic rewrite). 1 on success, 0 otherwise.
    int setAttribute(const std::string& key, const std::string& value) const;

    // For tools: whether some process holds the named tag, and its published attributes
    // (readAttributes is false when no process holds the tag; a dead holder's leftovers are not shown).
    static bool isHeld(const std::string& name, const TagConfig& config);
    static bool readAttributes(const std::string& name, const TagConfig& config,
                               std::map<std::string, std::string>& attributes);

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};
